// Numbers and texts along the axes of the plots.

// A round number at or above value, for the top of an axis.
export function roundUp(value) {
  const power = 10 ** Math.floor(Math.log10(Math.max(1, value)));
  for (const step of [1, 1.5, 2, 3, 4, 5, 6, 8, 10]) if (step * power >= value) return step * power;
  return 10 * power;
}

// Places texts of the given widths at positions along a line from left to right so that no two overlap: each
// begins at its position, or ends there if it would reach beyond right. Newer texts come last and win; a text that
// has no room is left out. Returns the left edge of each, or null.
export function placeTexts(texts, right, gap) {
  const taken = [];
  const places = texts.map(() => null);
  for (let i = texts.length - 1; i >= 0; i -= 1) {
    const {at, width} = texts[i];
    const left = at + gap + width > right ? at - gap - width : at + gap;
    if (taken.some((other) => left < other.right + gap && other.left < left + width + gap)) continue;
    taken.push({left, right: left + width});
    places[i] = left;
  }
  return places;
}
