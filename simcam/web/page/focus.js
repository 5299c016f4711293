// What the operator sees, worked out from the measurements by the overlay's own rule.
// The overlay keeps its peak to itself, so everything here is an estimate and the page says so.

// The peak stays empty until a value differs by more than 4 from the one before it (which was not 0);
// from that value on it is the highest one seen. Only a new process starts anew.
export function peakNew() {
  return {previous: 0, hold: true, value: 0, ring: null, time: null};
}

export function peakStep(peak, measurement) {
  const value = measurement.value;
  if (peak.previous !== 0 && Math.abs(peak.previous - value) > 4) peak.hold = false;
  peak.previous = value;
  if (!peak.hold && value > peak.value) {
    peak.value = value;
    peak.ring = measurement.ring;
    peak.time = measurement.time_s;
  }
  return peak;
}

export function percentOf(value, peak) {
  return peak > 0 ? Math.floor(value * 100 / peak) : 0;
}

// The tone's pitch in hertz. The scale is absolute: while turning towards the focus every value is the highest so far.
export function pitchOf(value) {
  return 180 * 2 ** (2.6 * Math.min(1, Math.log2(1 + value) / 10));
}

// What to tell the person at the ring. travel is the ring's way over the last moment; exact: whether
// the peak is known to be the overlay's.
export function cueFor(current, peak, ring, travel, exact) {
  if (!peak.value) return {kind: 'none', text: 'Turn the ring: a peak is kept from the first clear change on.'};
  const percent = percentOf(current, peak.value);
  const away = ring - peak.ring;
  if (percent >= 97) return exact ? {kind: 'good', text: 'At the peak'} : {kind: 'none', text: 'As sharp as this page has seen it'};
  const near = Math.abs(away) < 0.006;
  if (near) return {kind: 'none', text: 'Where the peak was, but less sharp now: light or scene have changed.'};
  const back = away > 0 ? '◀ turn back to the left' : 'turn back to the right ▶';
  if (travel !== 0 && Math.sign(travel) !== Math.sign(away)) return {kind: 'none', text: 'Coming back to the peak'};
  return {kind: 'passed', text: `Peak passed: ${back}`};
}
