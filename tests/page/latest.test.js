import assert from 'node:assert/strict';
import {test} from 'node:test';
import {latestMake} from '../../simcam/web/page/latest.js';

// A hand at a control, with a clock and answers that the test gives.
function hand() {
  const it = {now: 0, sent: [], timers: [], answers: []};
  it.latest = latestMake((value) => {
    it.sent.push(value);
    return new Promise((resolve) => { it.answers.push(resolve); });
  }, () => it.now, (act) => it.timers.push(act));
  it.answer = async (ok) => {
    it.answers.shift()(ok);
    await new Promise(setImmediate);
    it.timers.shift()();
  };
  return it;
}

test('while a request is under way only the latest value waits', async () => {
  const {latest, sent, answer} = hand();
  for (const value of [0.1, 0.2, 0.3, 0.4]) latest.send(value);
  assert.deepEqual(sent, [0.1]);
  await answer(true);
  assert.deepEqual(sent, [0.1, 0.4]);
});

test('the hand leads until the camera reports its value', async () => {
  const {latest, answer} = hand();
  assert.equal(latest.leads(0.5), false);
  latest.send(0.6);
  assert.equal(latest.leads(0.5), true);
  await answer(true);
  assert.equal(latest.leads(0.5), true, 'not reported yet');
  assert.equal(latest.leads(0.6), false);
  assert.equal(latest.leads(0.5), false, 'somebody else changed it');
});

test('the hand stops leading after three seconds, and at once if the camera refuses', async () => {
  const it = hand();
  it.latest.send(0.6);
  await it.answer(true);
  it.now = 2999;
  assert.equal(it.latest.leads(0.5), true);
  it.now = 3000;
  assert.equal(it.latest.leads(0.5), false);
  it.latest.send(0.7);
  await it.answer(false);
  assert.equal(it.latest.leads(0.5), false);
});
