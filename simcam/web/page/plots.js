// Draws the two plots: the value over time, and the value over the ring position.
import {placeTexts, roundUp} from './axis.js';

const SECONDS = 30;
const GAP = 3;           // around the text of a mark
const FADE_S = 60;       // age at which a reading over the ring is faintest
const BINS_JOINED = 20;  // readings over the ring are joined across at most so many empty steps
const COLORS = {value: '#58c4dd', peak: '#f0b45a', line: '#7fcf8a', grid: '#232a31', text: '#8d99a5'};

function prepare(canvas) {
  const ratio = window.devicePixelRatio || 1;
  const width = canvas.clientWidth;
  const height = canvas.clientHeight;
  if (canvas.width !== Math.round(width * ratio) || canvas.height !== Math.round(height * ratio)) {
    canvas.width = Math.round(width * ratio);
    canvas.height = Math.round(height * ratio);
  }
  const context = canvas.getContext('2d');
  context.setTransform(ratio, 0, 0, ratio, 0, 0);
  context.clearRect(0, 0, width, height);
  context.font = '11px system-ui, "DejaVu Sans", sans-serif';
  return {context, area: {left: 34, top: 6, right: width - 6, bottom: height - 18}};
}

function drawValueAxis(context, area, top) {
  context.textAlign = 'right';
  context.textBaseline = 'middle';
  for (let i = 0; i <= 2; i += 1) {
    const y = Math.round(area.bottom - (area.bottom - area.top) * i / 2) + .5;
    context.strokeStyle = COLORS.grid;
    context.lineWidth = 1;
    context.beginPath(); context.moveTo(area.left, y); context.lineTo(area.right, y); context.stroke();
    context.fillStyle = COLORS.text;
    context.fillText(String(Math.round(top * i / 2)), area.left - 5, y);
  }
}

function drawLabels(context, area, labels) {
  context.fillStyle = COLORS.text;
  context.textBaseline = 'alphabetic';
  for (const [at, text] of labels) {
    context.textAlign = at <= 0 ? 'left' : at >= 1 ? 'right' : 'center';
    context.fillText(text, area.left + (area.right - area.left) * at, area.bottom + 14);
  }
}

function drawLevel(context, area, y, color, dash) {
  context.strokeStyle = color;
  context.lineWidth = 1.2;
  context.setLineDash(dash);
  context.beginPath(); context.moveTo(area.left, y); context.lineTo(area.right, y); context.stroke();
  context.setLineDash([]);
}

function drawMarks(context, area, marks) {
  context.textAlign = 'left';
  context.textBaseline = 'top';
  context.strokeStyle = '#4b5661';
  context.fillStyle = COLORS.text;
  const places = placeTexts(marks.map(({at, text}) => ({at, width: context.measureText(text).width})), area.right, GAP);
  marks.forEach(({at, text}, i) => {
    context.setLineDash([2, 3]);
    context.beginPath(); context.moveTo(at, area.top); context.lineTo(at, area.bottom); context.stroke();
    if (places[i] !== null) context.fillText(text, places[i], area.top);
  });
  context.setLineDash([]);
}

// Draws the samples and marks of history. threshold is the percentage of the peak that is drawn as a line.
export function drawTime(canvas, {samples, marks}, threshold) {
  const {context, area} = prepare(canvas);
  const now = samples.length ? samples[samples.length - 1].time : 0;
  let first = samples.length;
  let highest = 10;
  while (first > 0 && samples[first - 1].time > now - SECONDS) {
    first -= 1;
    highest = Math.max(highest, samples[first].value, samples[first].peak);
  }
  const top = roundUp(highest * 1.05);
  const px = (time) => area.right - (now - time) / SECONDS * (area.right - area.left);
  const py = (value) => area.bottom - value / top * (area.bottom - area.top);
  drawValueAxis(context, area, top);
  drawLabels(context, area, [[0, `${SECONDS} s ago`], [.5, `${SECONDS / 2} s`], [1, 'now']]);

  drawMarks(context, area, marks.filter((mark) => mark.time >= now - SECONDS).map(({time, text}) => ({at: Math.round(px(time)) + .5, text})));
  const trace = (color, width, dash, of) => {
    context.strokeStyle = color;
    context.lineWidth = width;
    context.setLineDash(dash);
    context.beginPath();
    let pen = false;
    for (let i = first; i < samples.length; i += 1) {
      const value = of(samples[i]);
      if (value === null) { pen = false; continue; }
      if (pen) context.lineTo(px(samples[i].time), py(value));
      else context.moveTo(px(samples[i].time), py(value));
      pen = true;
    }
    context.stroke();
    context.setLineDash([]);
  };
  trace(COLORS.peak, 1.4, [], (s) => s.peak || null);
  trace(COLORS.line, 1.2, [5, 4], (s) => (s.peak ? s.peak * threshold / 100 : null));
  trace(COLORS.value, 1.8, [], (s) => s.value);
}

// Draws the curve of history. peakRing is the ring position of the peak, or null.
export function drawCurve(canvas, {curve, latest, samples}, peakRing, threshold) {
  const {context, area} = prepare(canvas);
  const peak = samples.length ? samples[samples.length - 1].peak : 0;
  const bins = curve.value.length - 1;
  let highest = Math.max(10, peak);
  for (const value of curve.value) highest = Math.max(highest, value);
  const top = roundUp(highest * 1.05);
  const px = (ring) => area.left + ring * (area.right - area.left);
  const py = (value) => area.bottom - value / top * (area.bottom - area.top);
  drawValueAxis(context, area, top);
  drawLabels(context, area, [[0, '0 near'], [.5, '50'], [1, 'far 100']]);
  if (peak) {
    drawLevel(context, area, py(peak * threshold / 100), COLORS.line, [5, 4]);
    drawLevel(context, area, py(peak), COLORS.peak, []);
  }
  let before = -1;
  for (let bin = 0; bin <= bins; bin += 1) {
    if (curve.value[bin] < 0) continue;
    context.globalAlpha = Math.max(.35, 1 - (latest.time_s - curve.when[bin]) / FADE_S);
    context.strokeStyle = context.fillStyle = COLORS.value;
    const x = px(bin / bins);
    const y = py(curve.value[bin]);
    if (before >= 0 && bin - before <= BINS_JOINED) {
      context.lineWidth = 1.6;
      context.beginPath(); context.moveTo(px(before / bins), py(curve.value[before])); context.lineTo(x, y); context.stroke();
    } else {
      context.fillRect(x - 1, y - 1, 2, 2);
    }
    before = bin;
  }
  context.globalAlpha = 1;
  if (peakRing !== null) {
    context.fillStyle = COLORS.peak;
    context.beginPath();
    context.moveTo(px(peakRing), area.bottom); context.lineTo(px(peakRing) - 4, area.bottom + 7); context.lineTo(px(peakRing) + 4, area.bottom + 7);
    context.fill();
  }
  if (latest) {
    context.strokeStyle = '#ffffff40';
    context.lineWidth = 1;
    context.beginPath(); context.moveTo(px(latest.ring), area.top); context.lineTo(px(latest.ring), area.bottom); context.stroke();
    context.fillStyle = '#fff';
    context.beginPath(); context.arc(px(latest.ring), py(latest.value), 4, 0, 7); context.fill();
  }
}
