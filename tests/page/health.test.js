import assert from 'node:assert/strict';
import {test} from 'node:test';
import {healthNew, healthStep, noticeFor, overlayRuns, processChip} from '../../simcam/web/page/health.js';

const RUNNING = {configured: true, running: true, attached: true, pid: 7, starts: 1, last_end: ''};

// A state at a time, with the number of times that the text of each post was shown; -1: the plane is closed.
function state(time, shows, process = RUNNING) {
  const posts = shows.map((count) => ({running: true, planes: [{open: true, shows: 0}, {open: count >= 0, shows: count}]}));
  return {time_s: time, posts, process};
}

function after(...states) {
  const health = healthNew(1);
  for (const each of states) healthStep(health, each);
  return {health, last: states[states.length - 1]};
}

test('a text that keeps changing is no trouble', () => {
  const {health, last} = after(...[0, 1, 2, 3, 4, 5].map((time) => state(time, [time])));
  assert.equal(noticeFor(last, health, '0'), null);
});

test('a text that has not changed for more than three seconds is reported', () => {
  let {health, last} = after(state(0, [5]), state(3, [5]));
  assert.equal(noticeFor(last, health, '0'), null);
  ({health, last} = after(state(0, [5]), state(3.5, [5])));
  const notice = noticeFor(last, health, '0');
  assert.match(notice.text, /text of post 0 has not changed for 3 s\.$/);
  assert.deepEqual([notice.label, notice.action, notice.posts], ['Restart the post', 'posts', [0]]);
});

test('the notice names the post in view and restarts all that have stopped', () => {
  const {health, last} = after(state(0, [5, 5, 5]), state(9, [6, 5, 5], {...RUNNING, starts: 2}));
  assert.equal(noticeFor(last, health, '0'), null);
  const notice = noticeFor(last, health, '2');
  assert.match(notice.text, /post 2 .* previous process left its planes open/);
  assert.deepEqual([notice.label, notice.posts], ['Restart 2 posts', [1, 2]]);
  assert.match(noticeFor(last, health, 'all').text, /post 1/);
  assert.equal(noticeFor(last, health, 'sensor'), null);
});

test('a closed plane or a stopped post has no text to stop', () => {
  let {health, last} = after(state(0, [-1]), state(9, [-1]));
  assert.equal(noticeFor(last, health, '0'), null);
  const stopped = [0, 9].map((time) => ({...state(time, [5]), posts: [{running: false, planes: [{}, {open: true, shows: 5}]}]}));
  ({health, last} = after(...stopped));
  assert.equal(noticeFor(last, health, '0'), null);
});

test('a process without a session is starting for three seconds, then it is in trouble', () => {
  const alone = {...RUNNING, attached: false};
  let {health, last} = after(state(10, [], alone), state(13, [], alone));
  assert.deepEqual(processChip(last, health), ['wait', 'starting']);
  ({health, last} = after(state(10, [], alone), state(13.1, [], alone)));
  assert.deepEqual(processChip(last, health), ['bad', 'no session']);
  assert.equal(noticeFor(last, health, '0').action, 'restart');
  healthStep(health, state(13.2, [], {...alone, starts: 2}));
  assert.equal(health.noSession, false, 'the time of a new process starts again');
});

test('a process that does not run is reported with how it ended', () => {
  const ended = {...RUNNING, running: false, attached: false, last_end: 'signal 9 (Killed)'};
  const {health, last} = after(state(0, [5], ended));
  assert.deepEqual(processChip(last, health), ['bad', 'not running']);
  assert.deepEqual(noticeFor(last, health, '0'), {text: 'The overlay process is not running: signal 9 (Killed).', label: 'Start it', action: 'start'});
  const none = {...ended, configured: false};
  assert.equal(noticeFor(state(0, [], none), health, '0').label, '', 'there is nothing to start');
});

test('a process started elsewhere runs, too', () => {
  const elsewhere = {...RUNNING, running: false, attached: true};
  const {health, last} = after(state(0, [5], elsewhere));
  assert.ok(overlayRuns(last));
  assert.deepEqual(processChip(last, health), ['good', 'running, pid 7']);
});
