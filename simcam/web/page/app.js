// The page's state and how it is kept: one stream of events in, small JSON requests out.
import {peakNew, peakStep, percentOf, cueFor, pitchOf} from './focus.js';
import {ringMake} from './ring.js';
import {viewerMake} from './picture.js';
import {drawTime, drawCurve, curveNew, curveAdd} from './plots.js';
import {panelsMake, setLink} from './panels.js';

const $ = (id) => document.getElementById(id);
const HISTORY = 4096; // measurements kept, as many as the camera keeps
const RING_EVERY_MS = 33;
const STILL_S = 3; // a text that is not drawn again for so long stands still
const START_S = 3; // a process that has no session with the camera after so long does not get one

const store = {
  state: null,       // the camera's, as it came last
  connected: false,
  session: '',
  lastMeasurement: 0,
  lastOutput: 0,
  samples: [],       // {number, time, value, ring, peak}; none is missing between two of them
  seenFrom: 0,       // the camera's time from which on no measurement is missing here
  latest: null,
  peak: peakNew(),
  process: null,     // which process the peak belongs to; null while there is none
  began: null,       // the camera's time at which it began to measure; null while that is not known
  beganKnown: false, // or only guessed
  curve: curveNew(),
  marks: [],
  apart: false,      // whether the process runs without a session with the camera
};

// ---- requests ----

function toast(text, bad) {
  const box = $('toast');
  box.textContent = text;
  box.classList.toggle('bad', Boolean(bad));
  box.hidden = false;
  clearTimeout(toast.timer);
  toast.timer = setTimeout(() => { box.hidden = true; }, bad ? 6000 : 2500);
}

// Sends a command. Returns whether it was carried out; what the camera says against it is shown.
async function send(method, path, body) {
  try {
    const answer = await fetch(path, {
      method,
      headers: body ? {'Content-Type': 'application/json'} : {},
      body: body ? JSON.stringify(body) : undefined,
    });
    if (answer.ok) return true;
    const refusal = await answer.json().catch(() => ({error: `status ${answer.status}`}));
    toast(refusal.error, true);
  } catch (error) {
    toast('The simulated camera does not answer.', true);
  }
  return false;
}

// ---- the ring ----

const REPORT_MS = 3000; // a camera that is slow beyond this, or turned by somebody else as well
const turning = {wanted: null, busy: false, sent: null, until: 0};

// Whether the ring is where the hand put it rather than where the last measurement was made.
function handCounts(now) {
  if (ring.held || turning.busy || turning.wanted !== null) return true;
  const reported = store.latest && turning.sent !== null && Math.abs(store.latest.ring - turning.sent) < 1e-6;
  if (reported || now >= turning.until) turning.sent = null;
  return turning.sent !== null;
}

async function sendRing() {
  if (turning.busy || turning.wanted === null) return;
  turning.busy = true;
  const ring = turning.wanted;
  turning.wanted = null;
  turning.sent = await send('POST', '/api/ring', {ring}) ? ring : null;
  turning.until = performance.now() + REPORT_MS;
  setTimeout(() => {
    turning.busy = false;
    sendRing();
  }, RING_EVERY_MS);
}

const ring = ringMake($('ring'), (value) => {
  turning.wanted = value;
  $('ring-value').textContent = value.toFixed(3);
  sendRing();
});

$('sweep').addEventListener('click', () => {
  send('POST', '/api/sweep', {on: !store.state?.sweep, period_s: Number($('sweep-period').value)});
});
$('sweep-period').addEventListener('change', () => {
  if (store.state?.sweep) send('POST', '/api/sweep', {on: true, period_s: Number($('sweep-period').value)});
});

// ---- the picture ----

const viewer = viewerMake({viewer: $('viewer'), picture: $('picture'), peaking: $('peaking'), loupe: $('loupe'), tiles: $('tiles')});

function choose(view) {
  for (const button of $('views').children) button.setAttribute('aria-pressed', String(button.dataset.view === view));
  viewer.set({view});
  $('tiles').hidden = view !== 'all';
  $('toggle-planes').disabled = view === 'sensor';
  $('picture').setAttribute('aria-label', /^\d$/.test(view) ? `Live picture of post ${view}` : `Live picture: ${view === 'all' ? 'all four posts' : 'what the sensor sees'}`);
  showState();
}
for (const button of $('views').children) button.addEventListener('click', () => choose(button.dataset.view));

function toggle(id, onChange) {
  $(id).addEventListener('click', () => {
    const on = $(id).getAttribute('aria-pressed') !== 'true';
    $(id).setAttribute('aria-pressed', String(on));
    onChange(on);
  });
}
toggle('toggle-planes', (planes) => viewer.set({planes}));
toggle('toggle-peaking', (peaking) => viewer.set({peaking}));
toggle('toggle-loupe', (loupe) => viewer.set({loupe}));

for (let post = 0; post < 4; post += 1) {
  const button = document.createElement('button');
  button.type = 'button';
  button.setAttribute('aria-label', `Show post ${post} alone`);
  button.append(document.createElement('span'));
  button.addEventListener('click', () => choose(String(post)));
  $('tiles').append(button);
}

let noticeAction = null;
$('notice').querySelector('button').addEventListener('click', () => noticeAction?.());
$('veil').querySelector('button').addEventListener('click', () => send('POST', `/api/posts/${viewer.view}/start`));

// ---- the tone ----

const tone = {context: null, oscillator: null, gain: null, on: false};

toggle('tone', (on) => {
  tone.on = on;
  if (on && !tone.context) {
    tone.context = new AudioContext();
    tone.oscillator = tone.context.createOscillator();
    tone.gain = tone.context.createGain();
    tone.gain.gain.value = 0;
    tone.oscillator.connect(tone.gain).connect(tone.context.destination);
    tone.oscillator.start();
  }
  if (tone.context) {
    tone.context.resume();
    playTone();
    tone.gain.gain.setTargetAtTime(on ? 0.06 : 0, tone.context.currentTime, 0.03);
  }
});

function playTone() {
  if (!tone.on || !store.latest) return;
  tone.oscillator.frequency.setTargetAtTime(pitchOf(store.latest.value), tone.context.currentTime, 0.04);
}

// ---- measurements and the peak ----

function replayPeak() {
  store.peak = peakNew();
  for (const sample of store.samples) {
    if (sample.time >= store.began) peakStep(store.peak, {value: sample.value, ring: sample.ring, time_s: sample.time});
    sample.peak = sample.time >= store.began ? store.peak.value : 0;
  }
}

// Whether the estimate covers the process's whole life.
function peakIsExact() {
  return store.beganKnown && store.seenFrom <= store.began;
}

function addMeasurement(m) {
  if (m.number <= store.lastMeasurement) return;
  if (m.number !== store.lastMeasurement + 1) { // some are gone for good
    store.samples = [];
    store.seenFrom = m.time_s;
  }
  store.lastMeasurement = m.number;
  store.latest = m;
  const counts = store.process !== null && store.began !== null && m.time_s >= store.began;
  if (counts) peakStep(store.peak, m);
  store.samples.push({number: m.number, time: m.time_s, value: m.value, ring: m.ring, peak: counts ? store.peak.value : 0});
  if (store.samples.length > HISTORY * 1.25) store.samples.splice(0, store.samples.length - HISTORY);
  curveAdd(store.curve, m);
}

// Whose peak it is. When it began its calls tell: a report of its start overtakes measurements made before.
const following = {busy: false, after: 0, metAt: null, apartAt: 0};

async function followProcess(state) {
  const {process} = state;
  const running = process.running || process.attached;
  const key = running ? `${process.pid}/${process.starts}` : null;
  if (key === null) following.apartAt = state.time_s;
  if (key !== store.process) {
    // The page has seen that there was none, or another one: this one begins now.
    following.metAt = store.process !== null ? state.time_s - 1 : following.apartAt || null;
    following.after = 0;
    store.process = key;
    store.peak = peakNew();
    store.began = null;
    store.beganKnown = false;
  }
  if (key === null || store.began !== null || following.busy) return;

  following.busy = true;
  const {calls} = await fetch(`/api/calls?after=${following.after}`).then((a) => a.json()).catch(() => ({calls: []}));
  following.busy = false;
  if (key !== store.process) return;
  const starts = calls.filter((c) => c.call === 'CAM_FOCUS_CONFIG' || c.call === 'open');
  // What a shell started has another number than the shell.
  const start = starts.find((c) => c.pid === process.pid) ?? starts.find((c) => following.metAt !== null && c.time_s >= following.metAt);
  const lost = following.after === 0 && calls.length > 0 && calls[0].number > 1 && following.metAt === null;
  if (calls.length) following.after = calls[calls.length - 1].number;
  if (!start && !lost) return; // it is starting
  store.began = start ? start.time_s : 0;
  store.beganKnown = Boolean(start);
  replayPeak();
}

function mark(text) {
  store.marks.push({time: store.latest ? store.latest.time_s : 0, text});
  if (store.marks.length > 40) store.marks.shift();
}

// ---- what is shown ----

function showReadout() {
  const m = store.latest;
  const kept = store.process !== null && !store.apart; // whether there is somebody who keeps a peak
  const exact = peakIsExact();
  const percent = m && kept ? percentOf(m.value, store.peak.value) : 0;
  const high = exact && percent >= 85;
  $('current').textContent = m ? String(m.value) : '–';
  $('current').dataset.number = store.lastMeasurement; // for whoever follows the page from outside
  $('peak').textContent = !kept ? '–' : store.peak.value ? `${exact ? '' : '≥ '}${store.peak.value}` : '---';
  $('percent').textContent = kept && store.peak.value ? `${exact ? '' : '≤ '}${percent} %` : '–';
  document.querySelector('.readout').classList.toggle('high', high);
  $('meter').querySelector('.fill').style.width = `${Math.min(100, percent)}%`;
  $('meter').setAttribute('aria-valuenow', String(Math.min(100, percent)));

  let cue = {kind: 'none', text: ''};
  if (store.process === null) cue = {kind: 'none', text: 'No overlay process, so nothing keeps a peak.'};
  else if (store.apart) cue = {kind: 'none', text: 'The process has no session, so nothing shows a peak.'};
  else if (m) {
    const back = store.samples[Math.max(0, store.samples.length - 10)];
    cue = cueFor(m.value, store.peak, m.ring, m.ring - back.ring, exact);
  }
  if ($('cue').textContent !== cue.text) $('cue').textContent = cue.text;
  $('cue').className = `cue ${cue.kind}`;
  const note = !kept || store.began === null ? ''
    : exact ? 'The peak is the page’s estimate by the overlay’s rule; the picture has the real one.'
    : 'The peak is at least this: the page has not seen all that the overlay has.';
  if ($('peak-note').textContent !== note) $('peak-note').textContent = note;
  ring.showPeak(kept && store.peak.value ? store.peak.ring : null);
}

function showChip(id, kind, text) {
  $(id).className = `chip ${kind}`;
  const span = $(id).querySelector('span');
  if (span.textContent !== text) span.textContent = text;
}

// Since when the text of a post was not drawn again: the camera counts how often it is shown.
const drawnText = [0, 1, 2, 3].map(() => ({shows: -1, since: 0}));

function watchText(s) {
  s.posts.forEach((post, i) => {
    const shows = post.running && post.planes[1].open ? post.planes[1].shows : -1;
    if (shows !== drawnText[i].shows || shows < 0) drawnText[i] = {shows, since: s.time_s};
  });
}

// Since when a process has run without a session, by the camera's clock.
const without = {start: 0, since: null};

function watchSession(s) {
  const p = s.process;
  if (!p.running || p.attached) without.since = null;
  else if (without.since === null || without.start !== p.starts) without.since = s.time_s;
  without.start = p.starts;
  store.apart = without.since !== null && s.time_s - without.since > START_S;
}

async function restartProcess() {
  if (!await send('POST', '/api/process/stop')) return;
  for (let i = 0; i < 50; i += 1) { // until it has ended; what lasts longer is refused below
    const process = await fetch('/api/process').then((answer) => answer.json()).catch(() => ({running: true}));
    if (!process.running) break;
    await new Promise((resolve) => { setTimeout(resolve, 100); });
  }
  await send('POST', '/api/process/start');
}

async function restartPost(post) {
  if (await send('POST', `/api/posts/${post}/stop`)) await send('POST', `/api/posts/${post}/start`);
}

// One thing at a time that keeps the readout from being drawn.
function showNotice(s, running) {
  const view = viewer.view;
  const standing = running ? [0, 1, 2, 3].filter((i) => drawnText[i].shows >= 0 && s.time_s - drawnText[i].since > STILL_S) : [];
  const still = standing.find((i) => view === String(i) || view === 'all');
  const p = s.process;
  let text = '';
  let label = '';
  if (!running) {
    text = p.configured ? `The overlay process is not running: ${p.last_end || 'not started yet'}.` : 'No overlay process is attached: nothing is drawn on the picture.';
    label = p.configured ? 'Start it' : '';
    noticeAction = () => send('POST', '/api/process/start');
  } else if (store.apart) {
    text = 'The process runs without a session with the camera and will not draw. Start it again.';
    label = 'Start again';
    noticeAction = restartProcess;
  } else if (still !== undefined) {
    const left = p.starts > 1 ? ' Its planes were left open by the process before.' : '';
    text = `The text of post ${still} has stood still for ${Math.floor(s.time_s - drawnText[still].since)} s.${left}`;
    label = standing.length > 1 ? `Restart ${standing.length} posts` : 'Restart the post';
    noticeAction = () => standing.forEach(restartPost);
  }
  $('notice').hidden = !text || !store.connected;
  $('notice').querySelector('span').textContent = text;
  $('notice').querySelector('button').textContent = label;
  $('notice').querySelector('button').hidden = !label;
}

function showState() {
  const s = store.state;
  showChip('chip-link', store.connected ? 'good' : 'bad', store.connected ? `${(s?.measured_rate_hz ?? 0).toFixed(0)} values/s` : 'no answer');
  if (!store.connected) setLink($('snapshot'), null);
  if (!s) return;
  const p = s.process;
  const running = p.running || p.attached;
  const [kind, words] = !running ? ['bad', 'not running'] : p.attached ? ['good', `running, pid ${p.pid}`]
    : store.apart ? ['bad', 'no session'] : ['wait', 'starting'];
  showChip('chip-process', kind, words);

  const view = viewer.view;
  const post = /^\d$/.test(view) ? s.posts[Number(view)] : null;
  const off = Boolean(post) && !post.running;
  const veil = $('veil');
  veil.hidden = store.connected && !off;
  veil.querySelector('span').textContent = !store.connected ? 'The simulated camera does not answer. Trying again …' : off ? `Post ${view} is off.` : '';
  veil.querySelector('button').hidden = !store.connected || !off || !post.width;
  veil.querySelector('button').textContent = off ? `Start it at ${post.width} × ${post.height}` : '';
  setLink($('snapshot'), store.connected && !off && `/api/${post ? `posts/${view}` : view}/frame.png?download=1`);
  showNotice(s, running);
  const facts = post ? [post.running ? `${post.width} × ${post.height}` : 'off'] : [];
  if (!off && viewer.rate > 0) facts.push(`${viewer.rate} pictures/s`);
  $('facts').textContent = facts.join(' · ');
  [...$('tiles').children].forEach((button, i) => {
    const text = s.posts[i].running ? `Post ${i} · ${s.posts[i].width} × ${s.posts[i].height}` : `Post ${i}`;
    if (button.firstChild.textContent !== text) button.firstChild.textContent = text;
  });
  $('sweep').setAttribute('aria-pressed', String(s.sweep));
  showPeriod(s.sweep_period_s);
}

let period = 0; // that the camera had last
function showPeriod(seconds) {
  if (seconds === period) return;
  period = seconds;
  const select = $('sweep-period');
  if (![...select.options].some((option) => Number(option.value) === seconds)) select.append(new Option(`${seconds} s`, String(seconds)));
  select.value = [...select.options].find((option) => Number(option.value) === seconds).value;
}

const panels = panelsMake({store, send, toast, mark});

$('curve-clear').addEventListener('click', () => {
  store.curve = curveNew();
});

let drawn = 0;
let drawnAt = 0;
function draw(now) {
  requestAnimationFrame(draw);
  ring.draw();
  if (!handCounts(now) && store.latest) {
    ring.show(store.latest.ring);
    $('ring-value').textContent = store.latest.ring.toFixed(3);
  }
  if (drawn === store.lastMeasurement && now - drawnAt < 500) return;
  if (now - drawnAt < 60) return;
  drawn = store.lastMeasurement;
  drawnAt = now;
  showReadout();
  drawTime($('plot-time'), store.samples, store.marks);
  drawCurve($('plot-curve'), store.curve, {time: store.latest?.time_s ?? 0, ring: store.latest?.ring ?? 0, value: store.latest?.value ?? null}, store.process !== null ? store.peak : peakNew());
}
requestAnimationFrame(draw);

// ---- events ----

let source = null;

function listen() {
  if (source) return;
  source = new EventSource('/api/events?kinds=state,measurement,output');
  source.addEventListener('hello', (event) => {
    const {session} = JSON.parse(event.data);
    store.connected = true;
    if (store.session && session !== store.session) { // another camera: its numbers begin anew
      store.lastMeasurement = store.lastOutput = store.seenFrom = 0;
      store.samples = [];
      store.marks = [];
      store.curve = curveNew();
      store.process = null;
      following.apartAt = 0;
      without.since = null;
      drawnText.forEach((text) => { text.shows = -1; });
      panels.reset();
      viewer.restart();
    }
    store.session = session;
  });
  source.addEventListener('state', (event) => {
    store.connected = true;
    const before = store.state;
    store.state = JSON.parse(event.data);
    for (const what of ['scene', 'gain']) { // either has a curve of its own
      if (!before || before[what] === store.state[what]) continue;
      mark(what);
      store.curve = curveNew();
    }
    followProcess(store.state);
    watchText(store.state);
    watchSession(store.state);
    panels.showState(store.state);
    showState();
  });
  source.addEventListener('measurement', (event) => {
    const m = JSON.parse(event.data);
    addMeasurement(m);
    playTone(); // here and not where things are drawn: nothing is drawn while the page is in the background
  });
  source.addEventListener('output', (event) => {
    const chunk = JSON.parse(event.data);
    if (chunk.number <= store.lastOutput) return;
    store.lastOutput = chunk.number;
    panels.addOutput(chunk);
  });
  source.addEventListener('error', () => {
    store.connected = false;
    showState();
    if (source && source.readyState === EventSource.CLOSED) { // refused: the browser gives up, the page does not
      source = null;
      setTimeout(listen, 2000);
    }
  });
}

// A page that nobody sees lets go of its connections: a browser has only six for all its pages.
document.addEventListener('visibilitychange', () => {
  if (document.hidden && !tone.on && source) {
    source.close();
    source = null;
  } else if (!document.hidden) {
    listen();
  }
});

choose('0');
listen();
