// The two plots: the value over time, and the value over the ring's position.

const SECONDS = 30;
const BINS = 500;
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

// A round number at or above value, for the top of an axis.
function roundUp(value) {
  const power = 10 ** Math.floor(Math.log10(Math.max(1, value)));
  for (const step of [1, 1.5, 2, 3, 4, 5, 6, 8, 10]) if (step * power >= value) return step * power;
  return 10 * power;
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

// samples: {time, value, peak}, oldest first. marks: {time, text} of what somebody did.
export function drawTime(canvas, samples, marks) {
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

  for (const mark of marks) {
    if (mark.time < now - SECONDS) continue;
    const x = Math.round(px(mark.time)) + .5;
    context.strokeStyle = '#4b5661';
    context.setLineDash([2, 3]);
    context.beginPath(); context.moveTo(x, area.top); context.lineTo(x, area.bottom); context.stroke();
    context.setLineDash([]);
    context.fillStyle = COLORS.text;
    context.textAlign = x > area.right - 60 ? 'right' : 'left';
    context.textBaseline = 'top';
    context.fillText(mark.text, x + (x > area.right - 60 ? -3 : 3), area.top);
  }
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
  trace(COLORS.line, 1.2, [5, 4], (s) => (s.peak ? s.peak * .85 : null));
  trace(COLORS.value, 1.8, [], (s) => s.value);
}

export function curveNew() {
  return {value: new Float32Array(BINS + 1).fill(-1), when: new Float64Array(BINS + 1)};
}

export function curveAdd(curve, measurement) {
  const bin = Math.round(measurement.ring * BINS);
  curve.value[bin] = measurement.value;
  curve.when[bin] = measurement.time_s;
}

export function drawCurve(canvas, curve, now, peak) {
  const {context, area} = prepare(canvas);
  let highest = Math.max(10, peak.value);
  for (const value of curve.value) highest = Math.max(highest, value);
  const top = roundUp(highest * 1.05);
  const px = (ring) => area.left + ring * (area.right - area.left);
  const py = (value) => area.bottom - value / top * (area.bottom - area.top);
  drawValueAxis(context, area, top);
  drawLabels(context, area, [[0, '0 near'], [.5, '50'], [1, 'far 100']]);
  if (peak.value) {
    drawLevel(context, area, py(peak.value * .85), COLORS.line, [5, 4]);
    drawLevel(context, area, py(peak.value), COLORS.peak, []);
  }
  let before = -1;
  for (let bin = 0; bin <= BINS; bin += 1) {
    if (curve.value[bin] < 0) continue;
    const age = now.time - curve.when[bin];
    context.globalAlpha = Math.max(.35, 1 - age / 60); // older readings fade
    context.strokeStyle = context.fillStyle = COLORS.value;
    const x = px(bin / BINS);
    const y = py(curve.value[bin]);
    if (before >= 0 && bin - before <= 20) {
      context.lineWidth = 1.6;
      context.beginPath(); context.moveTo(px(before / BINS), py(curve.value[before])); context.lineTo(x, y); context.stroke();
    } else {
      context.fillRect(x - 1, y - 1, 2, 2);
    }
    before = bin;
  }
  context.globalAlpha = 1;
  if (peak.ring !== null) {
    context.fillStyle = COLORS.peak;
    context.beginPath();
    context.moveTo(px(peak.ring), area.bottom); context.lineTo(px(peak.ring) - 4, area.bottom + 7); context.lineTo(px(peak.ring) + 4, area.bottom + 7);
    context.fill();
  }
  if (now.value !== null) {
    context.strokeStyle = '#ffffff40';
    context.lineWidth = 1;
    context.beginPath(); context.moveTo(px(now.ring), area.top); context.lineTo(px(now.ring), area.bottom); context.stroke();
    context.fillStyle = '#fff';
    context.beginPath(); context.arc(px(now.ring), py(now.value), 4, 0, 7); context.fill();
  }
}
