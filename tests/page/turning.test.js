import assert from 'node:assert/strict';
import {test} from 'node:test';
import {turningMake} from '../../simcam/web/page/turning.js';

// A hand at the ring, with a clock and answers that the test gives.
function hand() {
  const it = {now: 0, sent: [], timers: [], answers: []};
  it.turning = turningMake((ring) => {
    it.sent.push(ring);
    return new Promise((resolve) => { it.answers.push(resolve); });
  }, () => it.now, (act) => it.timers.push(act));
  it.answer = async (ok) => {
    it.answers.shift()(ok);
    await new Promise(setImmediate);
    it.timers.shift()();
  };
  return it;
}

test('while a request is under way only the last position waits', async () => {
  const {turning, sent, answer} = hand();
  for (const ring of [0.1, 0.2, 0.3, 0.4]) turning.turn(ring);
  assert.deepEqual(sent, [0.1]);
  await answer(true);
  assert.deepEqual(sent, [0.1, 0.4]);
});

test('the hand leads until the camera has measured at its position', async () => {
  const {turning, answer} = hand();
  assert.equal(turning.leads(0.5), false);
  turning.turn(0.6);
  assert.equal(turning.leads(0.5), true);
  await answer(true);
  assert.equal(turning.leads(0.5), true, 'not measured there yet');
  assert.equal(turning.leads(0.6), false);
  assert.equal(turning.leads(0.5), false, 'somebody else turned it');
});

test('the hand stops leading after three seconds, and at once if the camera refuses', async () => {
  const it = hand();
  it.turning.turn(0.6);
  await it.answer(true);
  it.now = 2999;
  assert.equal(it.turning.leads(0.5), true);
  it.now = 3000;
  assert.equal(it.turning.leads(0.5), false);
  it.turning.turn(0.7);
  await it.answer(false);
  assert.equal(it.turning.leads(0.5), false);
});
