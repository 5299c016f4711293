import assert from 'node:assert/strict';
import {test} from 'node:test';
import {announcerMake} from '../../simcam/web/page/announce.js';

// An announcer with a clock that the test sets: said holds [time, text].
function announcer() {
  const clock = {now: 0, timers: [], said: []};
  clock.announce = announcerMake((text) => clock.said.push([clock.now, text]), 2000, () => clock.now,
    (act, ms) => clock.timers.push({at: clock.now + ms, act}));
  clock.run = (until) => {
    for (;;) {
      const due = clock.timers.filter((timer) => timer.at <= until).sort((a, b) => a.at - b.at)[0];
      if (!due) break;
      clock.timers.splice(clock.timers.indexOf(due), 1);
      clock.now = due.at;
      due.act();
    }
    clock.now = until;
  };
  return clock;
}

test('the first text is announced at once, and only once', () => {
  const clock = announcer();
  clock.announce('a');
  clock.announce('a');
  clock.run(5000);
  clock.announce('a');
  assert.deepEqual(clock.said, [[0, 'a']]);
});

test('a change within two seconds waits, and the last one wins', () => {
  const clock = announcer();
  clock.announce('a');
  clock.run(500);
  clock.announce('b');
  clock.run(1000);
  clock.announce('c');
  clock.run(10000);
  assert.deepEqual(clock.said, [[0, 'a'], [2000, 'c']]);
});

test('a text that returns before its turn is not announced again', () => {
  const clock = announcer();
  clock.announce('a');
  clock.run(500);
  clock.announce('b');
  clock.announce('a');
  clock.run(10000);
  assert.deepEqual(clock.said, [[0, 'a']]);
});

test('a text that changes all the time is announced every two seconds', () => {
  const clock = announcer();
  for (let i = 0; i < 100; i += 1) {
    clock.run(i * 100);
    clock.announce(`text ${i}`);
  }
  assert.deepEqual(clock.said.map(([time]) => time), [0, 2000, 4000, 6000, 8000]);
});
