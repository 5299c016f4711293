import assert from 'node:assert/strict';
import {test} from 'node:test';
import {sharpDots, shownPlanes} from '../../simcam/web/page/peaking.js';

const WIDTH = 40;
const HEIGHT = 30;

// A gray picture, level(x, y) bright.
function picture(level) {
  const rgba = new Uint8ClampedArray(WIDTH * HEIGHT * 4);
  for (let y = 0; y < HEIGHT; y += 1) {
    for (let x = 0; x < WIDTH; x += 1) rgba.fill(level(x, y), (y * WIDTH + x) * 4, (y * WIDTH + x) * 4 + 3);
  }
  return rgba;
}
const columns = (dots) => [...new Set([...dots.keys()].filter((i) => dots[i]).map((i) => i % WIDTH))];
const lines = (dots) => [...new Set([...dots.keys()].filter((i) => dots[i]).map((i) => Math.floor(i / WIDTH)))];

test('only the sharp one of two edges is marked, on both sides', () => {
  const sharp = sharpDots(picture((x) => (x < 20 ? 40 : 200)), WIDTH, HEIGHT, []);
  assert.deepEqual(columns(sharp), [19, 20]);
  assert.equal(lines(sharp).length, HEIGHT - 2, 'all lines but the first and the last');
  assert.deepEqual(columns(sharpDots(picture((x) => x * 6), WIDTH, HEIGHT, [])), []);
  assert.deepEqual(lines(sharpDots(picture((_, y) => (y < 9 ? 200 : 40)), WIDTH, HEIGHT, [])), [8, 9]);
});

test('shown planes and three dots around them are left out', () => {
  const dots = sharpDots(picture((x) => (x < 20 ? 40 : 200)), WIDTH, HEIGHT, [{left: 10, top: 12, right: 30, bottom: 14.5}]);
  assert.deepEqual(lines(dots), [1, 2, 3, 4, 5, 6, 7, 8, 18, 19, 20, 21, 22, 23, 24, 25, 26, 27, 28]);
});

test('a plane that reaches beyond the picture does not spill into other lines', () => {
  const edge = picture((x) => (x < 20 ? 40 : 200));
  assert.deepEqual(lines(sharpDots(edge, WIDTH, HEIGHT, [{left: 35, top: -9, right: 90, bottom: 99}])).length, HEIGHT - 2);
  assert.deepEqual(columns(sharpDots(edge, WIDTH, HEIGHT, [{left: -9, top: -9, right: 99, bottom: 99}])), []);
});

const plane = (x, y, width, height, shown = true) => ({open: true, shown, x, y, width, height});
const POSTS = [
  {running: true, width: 1280, height: 720, planes: [plane(400, 576, 480, 72), plane(409, 534, 480, 72, false)]},
  {running: true, width: 1920, height: 1080, planes: [plane(600, 864, 720, 108)]},
  {running: true, width: 720, height: 480, planes: [plane(0, 0, 720, 480)]},
  {running: false, width: 352, height: 240, planes: [plane(0, 0, 352, 240)]},
];

test('the shown planes of one post are scaled to the picture', () => {
  assert.deepEqual(shownPlanes('0', POSTS, 640, 360), [{left: 200, top: 288, right: 440, bottom: 324}]);
  assert.deepEqual(shownPlanes('1', POSTS, 640, 360), [{left: 200, top: 288, right: 440, bottom: 324}]);
  assert.deepEqual(shownPlanes('3', POSTS, 640, 360), [], 'a stopped post shows none');
});

test('of all four posts, each plane lies in the tile of its post', () => {
  const [first, second, third, ...rest] = shownPlanes('all', POSTS, 640, 360);
  assert.deepEqual(first, {left: 100, top: 144, right: 220, bottom: 162});
  assert.deepEqual(second, {left: 420, top: 144, right: 540, bottom: 162});
  assert.deepEqual(third, {left: 25, top: 180, right: 295, bottom: 360}, '3:2 in a tile of 16:9');
  assert.deepEqual(rest, []);
});

test('the sensor has no planes', () => {
  assert.deepEqual(shownPlanes('sensor', POSTS, 640, 360), []);
});
