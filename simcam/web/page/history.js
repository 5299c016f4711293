// The measurements that the page has received, the overlay's peak among them, and the marks of what was changed.

const MARKS_MAX = 40;
const CURVE_BINS = 500;   // the ring's travel in steps of 0.2 %
const TRAVEL_SAMPLES = 10;

function curveNew() {
  return {value: new Float32Array(CURVE_BINS + 1).fill(-1), when: new Float64Array(CURVE_BINS + 1)}; // -1: no value
}

// samplesMax: how many measurements to keep, at least.
export function historyNew(samplesMax) {
  return {
    samplesMax,
    samples: [],  // {number, time, value, ring, peak}, oldest first, with no number missing between two
    latest: null, // the last measurement
    peak: {value: 0, ring: null}, // the overlay's; ring: where it was reached, null if unknown
    marks: [],    // {time, text}
    curve: curveNew(),
  };
}

export function historyClearCurve(history) {
  history.curve = curveNew();
}

// Takes over what the camera reports of the overlay. The ring position of a peak is that of the newest measurement
// with this value: the overlay reads a measurement a moment after it was made.
export function historyOverlay({peak, samples}, {peak: value}) {
  if (peak.value === value && peak.ring !== null) return;
  peak.value = value;
  peak.ring = null;
  for (let i = samples.length - 1; i >= 0 && value && peak.ring === null; i -= 1) {
    if (samples[i].value === value) peak.ring = samples[i].ring;
  }
}

// Adds a measurement as the camera reports it. One that was received before is ignored.
export function historyAdd(history, measurement) {
  const {samples, samplesMax, curve} = history;
  const last = history.latest ? history.latest.number : 0;
  if (measurement.number <= last) return;
  if (measurement.number !== last + 1) samples.length = 0;
  history.latest = measurement;
  samples.push({
    number: measurement.number, time: measurement.time_s, value: measurement.value, ring: measurement.ring, peak: measurement.overlay.peak,
  });
  historyOverlay(history, measurement.overlay);
  if (samples.length > samplesMax * 1.25) samples.splice(0, samples.length - samplesMax);
  const bin = Math.round(measurement.ring * CURVE_BINS);
  curve.value[bin] = measurement.value;
  curve.when[bin] = measurement.time_s;
}

// How far the ring has turned over the last third of a second or so.
export function historyTravel(history) {
  const {samples} = history;
  return samples.length ? history.latest.ring - samples[Math.max(0, samples.length - TRAVEL_SAMPLES)].ring : 0;
}

// Marks the present in the plot over time.
export function historyMark(history, text) {
  history.marks.push({time: history.latest ? history.latest.time_s : 0, text});
  if (history.marks.length > MARKS_MAX) history.marks.shift();
}
