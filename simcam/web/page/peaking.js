// Focus peaking: finds the sharp edges of a picture, except those of the overlay.

const EDGE = 190;        // sum of both Sobel gradients of the luma above which a dot counts as sharp
const MARGIN = 3;        // dots around a plane whose gradient the plane's border changes
const MARK = 0xFF5AFF5A; // opaque light green, as a 32-bit word of little-endian RGBA

// The planes shown on a picture of width x height dots, as {left, top, right, bottom} in its dots.
// view is a post's number, 'all' (four posts, two by two) or 'sensor' (no planes).
export function shownPlanes(view, posts, width, height) {
  const rectangles = [];
  posts.forEach((post, number) => {
    if (!post.running || !post.width || (view !== 'all' && view !== String(number))) return;
    const tiles = view === 'all' ? 2 : 1;
    const tileWidth = width / tiles;
    const tileHeight = height / tiles;
    const scale = Math.min(tileWidth / post.width, tileHeight / post.height);
    const left = (number % tiles) * tileWidth + (tileWidth - post.width * scale) / 2;
    const top = (tiles === 2 ? Math.floor(number / 2) : 0) * tileHeight + (tileHeight - post.height * scale) / 2;
    for (const plane of post.planes) {
      if (!plane.open || !plane.shown) continue;
      rectangles.push({
        left: left + plane.x * scale,
        top: top + plane.y * scale,
        right: left + (plane.x + plane.width) * scale,
        bottom: top + (plane.y + plane.height) * scale,
      });
    }
  });
  return rectangles;
}

// Marks the sharp dots outside the planes. rgba holds width x height dots; so does the result, a word a dot,
// 0 where there is no edge.
export function sharpDots(rgba, width, height, planes) {
  const luma = new Int16Array(width * height);
  for (let i = 0, p = 0; i < luma.length; i += 1, p += 4) luma[i] = (rgba[p] * 77 + rgba[p + 1] * 150 + rgba[p + 2] * 29) >> 8;
  const dots = new Uint32Array(width * height);
  for (let y = 1; y < height - 1; y += 1) {
    for (let i = y * width + 1, end = i + width - 2; i < end; i += 1) {
      const gx = luma[i - width + 1] + 2 * luma[i + 1] + luma[i + width + 1] - luma[i - width - 1] - 2 * luma[i - 1] - luma[i + width - 1];
      const gy = luma[i + width - 1] + 2 * luma[i + width] + luma[i + width + 1] - luma[i - width - 1] - 2 * luma[i - width] - luma[i - width + 1];
      if (Math.abs(gx) + Math.abs(gy) > EDGE) dots[i] = MARK;
    }
  }
  for (const plane of planes) {
    const left = Math.max(0, Math.floor(plane.left) - MARGIN);
    const right = Math.min(width, Math.ceil(plane.right) + MARGIN);
    const bottom = Math.min(height, Math.ceil(plane.bottom) + MARGIN);
    for (let y = Math.max(0, Math.floor(plane.top) - MARGIN); y < bottom; y += 1) {
      if (left < right) dots.fill(0, y * width + left, y * width + right);
    }
  }
  return dots;
}
