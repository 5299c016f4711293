import assert from 'node:assert/strict';
import {test} from 'node:test';
import {cueFor, percentOf, pitchOf} from '../../simcam/web/page/focus.js';

const PEAK = {value: 200, percent: 50, ring: 0.5};

test('the pitch rises with every step of the value, from one audible pitch to another', () => {
  for (let value = 0; value < 1000; value += 1) assert.ok(pitchOf(value) < pitchOf(value + 1), `after ${value}`);
  assert.ok(pitchOf(300) > pitchOf(30) * 1.5);
  assert.ok(pitchOf(0) >= 100 && pitchOf(100000) < 2000);
});

test('the percentage is rounded down, may exceed 100, and is 0 without a peak', () => {
  assert.equal(percentOf(199, 200), 99); // 99.5
  assert.equal(percentOf(300, 200), 150);
  assert.equal(percentOf(300, 0), 0);
});

test('without a peak the cue asks to turn the ring', () => {
  assert.match(cueFor({value: 0, percent: 0, ring: null}, 0.5, 0.1).text, /^Turn the ring/);
});

test('from 97 percent on the ring is at the peak', () => {
  assert.equal(cueFor({...PEAK, percent: 97}, 0.9, 0).kind, 'good');
  assert.notEqual(cueFor({...PEAK, percent: 96}, 0.9, 0).kind, 'good');
});

test('beyond the peak the cue names the direction that leads back', () => {
  assert.match(cueFor(PEAK, 0.6, 0.01).text, /left/);
  assert.match(cueFor(PEAK, 0.4, -0.01).text, /right/);
  assert.match(cueFor(PEAK, 0.6, 0).text, /left/, 'also while the ring rests');
});

test('on the way back the cue does not ask to turn', () => {
  assert.match(cueFor(PEAK, 0.6, -0.01).text, /Coming back/);
  assert.match(cueFor(PEAK, 0.4, 0.01).text, /Coming back/);
});

test('a lower value at the place of the peak is explained', () => {
  assert.match(cueFor(PEAK, 0.5, 0).text, /light or the scene/);
});

test('a peak reached at an unknown place gives no direction', () => {
  assert.match(cueFor({...PEAK, ring: null}, 0.6, 0.01).text, /Below the peak/);
});
