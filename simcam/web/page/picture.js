// The live picture: a stream of JPEGs drawn on a canvas, focus peaking and the loupe.

const PEAKING_WIDTH = 640;
const PEAKING_EDGE = 95; // gradient of the luma above which a dot counts as sharp
const LOUPE = 220; // dots of the page across, each of which may be several of the screen
const RETRY_MS = 1000;

// Cuts a multipart stream into its parts and hands each one's bytes to onPart, one after the other.
async function readParts(body, onPart) {
  const reader = body.getReader();
  const decoder = new TextDecoder('latin1');
  let buffer = new Uint8Array(0);
  for (;;) {
    const {done, value} = await reader.read();
    if (done) return;
    const joined = new Uint8Array(buffer.length + value.length);
    joined.set(buffer);
    joined.set(value, buffer.length);
    buffer = joined;
    for (;;) {
      const head = decoder.decode(buffer.subarray(0, 512));
      const end = head.indexOf('\r\n\r\n');
      const length = /content-length: *(\d+)/i.exec(head);
      if (end < 0 || !length || buffer.length < end + 4 + Number(length[1])) break;
      const stop = end + 4 + Number(length[1]);
      await onPart(buffer.slice(end + 4, stop));
      buffer = buffer.slice(stop + 2);
    }
  }
}

export function viewerMake(elements) {
  const {viewer, picture, peaking, loupe, tiles} = elements;
  const context = picture.getContext('2d', {alpha: false});
  const lens = loupe.getContext('2d');
  const small = document.createElement('canvas');
  const smallContext = small.getContext('2d', {willReadFrequently: true});
  const state = {
    view: '0', planes: true, peaking: false, loupe: false, width: 0, url: '', abort: null, retry: 0,
    frames: 0, rate: 0, x: 0.3, y: 0.4, bitmap: null, box: {left: 0, top: 0, width: 1, height: 1},
  };

  // ---- where the picture lies in its box ----

  function layout() {
    const scale = Math.min(viewer.clientWidth / picture.width, viewer.clientHeight / picture.height);
    const width = Math.round(picture.width * scale);
    const height = Math.round(picture.height * scale);
    state.box = {left: (viewer.clientWidth - width) / 2, top: (viewer.clientHeight - height) / 2, width, height};
    for (const element of [picture, peaking, tiles]) {
      element.style.width = `${width}px`;
      element.style.height = `${height}px`;
    }
    placeLoupe();
  }

  // The loupe begins and ends between dots of the screen, or the browser would draw its dots anew, blurred.
  function placeLoupe() {
    const ratio = window.devicePixelRatio || 1;
    const dots = Math.round(LOUPE * ratio);
    if (loupe.width !== dots) loupe.width = loupe.height = dots;
    loupe.style.width = loupe.style.height = `${dots / ratio}px`;
    const origin = viewer.getBoundingClientRect();
    const snap = (from, at) => `${Math.round((from + at) * ratio - dots / 2) / ratio - from}px`;
    loupe.style.left = snap(origin.left, state.box.left + state.x * state.box.width);
    loupe.style.top = snap(origin.top, state.box.top + state.y * state.box.height);
  }

  // ---- what is drawn for each frame ----

  function drawPeaking() {
    const width = Math.min(PEAKING_WIDTH, picture.width);
    const height = Math.round(picture.height * width / picture.width);
    if (small.width !== width || small.height !== height) {
      small.width = peaking.width = width;
      small.height = peaking.height = height;
    }
    smallContext.drawImage(state.bitmap, 0, 0, width, height);
    const from = smallContext.getImageData(0, 0, width, height).data;
    const luma = new Int16Array(width * height);
    for (let i = 0, p = 0; i < luma.length; i += 1, p += 4) luma[i] = (from[p] * 77 + from[p + 1] * 150 + from[p + 2] * 29) >> 8;
    const out = new ImageData(width, height);
    const dots = new Uint32Array(out.data.buffer);
    for (let y = 1; y < height - 1; y += 1) {
      for (let i = y * width + 1, end = i + width - 2; i < end; i += 1) {
        const gx = luma[i - width + 1] + 2 * luma[i + 1] + luma[i + width + 1] - luma[i - width - 1] - 2 * luma[i - 1] - luma[i + width - 1];
        const gy = luma[i + width - 1] + 2 * luma[i + width] + luma[i + width + 1] - luma[i - width - 1] - 2 * luma[i - width] - luma[i - width + 1];
        if (Math.abs(gx) + Math.abs(gy) > PEAKING_EDGE * 2) dots[i] = 0xFF5AFF5A; // opaque light green
      }
    }
    peaking.getContext('2d').putImageData(out, 0, 0);
  }

  function drawLoupe() {
    placeLoupe(); // the page may have come to another screen
    const dots = loupe.width;
    const middle = Math.floor(dots / 2);
    const x = Math.round(state.x * picture.width) - middle;
    const y = Math.round(state.y * picture.height) - middle;
    lens.fillStyle = '#07090b';
    lens.fillRect(0, 0, dots, dots);
    lens.imageSmoothingEnabled = false;
    lens.drawImage(state.bitmap, x, y, dots, dots, 0, 0, dots, dots);
    const arm = 8 * dots / LOUPE;
    lens.strokeStyle = '#ffffff55';
    lens.lineWidth = dots / LOUPE;
    lens.beginPath();
    lens.moveTo(middle, middle - arm); lens.lineTo(middle, middle + arm);
    lens.moveTo(middle - arm, middle); lens.lineTo(middle + arm, middle);
    lens.stroke();
  }

  function drawExtras() {
    if (!state.bitmap) return;
    if (state.peaking) drawPeaking();
    if (state.loupe) drawLoupe();
  }

  async function onFrame(bytes) {
    const bitmap = await createImageBitmap(new Blob([bytes], {type: 'image/jpeg'}));
    if (picture.width !== bitmap.width || picture.height !== bitmap.height) {
      picture.width = bitmap.width;
      picture.height = bitmap.height;
      layout();
    }
    context.drawImage(bitmap, 0, 0);
    if (state.bitmap) state.bitmap.close();
    state.bitmap = bitmap;
    state.frames += 1;
    drawExtras();
  }

  // ---- the stream ----

  function wantedUrl() {
    const path = /^\d$/.test(state.view) ? `posts/${state.view}` : state.view;
    const query = new URLSearchParams({fps: '20', quality: state.loupe ? '90' : '80'});
    if (state.view !== 'sensor') query.set('planes', state.planes ? '1' : '0');
    const wide = Math.ceil(viewer.clientWidth * (window.devicePixelRatio || 1) / 160) * 160;
    if (!state.loupe) query.set('width', String(Math.max(320, wide)));
    return `/api/${path}/stream.mjpeg?${query}`;
  }

  function stop() {
    clearTimeout(state.retry);
    if (state.abort) state.abort.abort();
    state.abort = null;
    state.url = '';
  }

  async function start() {
    const url = wantedUrl();
    if (url === state.url || document.hidden) return;
    stop();
    state.url = url;
    const abort = new AbortController();
    state.abort = abort;
    try {
      const answer = await fetch(url, {signal: abort.signal});
      if (answer.ok) await readParts(answer.body, onFrame);
    } catch (error) {
      if (abort.signal.aborted) return;
    }
    if (state.abort === abort) {
      state.url = '';
      state.retry = setTimeout(start, RETRY_MS);
    }
  }

  // ---- the loupe's place ----

  function moveLoupe(x, y) {
    state.x = Math.min(1, Math.max(0, x));
    state.y = Math.min(1, Math.max(0, y));
    if (state.bitmap) drawLoupe();
    else placeLoupe();
  }
  viewer.addEventListener('pointermove', (event) => {
    if (!state.loupe || (event.pointerType === 'touch' && event.buttons === 0)) return;
    const rect = picture.getBoundingClientRect();
    moveLoupe((event.clientX - rect.left) / rect.width, (event.clientY - rect.top) / rect.height);
  });
  loupe.addEventListener('keydown', (event) => {
    const step = event.shiftKey ? 0.002 : 0.02;
    const move = {ArrowLeft: [-step, 0], ArrowRight: [step, 0], ArrowUp: [0, -step], ArrowDown: [0, step]}[event.key];
    if (!move) return;
    event.preventDefault();
    moveLoupe(state.x + move[0], state.y + move[1]);
  });

  new ResizeObserver(() => { layout(); start(); }).observe(viewer);
  document.addEventListener('visibilitychange', () => (document.hidden ? stop() : start()));
  setInterval(() => {
    state.rate = state.frames;
    state.frames = 0;
  }, 1000);

  return {
    get rate() { return state.rate; },
    get view() { return state.view; },
    set(changes) {
      Object.assign(state, changes);
      peaking.hidden = !state.peaking;
      loupe.hidden = !state.loupe;
      drawExtras();
      start();
    },
    restart() {
      stop();
      start();
    },
  };
}
