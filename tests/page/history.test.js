import assert from 'node:assert/strict';
import {test} from 'node:test';
import {historyAdd, historyClearCurve, historyMark, historyNew, historyOverlay, historyTravel} from '../../simcam/web/page/history.js';

const overlay = (peak) => ({peak});
const measurement = (number, value, ring, peak) => ({number, value, ring, time_s: number / 30, overlay: overlay(peak)});

test('a measurement received twice counts once', () => {
  const history = historyNew(4096);
  for (const number of [1, 2, 2, 1, 3]) historyAdd(history, measurement(number, 10 * number, 0, 0));
  assert.deepEqual(history.samples.map((sample) => sample.value), [10, 20, 30]);
  assert.equal(history.latest.number, 3);
});

test('at least the given number of samples is kept, and at most a quarter more', () => {
  const history = historyNew(8);
  for (let number = 1; number <= 100; number += 1) {
    historyAdd(history, measurement(number, number, 0, 0));
    assert.ok(history.samples.length >= Math.min(8, number) && history.samples.length <= 10, `${history.samples.length}`);
    assert.equal(history.samples.at(-1).number, number);
  }
});

test('samples on both sides of a gap are not joined', () => {
  const history = historyNew(4096);
  for (const number of [1, 2, 5, 6]) historyAdd(history, measurement(number, number, 0, 0));
  assert.deepEqual(history.samples.map((sample) => sample.number), [5, 6]);
});

test('the peak is the one that the camera reports, whatever was measured', () => {
  const history = historyNew(4096);
  historyAdd(history, measurement(1, 300, 0.5, 0));
  historyAdd(history, measurement(2, 100, 0.4, 0));
  assert.deepEqual(history.peak, {value: 0, ring: null});
  historyOverlay(history, overlay(100));
  assert.deepEqual(history.peak, {value: 100, ring: 0.4});
  assert.equal(history.samples[1].peak, 0, 'the plot keeps what was reported with the measurement');
});

test('the place of a peak is that of the newest measurement with its value, and stays', () => {
  const history = historyNew(4096);
  historyAdd(history, measurement(1, 90, 0.1, 0));
  historyAdd(history, measurement(2, 120, 0.2, 90));
  historyAdd(history, measurement(3, 110, 0.3, 120));
  assert.deepEqual(history.peak, {value: 120, ring: 0.2});
  historyAdd(history, measurement(4, 120, 0.8, 120));
  assert.equal(history.peak.ring, 0.2);
});

test('the place of a peak older than the history is unknown until the value returns', () => {
  const history = historyNew(4096);
  historyAdd(history, measurement(500, 90, 0.1, 250));
  assert.deepEqual(history.peak, {value: 250, ring: null});
  historyAdd(history, measurement(501, 250, 0.6, 250));
  assert.equal(history.peak.ring, 0.6);
});

test('a new process begins without a peak', () => {
  const history = historyNew(4096);
  historyAdd(history, measurement(1, 120, 0.2, 120));
  historyAdd(history, measurement(2, 120, 0.2, 0));
  assert.deepEqual(history.peak, {value: 0, ring: null});
});

test('the curve holds the last value at each ring position', () => {
  const history = historyNew(4096);
  historyAdd(history, measurement(1, 10, 0, 0));
  historyAdd(history, measurement(2, 20, 1, 0));
  historyAdd(history, measurement(3, 30, 0.5, 0));
  historyAdd(history, measurement(4, 40, 0.5, 0));
  assert.deepEqual([...history.curve.value].filter((value) => value >= 0), [10, 40, 20]);
  historyClearCurve(history);
  assert.ok(history.curve.value.every((value) => value < 0));
});

test('the travel is that of the last ten measurements', () => {
  const history = historyNew(4096);
  assert.equal(historyTravel(history), 0);
  for (let number = 1; number <= 30; number += 1) historyAdd(history, measurement(number, 1, number / 100, 0));
  assert.ok(Math.abs(historyTravel(history) - 0.09) < 1e-9);
});

test('marks carry the time of the latest measurement, forty at most', () => {
  const history = historyNew(4096);
  historyMark(history, 'gain');
  historyAdd(history, measurement(30, 1, 0, 0));
  for (let i = 0; i < 50; i += 1) historyMark(history, `mark ${i}`);
  assert.equal(history.marks.length, 40);
  assert.deepEqual(history.marks[39], {time: 1, text: 'mark 49'});
});
