import assert from 'node:assert/strict';
import {test} from 'node:test';
import {historyAdd, historyNew} from '../../simcam/web/page/history.js';
import {cueNow} from '../../simcam/web/page/readout.js';

// A history with a measurement at each ring position; the overlay's peak is 200 from the second on.
function historyAt(...rings) {
  const history = historyNew(100);
  rings.forEach((ring, i) => {
    historyAdd(history, {number: i + 1, time_s: i / 30, value: i === 1 ? 200 : 100, ring, overlay: {peak: i ? 200 : 0}});
  });
  return history;
}

test('without a process that keeps a peak the cue says why', () => {
  const history = historyAt(0.4, 0.5, 0.6);
  assert.match(cueNow(history, false, 0, {noSession: false}).text, /^No overlay process runs/);
  assert.match(cueNow(history, false, 0, {noSession: true}).text, /has no session/);
  assert.equal(cueNow(history, false, 100, {noSession: false}).kind, 'none', 'no old peak is judged');
});

test('before the first measurement the cue is empty', () => {
  assert.deepEqual(cueNow(historyAt(), true, 0, {noSession: false}), {kind: 'none', text: ''});
});

test('the cue judges the latest position, the last travel and the percentage', () => {
  const health = {noSession: false};
  assert.match(cueNow(historyAt(0.4, 0.5, 0.6), true, 50, health).text, /left/);
  assert.match(cueNow(historyAt(0.6, 0.5, 0.4), true, 50, health).text, /right/);
  assert.match(cueNow(historyAt(0.8, 0.5, 0.7), true, 50, health).text, /Coming back/);
  assert.equal(cueNow(historyAt(0.4, 0.5, 0.6), true, 97, health).kind, 'good');
});
