// Unpacks the memory of an OSD plane and gives its palette indices a color.

// The palette index of each dot. A line takes pitch bytes; the first dot is in the lowest bits.
export function unpackIndices(bytes, {width, height, pitch, depth}) {
  const indices = new Uint8Array(width * height);
  const mask = (1 << depth) - 1;
  for (let y = 0, i = 0; y < height; y += 1) {
    for (let x = 0; x < width; x += 1, i += 1) {
      const bit = x * depth;
      indices[i] = (bytes[y * pitch + (bit >> 3)] >> (bit & 7)) & mask;
    }
  }
  return indices;
}

// An entry of the color table (full-range BT.601 Y, Cb, Cr and an opacity in eighths) as [r, g, b, a].
export function paletteColor([y, cb, cr, opacity]) {
  const clamp = (value) => Math.max(0, Math.min(255, Math.round(value)));
  return [
    clamp(y + 1.402 * (cr - 128)),
    clamp(y - 0.344136 * (cb - 128) - 0.714136 * (cr - 128)),
    clamp(y + 1.772 * (cb - 128)),
    Math.round(Math.min(opacity, 8) * 255 / 8),
  ];
}

// A color that tells an index from its neighbors: the hues of successive indices are far apart.
export function indexColor(index) {
  if (index === 0) return [0, 0, 0, 0];
  const hue = (index * 47) % 360;
  const part = (n) => {
    const k = (n + hue / 30) % 12;
    return Math.round(255 * (0.6 - 0.32 * Math.max(-1, Math.min(k - 3, 9 - k, 1))));
  };
  return [part(0), part(8), part(4), 255];
}
