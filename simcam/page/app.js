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
  samples: [],       // {number, time, value, ring, peak}
  latest: null,
  peak: peakNew(),
  peakExact: false,  // whether the estimate covers the process's whole life
  process: null,     // which process the peak belongs to; null while there is none
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

function replayPeak(afterTime) {
  store.peak = peakNew();
  for (const sample of store.samples) {
    if (sample.time >= afterTime) peakStep(store.peak, {value: sample.value, ring: sample.ring, time_s: sample.time});
    sample.peak = sample.time >= afterTime ? store.peak.value : 0;
  }
}

function addMeasurement(m) {
  if (m.number <= store.lastMeasurement) return;
  store.lastMeasurement = m.number;
  store.latest = m;
  if (store.process !== null) peakStep(store.peak, m);
  store.samples.push({number: m.number, time: m.time_s, value: m.value, ring: m.ring, peak: store.process !== null ? store.peak.value : 0});
  if (store.samples.length > HISTORY * 1.25) store.samples.splice(0, store.samples.length - HISTORY);
  curveAdd(store.curve, m);
}

// Whose peak it is. Met at its start, a process is known whole; found running, its calls tell when it began.
async function followProcess(process) {
  const running = process.running || process.attached;
  const key = running ? `${process.pid}/${process.starts}` : null;
  if (key === store.process) return;
  const met = store.process !== null || store.metNone;
  store.process = key;
  store.metNone = key === null;
  store.peak = peakNew();
  store.peakExact = met;
  if (key === null || met) return;
  const answer = await fetch('/api/calls').then((a) => a.json()).catch(() => ({calls: []}));
  const began = answer.calls.find((c) => c.pid === process.pid && (c.call === 'CAM_FOCUS_CONFIG' || c.call === 'open'));
  const first = store.samples[0];
  store.peakExact = Boolean(began) && (!first || first.number === 1 || first.time <= began.time_s);
  replayPeak(began ? began.time_s : 0);
}

function mark(text) {
  store.marks.push({time: store.latest ? store.latest.time_s : 0, text});
  if (store.marks.length > 40) store.marks.shift();
}

// ---- what is shown ----

function showReadout() {
  const m = store.latest;
  const kept = store.process !== null && !store.apart; // whether there is somebody who keeps a peak
  const percent = m && kept ? percentOf(m.value, store.peak.value) : 0;
  const high = percent >= 85;
  $('current').textContent = m ? String(m.value) : '–';
  $('peak').textContent = !kept ? '–' : store.peak.value ? `${store.peakExact ? '' : '≥ '}${store.peak.value}` : '---';
  $('percent').textContent = kept && store.peak.value ? `${percent} %` : '–';
  document.querySelector('.readout').classList.toggle('high', high);
  $('meter').querySelector('.fill').style.width = `${Math.min(100, percent)}%`;
  $('meter').setAttribute('aria-valuenow', String(Math.min(100, percent)));

  let cue = {kind: 'none', text: ''};
  if (store.process === null) cue = {kind: 'none', text: 'No overlay process, so nothing keeps a peak.'};
  else if (store.apart) cue = {kind: 'none', text: 'The process has no session, so nothing shows a peak.'};
  else if (m) {
    const back = store.samples[Math.max(0, store.samples.length - 10)];
    cue = cueFor(m.value, store.peak, m.ring, m.ring - back.ring);
  }
  if ($('cue').textContent !== cue.text) $('cue').textContent = cue.text;
  $('cue').className = `cue ${cue.kind}`;
  const note = !kept ? ''
    : store.peakExact ? 'The peak is the page’s estimate by the overlay’s rule; the picture has the real one.'
    : 'The peak is at least this: the overlay ran before the page looked on.';
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
  const still = running ? drawnText.findIndex((text, i) => text.shows >= 0 && s.time_s - text.since > STILL_S && (view === String(i) || view === 'all')) : -1;
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
  } else if (still >= 0) {
    const left = p.starts > 1 ? ' Its planes were left open by the process before.' : '';
    text = `The text of post ${still} has stood still for ${Math.floor(s.time_s - drawnText[still].since)} s.${left}`;
    label = 'Restart the post';
    noticeAction = () => restartPost(still);
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
      store.lastMeasurement = store.lastOutput = 0;
      store.samples = [];
      store.marks = [];
      store.curve = curveNew();
      store.process = null;
      store.metNone = false;
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
    if (store.lastMeasurement === 0 && store.state.latest.number > 1) pending = true;
    if (!pending) followProcess(store.state.process);
    watchText(store.state);
    watchSession(store.state);
    panels.showState(store.state);
    showState();
  });
  source.addEventListener('measurement', (event) => {
    const m = JSON.parse(event.data);
    addMeasurement(m);
    playTone(); // here and not where things are drawn: nothing is drawn while the page is in the background
    if (pending && store.state && m.number >= store.state.latest.number) { // the past is in
      pending = false;
      followProcess(store.state.process);
    }
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
let pending = false; // measurements of the past are still coming in

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
