// The lens ring: a knurled barrel seen from the side. Its surface follows the pointer.

const TRAVEL = 4.6; // radians between the two stops
const RIB = 0.034;  // radians from rib to rib
const SCALE_HEIGHT = 34; // of the scale above the grip

// Radius of the barrel in a canvas of this width.
const radius = (width) => width * 0.62;

// The x coordinate of a point of the surface, from its angle to the middle; null on the far side.
export function ringPlace(angle, width) {
  return Math.abs(angle) < Math.PI / 2 ? width / 2 + Math.sin(angle) * radius(width) : null;
}

// The angle to the middle of the scale's mark while the ring is at value; both are 0 to 1.
export function ringAngle(value, mark) {
  return (value - mark) * TRAVEL;
}

// The position after the pointer has dragged the surface by so many pixels. It may lie beyond the stops.
export function ringDragged(value, pixels, width) {
  return value + pixels / (radius(width) * TRAVEL);
}

// The same after an event of the wheel.
export function ringWheeled(value, {deltaX, deltaY, shiftKey}) {
  const sideways = Math.abs(deltaX) > Math.abs(deltaY);
  // While Shift is held, browsers report the wheel along the other axis.
  const turn = sideways && !shiftKey ? deltaX : -(deltaY || deltaX);
  return value + Math.sign(turn) * (shiftKey ? 0.001 : 0.006);
}

// The same after a key; null for one that does not turn the ring.
export function ringKeyed(value, {key, shiftKey}) {
  const fine = shiftKey ? 0.001 : 0.01;
  const steps = {ArrowRight: fine, ArrowUp: fine, ArrowLeft: -fine, ArrowDown: -fine, PageUp: 0.05, PageDown: -0.05};
  if (key === 'Home') return 0;
  if (key === 'End') return 1;
  return Object.hasOwn(steps, key) ? value + steps[key] : null;
}

// Calls onTurn with the position, 0 to 1, when a person turns the ring.
export function ringMake(canvas, onTurn) {
  const state = {value: 0, peak: null, dragging: false, grabX: 0, grabValue: 0, dirty: true};
  const context = canvas.getContext('2d');

  function set(value, byHand) {
    const clamped = Math.min(1, Math.max(0, value));
    if (clamped === state.value) return;
    state.value = clamped;
    state.dirty = true;
    canvas.setAttribute('aria-valuenow', clamped.toFixed(3));
    canvas.setAttribute('aria-valuetext', `${(clamped * 100).toFixed(1)} of 100`);
    if (byHand) onTurn(clamped);
  }

  canvas.addEventListener('pointerdown', (event) => {
    if (event.button !== 0) return;
    canvas.setPointerCapture(event.pointerId);
    state.dragging = true;
    state.grabX = event.clientX;
    state.grabValue = state.value;
    canvas.focus({preventScroll: true});
    event.preventDefault();
  });
  canvas.addEventListener('pointermove', (event) => {
    if (!state.dragging) return;
    set(ringDragged(state.grabValue, event.clientX - state.grabX, canvas.clientWidth), true);
  });
  for (const name of ['pointerup', 'pointercancel', 'lostpointercapture']) {
    canvas.addEventListener(name, () => { state.dragging = false; });
  }
  canvas.addEventListener('wheel', (event) => {
    event.preventDefault();
    set(ringWheeled(state.value, event), true);
  }, {passive: false});
  canvas.addEventListener('keydown', (event) => {
    const value = ringKeyed(state.value, event);
    if (value === null) return;
    set(value, true);
    event.preventDefault();
  });
  new ResizeObserver(() => { state.dirty = true; }).observe(canvas);

  function shade(height, top, stops) {
    const gradient = context.createLinearGradient(0, top, 0, top + height);
    stops.forEach(([at, color]) => gradient.addColorStop(at, color));
    return gradient;
  }

  function drawScale(width, height) {
    context.fillStyle = shade(height, 0, [[0, '#0c0f12'], [.25, '#272e35'], [.6, '#20262c'], [1, '#0f1316']]);
    context.fillRect(0, 0, width, height);
    context.font = '600 12px system-ui, "DejaVu Sans", sans-serif';
    context.textAlign = 'center';
    context.textBaseline = 'middle';
    for (let i = 0; i <= 100; i += 1) {
      const angle = ringAngle(state.value, i / 100);
      const x = ringPlace(angle, width);
      if (x === null || x < -20 || x > width + 20) continue;
      const light = Math.max(0, Math.cos(angle)) ** 0.7;
      const major = i % 10 === 0;
      context.strokeStyle = `rgba(226, 232, 237, ${(major ? .95 : i % 5 ? .3 : .55) * light})`;
      context.lineWidth = major ? 1.6 : 1;
      context.beginPath();
      context.moveTo(x, height - 1);
      context.lineTo(x, height - (major ? 9 : i % 5 ? 4 : 6));
      context.stroke();
      if (major) {
        context.fillStyle = `rgba(233, 237, 241, ${light})`;
        context.fillText(String(i), x, height / 2 - 3);
      }
    }
    if (state.peak !== null) {
      const x = ringPlace(ringAngle(state.value, state.peak), width);
      if (x !== null) {
        context.fillStyle = '#f0b45a';
        context.beginPath();
        context.moveTo(x, height - 1);
        context.lineTo(x - 5, height - 9);
        context.lineTo(x + 5, height - 9);
        context.fill();
      }
    }
  }

  function drawGrip(width, top, height) {
    context.fillStyle = shade(height, top, [[0, '#090b0d'], [.08, '#20262b'], [.38, '#3a434b'], [.7, '#1c2126'], [1, '#050607']]);
    context.fillRect(0, top, width, height);
    const turned = state.value * TRAVEL;
    const first = Math.ceil((-Math.PI / 2 - turned) / RIB);
    const last = Math.floor((Math.PI / 2 - turned) / RIB);
    for (let i = first; i <= last; i += 1) {
      const angle = i * RIB + turned;
      const x = ringPlace(angle, width);
      const next = ringPlace(angle + RIB * .52, width);
      if (x === null || next === null || next < 0 || x > width) continue;
      const light = Math.max(0, Math.cos(angle));
      context.fillStyle = `rgba(4, 6, 8, ${.35 + .45 * light})`;
      context.fillRect(x, top + 3, Math.max(.6, next - x), height - 6);
      context.fillStyle = `rgba(214, 224, 232, ${.16 * light})`;
      context.fillRect(next, top + 4, 1, height - 8);
    }
    const side = context.createLinearGradient(0, 0, width, 0);
    side.addColorStop(0, '#000c'); side.addColorStop(.22, '#0000'); side.addColorStop(.78, '#0000'); side.addColorStop(1, '#000c');
    context.fillStyle = side;
    context.fillRect(0, 0, width, top + height);
  }

  function draw() {
    if (!state.dirty) return;
    state.dirty = false;
    const ratio = window.devicePixelRatio || 1;
    const width = canvas.clientWidth;
    const height = canvas.clientHeight;
    if (canvas.width !== Math.round(width * ratio) || canvas.height !== Math.round(height * ratio)) {
      canvas.width = Math.round(width * ratio);
      canvas.height = Math.round(height * ratio);
    }
    context.setTransform(ratio, 0, 0, ratio, 0, 0);
    drawScale(width, SCALE_HEIGHT);
    drawGrip(width, SCALE_HEIGHT, height - SCALE_HEIGHT);
    context.fillStyle = '#e8473d'; // the fixed mark against which the scale is read
    context.fillRect(width / 2 - 1, SCALE_HEIGHT, 2, 9);
    context.beginPath();
    context.moveTo(width / 2, SCALE_HEIGHT - 1);
    context.lineTo(width / 2 - 6, SCALE_HEIGHT + 10);
    context.lineTo(width / 2 + 6, SCALE_HEIGHT + 10);
    context.fill();
  }

  return {
    draw,
    get held() { return state.dragging; },
    show(value) { set(value, false); },
    showPeak(value) {
      if (value !== state.peak) state.dirty = true;
      state.peak = value;
    },
  };
}
