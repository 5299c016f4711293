import assert from 'node:assert/strict';
import {test} from 'node:test';
import {placeTexts, roundUp} from '../../simcam/web/page/axis.js';

test('the top of an axis is a round number at or above the value, and not far above', () => {
  assert.deepEqual([10, 11, 84, 100, 101, 284, 5000].map(roundUp), [10, 15, 100, 100, 150, 300, 5000]);
  for (let value = 1; value < 3000; value += 1) {
    assert.ok(roundUp(value) >= value && roundUp(value) <= value * 1.5 + 1, `${value}`);
  }
});

test('texts start at their position, or end there at the right border', () => {
  assert.deepEqual(placeTexts([{at: 10, width: 20}, {at: 95, width: 20}], 100, 3), [13, 72]);
});

test('of texts that would overlap the newer one is kept', () => {
  assert.deepEqual(placeTexts([{at: 10, width: 20}, {at: 20, width: 20}, {at: 60, width: 20}], 100, 3), [null, 23, 63]);
});
