import assert from 'node:assert/strict';
import {test} from 'node:test';
import {ringAngle, ringDragged, ringKeyed, ringPlace, ringWheeled} from '../../simcam/web/page/ring.js';

const near = (actual, expected, tolerance) => assert.ok(Math.abs(actual - expected) <= tolerance, `${actual}, expected ${expected}`);
const place = (value, mark, width) => ringPlace(ringAngle(value, mark), width);

test('the mark of the position is in the middle, lower ones to its right', () => {
  for (const value of [0, 0.37, 1]) assert.equal(place(value, value, 300), 150);
  assert.ok(place(0.5, 0.45, 300) > 160);
  assert.ok(place(0.5, 0.55, 300) < 140);
});

test('marks are seen over half a turn, the outermost at the radius of 0.62 widths', () => {
  // From stop to stop the ring turns by 4.6 radians, so a quarter of a turn is 0.3415 of the scale.
  near(place(0.3414, 0, 1000), 500 + 620, 0.01);
  assert.equal(place(0.3416, 0, 1000), null);
  near(place(0.6586, 1, 1000), 500 - 620, 0.01);
  assert.equal(place(0.6584, 1, 1000), null);
  near(place(0.5, 0.5 - Math.PI / 6 / 4.6, 1000), 500 + 310, 0.01); // the sine of 30 degrees is a half
});

test('the surface follows the pointer', () => {
  for (const width of [300, 1000]) {
    for (const pixels of [-5, 1, 5]) near(place(ringDragged(0.4, pixels, width), 0.4, width), width / 2 + pixels, 0.01);
  }
  near(ringDragged(0, 620 * 4.6, 1000), 1, 1e-12); // the whole travel of the ring
});

test('arrow keys turn by hundredths, with Shift by thousandths, pages by twentieths', () => {
  const turned = (key, shiftKey = false) => ringKeyed(0.5, {key, shiftKey});
  near(turned('ArrowRight'), 0.51, 1e-12);
  near(turned('ArrowUp'), 0.51, 1e-12);
  near(turned('ArrowLeft'), 0.49, 1e-12);
  near(turned('ArrowDown'), 0.49, 1e-12);
  near(turned('ArrowUp', true), 0.501, 1e-12);
  near(turned('ArrowLeft', true), 0.499, 1e-12);
  near(turned('PageUp'), 0.55, 1e-12);
  near(turned('PageDown'), 0.45, 1e-12);
  near(turned('PageDown', true), 0.45, 1e-12);
});

test('Home and End go to the stops, and other keys are not taken', () => {
  assert.equal(ringKeyed(0.5, {key: 'Home', shiftKey: false}), 0);
  assert.equal(ringKeyed(0.5, {key: 'End', shiftKey: false}), 1);
  for (const key of ['Tab', 'Enter', ' ', 'a', 'toString']) assert.equal(ringKeyed(0.5, {key, shiftKey: false}), null, key);
});

test('the wheel turns by a step whatever its distance, away from the person and to the right forward', () => {
  const turned = (deltaX, deltaY, shiftKey = false) => ringWheeled(0.5, {deltaX, deltaY, shiftKey});
  near(turned(0, -100), 0.506, 1e-12);
  near(turned(0, -1), 0.506, 1e-12);
  near(turned(0, 100), 0.494, 1e-12);
  near(turned(30, 10), 0.506, 1e-12);
  near(turned(-30, 10), 0.494, 1e-12);
  assert.equal(turned(0, 0), 0.5);
});

test('with Shift the wheel turns finely in the same direction, whichever axis the browser reports', () => {
  const turned = (deltaX, deltaY) => ringWheeled(0.5, {deltaX, deltaY, shiftKey: true});
  near(turned(0, -100), 0.501, 1e-12);
  near(turned(-100, 0), 0.501, 1e-12);
  near(turned(100, 0), 0.499, 1e-12);
});
