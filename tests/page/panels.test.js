import assert from 'node:assert/strict';
import {test} from 'node:test';
import {faultText} from '../../simcam/web/page/panel_faults.js';
import {mergedText, planesText} from '../../simcam/web/page/panel_posts.js';

test('a fault is described by what it does, how long, and how often it was hit', () => {
  const fault = {call: 'qm7_cl_post_set_osd', error: '0x81000001', remaining: 3, delay_ms: 0, hits: 1};
  assert.equal(faultText(fault), ' fails with 0x81000001: 3 more, hit 1 time');
  assert.equal(faultText({...fault, delay_ms: 250, remaining: 'forever', hits: 2}), ' fails with 0x81000001 and takes 250 ms longer: forever, hit 2 times');
  assert.equal(faultText({...fault, error: '0x00000000', delay_ms: 50, hits: 0}), ' takes 50 ms longer: 3 more, hit 0 times');
});

test('a fault that waits for a rare call says when the call is made', () => {
  const fault = {call: 'CAM_FOCUS_CONFIG', error: '0x00000005', remaining: 1, delay_ms: 0, hits: 0};
  assert.equal(faultText(fault), ' fails with 0x00000005: 1 more, used when the process starts');
  assert.equal(faultText({...fault, hits: 1}), ' fails with 0x00000005: 1 more, hit 1 time');
});

test('a post lists its open planes', () => {
  const closed = {open: false};
  const plane = {open: true, shown: true, width: 480, height: 72, x: 400, y: 576};
  assert.equal(planesText({running: false, planes: [plane]}), 'Off.');
  assert.equal(planesText({running: true, planes: [closed, closed]}), 'Running, no plane is open.');
  assert.equal(planesText({running: true, planes: [plane, closed, {...plane, shown: false}]}),
    'Plane 0: 480 × 72 at 400, 576\nPlane 2: 480 × 72 at 400, 576, not shown');
});

test('merged reports are counted, and nothing is said without any', () => {
  assert.equal(mergedText(0), '');
  assert.match(mergedText(140), /^140 reports of starts and stops were merged .* did not read them\. The last state/);
});
