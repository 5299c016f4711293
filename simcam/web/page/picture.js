// The live picture: a stream of JPEGs on a canvas, with focus peaking and the loupe on top.
import {loupeMake} from './loupe.js';
import {readParts} from './multipart.js';
import {sharpDots, shownPlanes} from './peaking.js';

const PEAKING_WIDTH = 640; // peaking works on a picture of at most this width
const RETRY_MS = 1000;
const FPS = 20;

// The address of the stream for what is wanted, in a viewer so many dots of the screen wide. The loupe needs the
// picture unscaled; otherwise no more dots than the screen shows are sent.
export function streamUrl({view, planes, loupe}, dots) {
  const path = /^\d$/.test(view) ? `posts/${view}` : view;
  const query = new URLSearchParams({fps: String(FPS), quality: loupe ? '90' : '80'});
  if (view !== 'sensor') query.set('planes', planes ? '1' : '0');
  if (!loupe) query.set('width', String(Math.max(320, Math.ceil(dots / 160) * 160)));
  return `/api/${path}/stream.mjpeg?${query}`;
}

// elements: viewer (the box), picture, peaking, loupe (canvases) and tiles (which has the size of the picture).
export function pictureMake({viewer, picture, peaking, loupe: loupeCanvas, tiles}) {
  const context = picture.getContext('2d', {alpha: false});
  const small = document.createElement('canvas').getContext('2d', {willReadFrequently: true});
  const wanted = {view: '0', planes: true, peaking: false, loupe: false};
  let box = {left: 0, top: 0, width: 1, height: 1}; // of the picture in the viewer
  let bitmap = null;
  let posts = [];
  let frames = 0;
  let rate = 0;
  let url = '';
  let abort = null;
  let retry = 0;
  const loupe = loupeMake({viewer, canvas: picture, loupe: loupeCanvas}, () => box);

  function layout() {
    const scale = Math.min(viewer.clientWidth / picture.width, viewer.clientHeight / picture.height);
    const width = Math.round(picture.width * scale);
    const height = Math.round(picture.height * scale);
    box = {left: (viewer.clientWidth - width) / 2, top: (viewer.clientHeight - height) / 2, width, height};
    for (const element of [picture, peaking, tiles]) {
      element.style.width = `${width}px`;
      element.style.height = `${height}px`;
    }
    loupe.place();
  }

  function drawPeaking() {
    const width = Math.min(PEAKING_WIDTH, picture.width);
    const height = Math.round(picture.height * width / picture.width);
    if (peaking.width !== width || peaking.height !== height) {
      small.canvas.width = peaking.width = width;
      small.canvas.height = peaking.height = height;
    }
    small.drawImage(bitmap, 0, 0, width, height);
    const planes = wanted.planes ? shownPlanes(wanted.view, posts, width, height) : [];
    const dots = sharpDots(small.getImageData(0, 0, width, height).data, width, height, planes);
    peaking.getContext('2d').putImageData(new ImageData(new Uint8ClampedArray(dots.buffer), width, height), 0, 0);
  }

  function drawExtras() {
    if (!bitmap) return;
    if (wanted.peaking) drawPeaking();
    if (wanted.loupe) loupe.show(bitmap);
  }

  async function onFrame(bytes) {
    const next = await createImageBitmap(new Blob([bytes], {type: 'image/jpeg'}));
    if (picture.width !== next.width || picture.height !== next.height) {
      picture.width = next.width;
      picture.height = next.height;
      layout();
    }
    context.drawImage(next, 0, 0);
    if (bitmap) bitmap.close();
    bitmap = next;
    frames += 1;
    drawExtras();
  }

  function stop() {
    clearTimeout(retry);
    if (abort) abort.abort();
    abort = null;
    url = '';
  }

  async function start() {
    const next = streamUrl(wanted, viewer.clientWidth * (window.devicePixelRatio || 1));
    if (next === url || document.hidden) return;
    stop();
    url = next;
    const mine = new AbortController();
    abort = mine;
    try {
      const answer = await fetch(url, {signal: mine.signal});
      if (answer.ok) await readParts(answer.body, onFrame);
    } catch (error) {
      if (mine.signal.aborted) return;
    }
    if (abort === mine) {
      url = '';
      retry = setTimeout(start, RETRY_MS);
    }
  }

  new ResizeObserver(() => { layout(); start(); }).observe(viewer);
  document.addEventListener('visibilitychange', () => (document.hidden ? stop() : start()));
  setInterval(() => {
    rate = frames;
    frames = 0;
  }, 1000);

  return {
    get rate() { return rate; }, // pictures in the last second
    get view() { return wanted.view; },
    // Changes what is shown: view ('0' to '3', 'all', 'sensor'), planes, peaking, loupe.
    set(changes) {
      Object.assign(wanted, changes);
      peaking.hidden = !wanted.peaking;
      loupeCanvas.hidden = !wanted.loupe;
      drawExtras();
      start();
    },
    showState(state) {
      posts = state.posts;
    },
    restart() {
      stop();
      start();
    },
  };
}
