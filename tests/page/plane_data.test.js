import assert from 'node:assert/strict';
import {test} from 'node:test';
import {indexColor, paletteColor, unpackIndices} from '../../simcam/web/page/plane_data.js';

test('indices of 8, 4 and 2 bits are unpacked, the first dot from the lowest bits', () => {
  assert.deepEqual([...unpackIndices([1, 2, 3, 0xAA, 4, 5, 6, 0xAA], {width: 3, height: 2, pitch: 4, depth: 8})], [1, 2, 3, 4, 5, 6]);
  assert.deepEqual([...unpackIndices([0x21, 0x43, 0xAA, 0x65, 0x87, 0xAA], {width: 3, height: 2, pitch: 3, depth: 4})], [1, 2, 3, 5, 6, 7]);
  assert.deepEqual([...unpackIndices([0b11100100, 0b01], {width: 5, height: 1, pitch: 2, depth: 2})], [0, 1, 2, 3, 1]);
});

test('colors are full-range BT.601', () => {
  assert.deepEqual(paletteColor([0, 128, 128, 8]), [0, 0, 0, 255]);
  assert.deepEqual(paletteColor([255, 128, 128, 8]), [255, 255, 255, 255]);
  assert.deepEqual(paletteColor([76, 85, 255, 8]), [254, 0, 0, 255], 'red');
  assert.deepEqual(paletteColor([29, 255, 107, 8]), [0, 0, 254, 255], 'blue');
});

test('opacity is in eighths, and more than eight is opaque', () => {
  assert.deepEqual([0, 1, 4, 8, 9, 255].map((eighths) => paletteColor([0, 128, 128, eighths])[3]), [0, 32, 128, 255, 255, 255]);
});

test('indices have different colors, and index 0 none', () => {
  assert.deepEqual(indexColor(0), [0, 0, 0, 0]);
  const colors = new Set(Array.from({length: 256}, (_, index) => indexColor(index).join()));
  assert.equal(colors.size, 256);
  for (let index = 1; index < 256; index += 1) assert.ok(indexColor(index).every((part) => part >= 0 && part <= 255));
});
