// Judges the focus from the measured value and the overlay's peak.

const AT_PEAK_PERCENT = 97;
const SAME_PLACE = 0.006; // ring positions closer than this are the same place

// The pitch of the tone in hertz. The scale is absolute: relative to the peak, the tone would not change while
// the ring turns toward the focus, because every value is then a new peak.
export function pitchOf(value) {
  return 180 * 2 ** (2.6 * Math.min(1, Math.log2(1 + value) / 10));
}

// The percentage that the overlay makes of a value; 0 without a peak.
export function percentOf(value, peak) {
  return peak > 0 ? Math.floor(value * 100 / peak) : 0;
}

// What to tell the person at the ring. peak is {value, percent, ring}; its ring position is null if the page
// does not know where the peak was reached. ring is the position now, travel its change over the last moments.
export function cueFor(peak, ring, travel) {
  if (!peak.value) return {kind: 'none', text: 'Turn the ring. The overlay keeps a peak after the first clear change.'};
  if (peak.percent >= AT_PEAK_PERCENT) return {kind: 'good', text: 'At the peak'};
  if (peak.ring === null) return {kind: 'none', text: 'Below the peak. Turn the ring to find it.'};
  const away = ring - peak.ring;
  if (Math.abs(away) < SAME_PLACE) return {kind: 'none', text: 'The peak was here, but the light or the scene has changed.'};
  if (travel !== 0 && Math.sign(travel) !== Math.sign(away)) return {kind: 'none', text: 'Coming back to the peak'};
  return {kind: 'passed', text: `Peak passed: ${away > 0 ? '◀ turn back to the left' : 'turn back to the right ▶'}`};
}
