// The panel of calls: what the overlay process asked of the library and the device.
import {$, element} from './dom.js';
import {getJson} from './requests.js';

const CALLS_MAX = 300; // calls kept on the page

function lineMake(call) {
  const failed = call.result !== 0;
  return element('div', {className: failed ? 'fail' : ''},
    `${call.call.replace('qm7_cl_', '')}${failed ? ` → ${call.error}` : ''}`,
    element('small', {textContent: `${call.time_s.toFixed(2)} s  ${call.arguments}`}));
}

export function callsPanelMake() {
  const box = $('calls');
  let last = 0;
  let reading = null; // one request at a time: two would add the same calls

  const wanted = (call) => (!$('calls-failed').checked || call.result !== 0) && (!$('calls-quiet').checked || call.call !== 'CAM_FOCUS_READ');

  async function read() {
    const from = last;
    const {calls} = await getJson(`/api/calls?after=${from}`);
    if (!calls.length || from !== last) return; // reset() was called meanwhile
    last = calls[calls.length - 1].number;
    const follow = box.scrollTop + box.clientHeight > box.scrollHeight - 30;
    box.append(...calls.filter(wanted).slice(-CALLS_MAX).map(lineMake));
    while (box.children.length > CALLS_MAX) box.firstElementChild.remove();
    if (follow) box.scrollTop = box.scrollHeight;
  }
  function load() {
    if (!reading) reading = read().catch(() => {}).finally(() => { reading = null; }); // the next load tries again
    return reading;
  }
  function reset() {
    last = 0;
    box.replaceChildren();
  }
  for (const id of ['calls-failed', 'calls-quiet']) {
    $(id).addEventListener('change', async () => {
      await reading;
      reset();
      load();
    });
  }

  return {load, reset, everyMs: 700};
}
