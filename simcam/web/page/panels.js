// The panels at the side: posts, scene, process, faults, planes, calls.

const $ = (id) => document.getElementById(id);
const SIZES = [[1920, 1080], [1280, 720], [720, 576], [720, 480], [352, 288], [352, 240]];
const LOG_MAX = 2000;   // pieces of output kept on the page
const CALLS_MAX = 300;
const PLANE_EVERY_MS = 500;
const CALLS_EVERY_MS = 700;

function element(name, attributes = {}, ...children) {
  const made = document.createElement(name);
  for (const [key, value] of Object.entries(attributes)) {
    if (key in made && key !== 'role') made[key] = value;
    else made.setAttribute(key, value);
  }
  made.append(...children);
  return made;
}

// A link to a download that is not to be had has no target: it is out of the keyboard's reach as well.
export function setLink(link, target) {
  if (target) link.setAttribute('href', target);
  else link.removeAttribute('href');
  link.setAttribute('aria-disabled', String(!target));
}

function setFacts(list, facts) {
  const wanted = facts.flatMap(([name, value]) => [name, String(value)]);
  if (list.children.length !== wanted.length) {
    list.replaceChildren(...facts.flatMap(([name]) => [element('dt', {textContent: name}), element('dd')]));
  }
  wanted.forEach((text, i) => {
    if (list.children[i].textContent !== text) list.children[i].textContent = text;
  });
}

// ---- tabs ----

function tabsMake(onShow) {
  const tabs = [...document.querySelectorAll('[role=tab]')];
  function show(tab, focus) {
    for (const each of tabs) {
      const chosen = each === tab;
      each.setAttribute('aria-selected', String(chosen));
      each.tabIndex = chosen ? 0 : -1;
      $(each.getAttribute('aria-controls')).hidden = !chosen;
    }
    if (focus) tab.focus();
    onShow(tab.id.slice(4));
  }
  tabs.forEach((tab, i) => {
    tab.addEventListener('click', () => show(tab, false));
    tab.addEventListener('keydown', (event) => {
      const next = {ArrowRight: i + 1, ArrowLeft: i - 1, Home: 0, End: tabs.length - 1}[event.key];
      if (next === undefined) return;
      event.preventDefault();
      show(tabs[(next + tabs.length) % tabs.length], true);
    });
  });
}

export function panelsMake({store, send, toast, mark}) {
  let shown = 'posts';

  // ---- posts ----

  const posts = [0, 1, 2, 3].map((number) => {
    const size = element('select', {'aria-label': `Size of post ${number}`},
      ...SIZES.map(([w, h]) => element('option', {value: `${w}x${h}`, textContent: `${w} × ${h}`})),
      element('option', {value: 'own', textContent: 'Another size …'}));
    const power = element('button', {type: 'button', className: 'switch', role: 'switch', 'aria-checked': 'false', 'aria-label': `Post ${number}`, textContent: 'Off'});
    const own = element('form', {className: 'own joined', hidden: true},
      element('input', {type: 'text', placeholder: '640x480', pattern: '[0-9]{1,4}x[0-9]{1,4}', required: true, 'aria-label': `Another size of post ${number}, width x height`}),
      element('button', {type: 'submit', textContent: 'Set'}));
    const planes = element('p', {className: 'fine planes'});
    $('posts').append(element('div', {className: 'post'}, element('header', {}, element('b', {textContent: `Post ${number}`}), size, power), own, planes));
    const post = {size, power, own, planes, state: null};

    power.addEventListener('click', () => {
      if (post.state?.running) send('POST', `/api/posts/${number}/stop`);
      else send('POST', `/api/posts/${number}/start`, size.value === 'own' ? undefined : {size: size.value});
    });
    size.addEventListener('change', () => {
      own.hidden = size.value !== 'own';
      if (size.value === 'own') own.querySelector('input').focus();
      else if (post.state?.running) send('POST', `/api/posts/${number}/start`, {size: size.value});
    });
    own.addEventListener('submit', async (event) => {
      event.preventDefault();
      if (await send('POST', `/api/posts/${number}/start`, {size: own.querySelector('input').value})) own.hidden = true;
    });
    return post;
  });

  function showPosts(state) {
    state.posts.forEach((now, number) => {
      const post = posts[number];
      const before = post.state;
      post.state = now;
      post.power.setAttribute('aria-checked', String(now.running));
      post.power.textContent = now.running ? 'On' : 'Off';
      const width = `${now.width}x${now.height}`;
      if (now.width && (!before || before.width !== now.width || before.height !== now.height)) {
        if (![...post.size.options].some((option) => option.value === width)) {
          post.size.insertBefore(element('option', {value: width, textContent: width.replace('x', ' × ')}), post.size.lastElementChild);
        }
        post.size.value = width;
      }
      const open = now.planes.map((plane, i) => [plane, i]).filter(([plane]) => plane.open);
      const lines = open.map(([plane, i]) => `Plane ${i}: ${plane.width} × ${plane.height} at ${plane.x}, ${plane.y}${plane.shown ? '' : ', not shown'}`);
      const text = lines.length ? lines.join('\n') : now.running ? 'Running, no plane is open.' : 'Off.';
      if (post.planes.textContent !== text) post.planes.textContent = text;
    });
  }

  // ---- scene ----

  const setScene = (scene) => send('POST', '/api/scene', {scene});
  for (const button of document.querySelectorAll('[data-scene]')) button.addEventListener('click', () => setScene(button.dataset.scene));
  $('scene-form').addEventListener('submit', (event) => {
    event.preventDefault();
    if ($('scene-path').value.trim()) setScene($('scene-path').value.trim());
  });
  // One request at a time, then the last one wanted: side by side they may arrive in another order.
  const gain = {wanted: null, busy: false};
  async function setGain(stops) {
    gain.wanted = Math.min(8, Math.max(0.125, 2 ** stops));
    if (gain.busy) return;
    gain.busy = true;
    while (gain.wanted !== null) {
      const wanted = gain.wanted;
      gain.wanted = null;
      await send('POST', '/api/gain', {gain: wanted});
    }
    gain.busy = false;
  }
  $('gain').addEventListener('input', () => { $('gain-value').textContent = `${(2 ** Number($('gain').value)).toFixed(2)}×`; });
  $('gain').addEventListener('change', () => setGain(Number($('gain').value)));
  $('gain-reset').addEventListener('click', () => setGain(0));
  $('flash').addEventListener('click', async () => {
    if (await send('POST', '/api/flash')) mark('flash');
  });

  function showScene(state) {
    for (const button of document.querySelectorAll('[data-scene]')) button.setAttribute('aria-pressed', String(button.dataset.scene === state.scene));
    if (document.activeElement !== $('gain')) $('gain').value = String(Math.log2(state.gain));
    $('gain-value').textContent = `${state.gain.toFixed(2)}×`;
    setFacts($('camera-facts'), [
      ['Scene', state.scene], ['Measurements', `${state.measured_rate_hz.toFixed(1)} of ${state.rate_hz.toFixed(0)} a second`],
      ['Blur disc', `${state.latest.blur_px.toFixed(2)} dots`], ['Configured by overlay', state.focus_configured ? 'yes' : 'no'],
      ['Line alignment', `${state.pitch_align} bytes`], ['Seed', state.seed], ['Run directory', state.run_directory || '–'],
    ]);
  }

  // ---- process and its output ----

  $('process-start').addEventListener('click', () => send('POST', '/api/process/start'));
  $('process-stop').addEventListener('click', () => send('POST', '/api/process/stop'));
  $('process-kill').addEventListener('click', () => send('POST', '/api/process/kill'));
  $('log-clear').addEventListener('click', () => $('log').replaceChildren());

  function showProcess(state) {
    const p = state.process;
    setFacts($('process-facts'), [
      ['State', p.running ? (p.attached ? 'running, attached' : store.apart ? 'running without a session' : 'running, not attached yet') : p.attached ? 'attached, started elsewhere' : 'not running'],
      ['Process id', p.pid || '–'],
      ['CPU', p.running ? `${p.cpu_percent.toFixed(1)} %` : '–'],
      ['Memory', p.running ? `${(p.resident_bytes / 1048576).toFixed(1)} MiB` : '–'],
      ['Started', `${p.starts} ${p.starts === 1 ? 'time' : 'times'}`],
      ['Last end', p.last_end || '–'],
    ]);
    $('process-start').disabled = !p.configured || p.running;
    $('process-stop').disabled = !p.running;
    $('process-kill').disabled = !p.running;
    $('tab-process').classList.toggle('alert', store.apart || (!p.running && !p.attached));
  }

  function addOutput(chunk) {
    const log = $('log');
    if (log.firstElementChild?.classList.contains('say')) log.replaceChildren();
    log.append(element('span', {className: chunk.stream === 2 ? 'err' : 'out', textContent: chunk.text}));
    while (log.children.length > LOG_MAX) log.firstElementChild.remove();
    if ($('log-follow').checked) log.scrollTop = log.scrollHeight;
  }
  $('log').append(element('span', {className: 'say', textContent: 'Nothing yet. An overlay that has no trouble says nothing.'}));

  // ---- faults ----

  $('fault-error').addEventListener('change', () => { $('fault-own').hidden = $('fault-error').value !== 'own'; });
  $('fault-form').addEventListener('submit', (event) => {
    event.preventDefault();
    const code = $('fault-error').value === 'own' ? $('fault-code').value : $('fault-error').value;
    const count = $('fault-count').value;
    const delay = Number($('fault-delay').value);
    if (Number(code) === 0 && delay === 0) {
      toast('A fault without an error needs a delay.', true);
      return;
    }
    send('POST', '/api/faults', {
      call: $('fault-call').value, error: code, remaining: count === 'forever' ? count : Number(count), delay_ms: delay,
    });
  });
  $('fault-clear').addEventListener('click', async () => {
    if (await send('DELETE', '/api/faults')) toast('All faults are cleared.');
  });
  fetch('/api/faults').then((answer) => answer.json()).then(({calls}) => {
    $('fault-call').replaceChildren(...calls.map((call) => element('option', {value: call, textContent: call})));
  }).catch(() => {});

  const cards = new Map(); // by call, so that a button keeps the focus while its card's numbers change

  // When the overlay makes the calls that it does not make with every redraw or reading.
  const AT_START = 'when the process starts';
  const NEVER = 'by nothing: the overlay never closes a plane';
  const AT_FAILURE = 'when a start fails';
  const OCCASIONS = {
    open: AT_START, CAM_FOCUS_CONFIG: AT_START, qm7_cl_library_init: AT_START, qm7_cl_sys_open_device: AT_START,
    qm7_cl_post_notify_callback: AT_START, qm7_cl_post_set_notify: AT_START,
    qm7_cl_post_get_osd_color_mem: AT_START, qm7_cl_post_set_osd_color: AT_START,
    qm7_cl_post_thread_get_status: 'when a post starts', qm7_cl_post_open_osd: 'when a post starts',
    qm7_cl_post_clear_osd: NEVER, qm7_cl_post_close_osd: NEVER,
    qm7_cl_library_exit: AT_FAILURE, qm7_cl_sys_close_device: AT_FAILURE,
  };

  function faultCard(call) {
    const clear = element('button', {type: 'button', className: 'link', textContent: 'Clear', 'aria-label': `Clear the fault of ${call}`});
    clear.addEventListener('click', () => send('POST', '/api/faults', {call, remaining: 0}));
    const text = element('span');
    return {text, box: element('div', {className: 'card'}, element('div', {}, element('b', {textContent: call}), text), clear)};
  }

  function showFaults(state) {
    const calls = state.faults.map((fault) => fault.call);
    for (const call of [...cards.keys()]) if (!calls.includes(call)) { cards.get(call).box.remove(); cards.delete(call); }
    for (const fault of state.faults) {
      if (!cards.has(fault.call)) {
        cards.set(fault.call, faultCard(fault.call));
        $('faults').append(cards.get(fault.call).box);
      }
      const what = Number(fault.error) === 0 ? '' : ` fails with ${fault.error}`;
      const slow = fault.delay_ms ? ` ${what ? 'and ' : ''}takes ${fault.delay_ms} ms longer` : '';
      const left = fault.remaining === 'forever' ? 'for ever' : `${fault.remaining} more`;
      const occasion = fault.hits === 0 && OCCASIONS[fault.call];
      const met = occasion ? `met ${occasion}` : `met ${fault.hits} times`;
      cards.get(fault.call).text.textContent = `${what}${slow}: ${left}, ${met}`;
    }
    $('faults-none').hidden = cards.size > 0;
    $('tab-faults').classList.toggle('alert', cards.size > 0);
  }

  // ---- planes ----

  const plane = {paint: 'colors', palette: null, indices: null, width: 0, height: 0};

  // Indices apart at a glance: the same index has the same hue everywhere.
  function indexColor(index) {
    return index === 0 ? [0, 0, 0, 0] : hueColor((index * 47) % 360);
  }
  function hueColor(hue) {
    const part = (n) => {
      const k = (n + hue / 30) % 12;
      return Math.round(255 * (0.6 - 0.32 * Math.max(-1, Math.min(k - 3, 9 - k, 1))));
    };
    return [part(0), part(8), part(4), 255];
  }
  function paletteColor(index) {
    const [y, cb, cr, opacity] = plane.palette?.[index] ?? [0, 128, 128, 8];
    const clamp = (value) => Math.max(0, Math.min(255, Math.round(value)));
    return [clamp(y + 1.402 * (cr - 128)), clamp(y - 0.344136 * (cb - 128) - 0.714136 * (cr - 128)), clamp(y + 1.772 * (cb - 128)), Math.round(Math.min(opacity, 8) * 255 / 8)];
  }
  const css = ([r, g, b, a]) => `rgba(${r}, ${g}, ${b}, ${a / 255})`;

  function planePath() {
    return `/api/posts/${$('plane-post').value}/planes/${$('plane-number').value}`;
  }

  function paintPlane() {
    const canvas = $('plane');
    const context = canvas.getContext('2d');
    canvas.width = plane.width;
    canvas.height = plane.height;
    const image = context.createImageData(plane.width, plane.height);
    const used = new Map();
    for (let i = 0; i < plane.indices.length; i += 1) {
      const index = plane.indices[i];
      if (!used.has(index)) used.set(index, {count: 0, color: plane.paint === 'colors' ? paletteColor(index) : indexColor(index)});
      const entry = used.get(index);
      entry.count += 1;
      image.data.set(entry.color, i * 4);
    }
    context.putImageData(image, 0, 0);
    $('plane-used').replaceChildren(...[...used].sort((a, b) => a[0] - b[0]).map(([index, entry]) => {
      const box = element('i');
      box.style.background = css(entry.color);
      return element('span', {title: `${entry.count} dots`}, box, String(index));
    }));
  }

  async function loadPlane() {
    const path = planePath();
    const [palette, state] = await Promise.all([fetch('/api/palette').then((a) => a.json()), fetch(path).then((a) => a.json())]);
    const raw = state.size ? await fetch(`${path}/raw`) : null; // nothing is shown: nothing to ask for
    if (path !== planePath()) return;
    const seen = Boolean(raw?.ok);
    plane.palette = palette.entries;
    $('plane').hidden = !seen;
    $('plane-empty').hidden = seen;
    setLink($('plane-raw'), seen && `${path}/raw`);
    setLink($('plane-png'), seen && `${path}/${plane.paint}.png?download=1`);
    setFacts($('plane-facts'), [
      ['State', state.open ? (state.shown ? 'open, shown' : 'open, never shown') : 'not open'], ['Size', `${state.width} × ${state.height}`],
      ['Position', `${state.x}, ${state.y}`], ['Line', `${state.pitch} bytes`], ['Depth', `${2 << Math.min(2, state.depth_code)} bits`], ['Shown', `${state.shows} times`],
    ]);
    if (!seen) {
      $('plane-empty').textContent = state.open ? 'This plane is open but was never shown.' : 'This plane is not open.';
      $('plane-used').replaceChildren();
      return;
    }
    const bytes = new Uint8Array(await raw.arrayBuffer());
    const pitch = Number(raw.headers.get('X-Pitch'));
    const depth = Number(raw.headers.get('X-Depth'));
    plane.width = Number(raw.headers.get('X-Width'));
    plane.height = Number(raw.headers.get('X-Height'));
    plane.indices = new Uint8Array(plane.width * plane.height);
    for (let y = 0, i = 0; y < plane.height; y += 1) {
      for (let x = 0; x < plane.width; x += 1, i += 1) plane.indices[i] = (bytes[y * pitch + (x * depth >> 3)] >> (x * depth & 7)) & ((1 << depth) - 1);
    }
    if (plane.width && plane.height) paintPlane();
  }

  for (const id of ['plane-post', 'plane-number']) $(id).addEventListener('change', () => loadPlane().catch(() => {}));
  for (const button of document.querySelectorAll('[data-paint]')) {
    button.addEventListener('click', () => {
      plane.paint = button.dataset.paint;
      for (const each of document.querySelectorAll('[data-paint]')) each.setAttribute('aria-pressed', String(each === button));
      loadPlane().catch(() => {});
    });
  }
  $('plane').addEventListener('pointermove', (event) => {
    if (!plane.indices) return;
    const box = $('plane').getBoundingClientRect();
    const x = Math.floor((event.clientX - box.left) / box.width * plane.width);
    const y = Math.floor((event.clientY - box.top) / box.height * plane.height);
    const index = plane.indices[y * plane.width + x];
    if (index !== undefined) $('plane-pointer').textContent = `${x}, ${y}: index ${index}`;
  });

  // ---- calls ----

  let lastCall = 0;
  async function loadCalls() {
    const {calls} = await fetch(`/api/calls?after=${lastCall}`).then((answer) => answer.json());
    if (!calls.length) return;
    lastCall = calls[calls.length - 1].number;
    const box = $('calls');
    const follow = box.scrollTop + box.clientHeight > box.scrollHeight - 30;
    const kept = calls.filter((call) => (!$('calls-failed').checked || call.result !== 0) && (!$('calls-quiet').checked || call.call !== 'CAM_FOCUS_READ'));
    box.append(...kept.slice(-CALLS_MAX).map((call) => element('div', {className: call.result ? 'fail' : ''},
      `${call.call.replace('qm7_cl_', '')}${call.result ? ` → ${call.error}` : ''}`, element('small', {textContent: `${call.time_s.toFixed(2)} s  ${call.arguments}`}))));
    while (box.children.length > CALLS_MAX) box.firstElementChild.remove();
    if (follow) box.scrollTop = box.scrollHeight;
  }
  for (const id of ['calls-failed', 'calls-quiet']) {
    $(id).addEventListener('change', () => {
      lastCall = 0;
      $('calls').replaceChildren();
      loadCalls().catch(() => {});
    });
  }

  // ---- all of them ----

  const loaders = {planes: loadPlane, calls: loadCalls};
  tabsMake((name) => {
    shown = name;
    loaders[name]?.().catch(() => {});
    if (name === 'process' && $('log-follow').checked) $('log').scrollTop = $('log').scrollHeight;
  });
  setInterval(() => { if (shown === 'planes' && !document.hidden && store.connected) loadPlane().catch(() => {}); }, PLANE_EVERY_MS);
  setInterval(() => { if (shown === 'calls' && !document.hidden && store.connected) loadCalls().catch(() => {}); }, CALLS_EVERY_MS);

  return {
    showState(state) {
      showPosts(state);
      showScene(state);
      showProcess(state);
      showFaults(state);
    },
    addOutput,
    reset() {
      lastCall = 0;
      $('log').replaceChildren();
      $('calls').replaceChildren();
    },
  };
}
