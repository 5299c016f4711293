// Puts the page together: events of the camera come in here and go to the modules that show them.
import {$, onToggle, setText} from './dom.js';
import {getJson} from './requests.js';
import {eventsMake} from './events.js';
import {healthNew, healthStep} from './health.js';
import {historyAdd, historyClearCurve, historyMark, historyNew, historyOverlay} from './history.js';
import {lensMake} from './lens.js';
import {pictureMake} from './picture.js';
import {drawCurve, drawTime} from './plots.js';
import {readoutMake} from './readout.js';
import {statusMake} from './status.js';
import {tabsMake} from './tabs.js';
import {toneMake} from './tone.js';
import {viewMake} from './view.js';
import {callsPanelMake} from './panel_calls.js';
import {faultsPanelMake} from './panel_faults.js';
import {planesPanelMake} from './panel_planes.js';
import {postsPanelMake} from './panel_posts.js';
import {processPanelMake} from './panel_process.js';
import {scenePanelMake} from './panel_scene.js';

const DRAW_EVERY_MS = 60;
const DRAW_AT_LEAST_EVERY_MS = 500;

const constants = await getJson('/api/constants');
for (const node of document.querySelectorAll('[data-threshold]')) setText(node, `${constants.threshold_percent} %`);

let session = '';
let connected = false;
let state = null; // the camera's last report
let health = healthNew(constants.planes.indexOf('text'));
let history = historyNew(constants.records_kept);
let lastOutput = 0;

const picture = pictureMake({viewer: $('viewer'), picture: $('picture'), peaking: $('peaking'), loupe: $('loupe'), tiles: $('tiles')});
let status = null;
const view = viewMake(picture, () => status?.show(state, health, connected));
status = statusMake(picture, view);
const lens = lensMake();
const readout = readoutMake(constants.threshold_percent);
const tone = toneMake();
const panels = {
  posts: postsPanelMake(constants.sizes),
  scene: scenePanelMake(constants, () => historyMark(history, 'flash')),
  process: processPanelMake(),
  faults: faultsPanelMake(constants.codes),
  planes: planesPanelMake(constants.planes),
  calls: callsPanelMake(),
};

onToggle($('tone'), (on) => {
  tone.set(on);
  if (history.latest) tone.play(history.latest.value);
});
$('curve-clear').addEventListener('click', () => historyClearCurve(history));

// ---- the panel that is shown ----

let shownPanel = 'posts';
tabsMake((name) => {
  shownPanel = name;
  panels[name].load?.();
});
for (const [name, panel] of Object.entries(panels)) {
  if (panel.everyMs) setInterval(() => { if (shownPanel === name && !document.hidden && connected) panel.load(); }, panel.everyMs);
}

// ---- drawing ----

let drawn = 0; // the measurement drawn last
let drawnAt = 0;

function draw(now) {
  requestAnimationFrame(draw);
  lens.draw(history.latest);
  const number = history.latest?.number ?? 0;
  if (now - drawnAt < (number === drawn ? DRAW_AT_LEAST_EVERY_MS : DRAW_EVERY_MS)) return;
  drawn = number;
  drawnAt = now;
  const peakRing = readout.show(history, state, health);
  lens.showPeak(peakRing);
  drawTime($('plot-time'), history, constants.threshold_percent);
  drawCurve($('plot-curve'), history, peakRing, constants.threshold_percent);
}
requestAnimationFrame(draw);

// ---- events ----

function forget() {
  history = historyNew(constants.records_kept);
  health = healthNew(constants.planes.indexOf('text'));
  lastOutput = 0;
  for (const panel of Object.values(panels)) panel.reset?.();
  picture.restart();
}

eventsMake({
  hello(data) {
    connected = true;
    if (session && data.session !== session) forget(); // another camera: its numbers start again
    session = data.session;
  },
  state(data) {
    connected = true;
    for (const what of ['scene', 'gain', 'noise']) { // each has a curve of its own
      if (!state || state[what] === data[what]) continue;
      historyMark(history, what);
      historyClearCurve(history);
    }
    state = data;
    historyOverlay(history, state.overlay);
    healthStep(health, state);
    for (const part of [picture, view, lens, ...Object.values(panels)]) part.showState?.(state, health);
    status.show(state, health, connected);
  },
  measurement(data) {
    historyAdd(history, data);
    tone.play(data.value); // not where things are drawn: a page in the background draws nothing
  },
  output(chunk) {
    if (chunk.number <= lastOutput) return;
    lastOutput = chunk.number;
    panels.process.addOutput(chunk);
  },
  lost() {
    connected = false;
    status.show(state, health, connected);
  },
}, () => !tone.on);

view.choose('0');
