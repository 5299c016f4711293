// The loupe: a round cutout in which a dot of the picture is a dot of the screen.

const SIZE = 220; // in CSS pixels, each of which may be several dots of the screen
const STEP = 0.02;
const FINE_STEP = 0.002;

// Lies over canvas, within viewer. box() gives the canvas's place in the viewer as {left, top, width, height}.
export function loupeMake({viewer, canvas, loupe}, box) {
  const context = loupe.getContext('2d');
  const at = {x: 0.3, y: 0.4}; // parts of the picture's width and height
  let bitmap = null;

  // Starts and ends between dots of the screen: otherwise the browser scales the loupe, which blurs it.
  function place() {
    const ratio = window.devicePixelRatio || 1;
    const dots = Math.round(SIZE * ratio);
    if (loupe.width !== dots) loupe.width = loupe.height = dots;
    loupe.style.width = loupe.style.height = `${dots / ratio}px`;
    const origin = viewer.getBoundingClientRect();
    const {left, top, width, height} = box();
    const snap = (from, middle) => `${Math.round((from + middle) * ratio - dots / 2) / ratio - from}px`;
    loupe.style.left = snap(origin.left, left + at.x * width);
    loupe.style.top = snap(origin.top, top + at.y * height);
  }

  function draw() {
    place(); // the page may be on another screen now
    const dots = loupe.width;
    const middle = Math.floor(dots / 2);
    context.fillStyle = '#07090b';
    context.fillRect(0, 0, dots, dots);
    context.imageSmoothingEnabled = false;
    context.drawImage(bitmap, Math.round(at.x * canvas.width) - middle, Math.round(at.y * canvas.height) - middle, dots, dots, 0, 0, dots, dots);
    const arm = 8 * dots / SIZE;
    context.strokeStyle = '#ffffff55';
    context.lineWidth = dots / SIZE;
    context.beginPath();
    context.moveTo(middle, middle - arm); context.lineTo(middle, middle + arm);
    context.moveTo(middle - arm, middle); context.lineTo(middle + arm, middle);
    context.stroke();
  }

  function move(x, y) {
    at.x = Math.min(1, Math.max(0, x));
    at.y = Math.min(1, Math.max(0, y));
    if (bitmap) draw();
    else place();
  }
  viewer.addEventListener('pointermove', (event) => {
    if (loupe.hidden || (event.pointerType === 'touch' && event.buttons === 0)) return;
    const rect = canvas.getBoundingClientRect();
    move((event.clientX - rect.left) / rect.width, (event.clientY - rect.top) / rect.height);
  });
  loupe.addEventListener('keydown', (event) => {
    const step = event.shiftKey ? FINE_STEP : STEP;
    const turn = {ArrowLeft: [-step, 0], ArrowRight: [step, 0], ArrowUp: [0, -step], ArrowDown: [0, step]}[event.key];
    if (!turn) return;
    event.preventDefault();
    move(at.x + turn[0], at.y + turn[1]);
  });

  return {
    place,
    show(picture) {
      bitmap = picture;
      draw();
    },
  };
}
