// The panel of planes: one OSD plane alone, in its colors or by palette index.
import {$, element, setFacts, setLink, setPressed, setText} from './dom.js';
import {getJson} from './requests.js';
import {indexColor, paletteColor, unpackIndices} from './plane_data.js';

const css = ([r, g, b, a]) => `rgba(${r}, ${g}, ${b}, ${a / 255})`;

function stateText(plane) {
  if (!plane.open) return 'not open';
  return plane.shown ? 'open, shown' : 'open, never shown';
}

// names: what the overlay draws on each plane, null for nothing.
export function planesPanelMake(names) {
  $('plane-number').append(...names.map((name, number) =>
    element('option', {value: number, textContent: name ? `${number} · ${name}` : number})));
  const canvas = $('plane');
  const paints = document.querySelectorAll('[data-paint]');
  let paint = paints[0].dataset.paint; // also the name of the picture at /api
  let indices = null;

  const path = () => `/api/posts/${$('plane-post').value}/planes/${$('plane-number').value}`;

  function draw(width, height, palette) {
    const context = canvas.getContext('2d');
    canvas.width = width;
    canvas.height = height;
    const image = context.createImageData(width, height);
    const used = new Map();
    indices.forEach((index, i) => {
      if (!used.has(index)) used.set(index, {count: 0, color: paint === 'indices' ? indexColor(index) : paletteColor(palette[index])});
      const entry = used.get(index);
      entry.count += 1;
      image.data.set(entry.color, i * 4);
    });
    context.putImageData(image, 0, 0);
    $('plane-used').replaceChildren(...[...used].sort((a, b) => a[0] - b[0]).map(([index, entry]) => {
      const box = element('i');
      box.style.background = css(entry.color);
      return element('span', {title: `${entry.count} dots`}, box, String(index));
    }));
  }

  async function show() {
    const shown = path();
    const [palette, plane] = await Promise.all([getJson('/api/palette'), getJson(shown)]);
    const raw = plane.size ? await fetch(`${shown}/raw`) : null; // size 0: nothing is shown
    const bytes = raw?.ok ? new Uint8Array(await raw.arrayBuffer()) : null;
    if (shown !== path()) return; // another one was chosen meanwhile
    canvas.hidden = !bytes;
    $('plane-empty').hidden = Boolean(bytes);
    setLink($('plane-raw'), bytes && `${shown}/raw`);
    setLink($('plane-png'), bytes && `${shown}/${paint}.png?download=1`);
    setFacts($('plane-facts'), [
      ['State', stateText(plane)], ['Size', `${plane.width} × ${plane.height}`], ['Position', `${plane.x}, ${plane.y}`],
      ['Line', `${plane.pitch} bytes`], ['Depth', `${plane.depth} bits`], ['Shown', `${plane.shows} times`],
    ]);
    if (!bytes) {
      indices = null;
      setText($('plane-empty'), plane.open ? 'This plane is open but was never shown.' : 'This plane is not open.');
      $('plane-used').replaceChildren();
      return;
    }
    const [width, height, pitch, depth] = ['Width', 'Height', 'Pitch', 'Depth'].map((name) => Number(raw.headers.get(`X-${name}`)));
    if (!width || !height) return;
    indices = unpackIndices(bytes, {width, height, pitch, depth});
    draw(width, height, palette.entries);
  }
  const load = () => show().catch(() => {}); // the next load tries again

  for (const id of ['plane-post', 'plane-number']) $(id).addEventListener('change', load);
  for (const button of paints) {
    button.addEventListener('click', () => {
      paint = button.dataset.paint;
      for (const each of paints) setPressed(each, each === button);
      load();
    });
  }
  canvas.addEventListener('pointermove', (event) => {
    if (!indices) return;
    const box = canvas.getBoundingClientRect();
    const x = Math.floor((event.clientX - box.left) / box.width * canvas.width);
    const y = Math.floor((event.clientY - box.top) / box.height * canvas.height);
    const index = indices[y * canvas.width + x];
    if (index !== undefined) setText($('plane-pointer'), `${x}, ${y}: index ${index}`);
  });

  return {load, everyMs: 500};
}
