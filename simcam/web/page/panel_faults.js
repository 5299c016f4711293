// The panel of faults: calls that are made to fail or to take longer.
import {$, element, setText} from './dom.js';
import {getJson, send, toast} from './requests.js';

const AT_START = 'used when the process starts';
const AT_POST = 'used when a post starts';
const AT_FAILURE = 'used when a start fails';
const NEVER = 'never used by the overlay';

// When the overlay makes the calls that it does not make at every redraw or reading.
const OCCASIONS = {
  open: AT_START, CAM_FOCUS_CONFIG: AT_START, qm7_cl_library_init: AT_START, qm7_cl_sys_open_device: AT_START,
  qm7_cl_post_notify_callback: AT_START, qm7_cl_post_set_notify: AT_START,
  qm7_cl_post_get_osd_color_mem: AT_START, qm7_cl_post_set_osd_color: AT_START,
  qm7_cl_post_thread_get_status: AT_POST, qm7_cl_post_open_osd: AT_POST,
  qm7_cl_post_clear_osd: NEVER, qm7_cl_post_close_osd: NEVER,
  qm7_cl_library_exit: AT_FAILURE, qm7_cl_sys_close_device: AT_FAILURE,
};

// What a fault does to its call, how long it lasts, and how often it was hit.
export function faultText(fault) {
  const does = [];
  if (Number(fault.error) !== 0) does.push(`fails with ${fault.error}`);
  if (fault.delay_ms) does.push(`takes ${fault.delay_ms} ms longer`);
  const left = fault.remaining === 'forever' ? 'forever' : `${fault.remaining} more`;
  const when = fault.hits === 0 && OCCASIONS[fault.call] ? OCCASIONS[fault.call] : `hit ${fault.hits} ${fault.hits === 1 ? 'time' : 'times'}`;
  return ` ${does.join(' and ')}: ${left}, ${when}`;
}

function cardMake(call) {
  const clear = element('button', {type: 'button', className: 'link', textContent: 'Clear', 'aria-label': `Clear the fault of ${call}`});
  clear.addEventListener('click', () => send('POST', '/api/faults', {call, remaining: 0}));
  const text = element('span');
  return {text, box: element('div', {className: 'card'}, element('div', {}, element('b', {textContent: call}), text), clear)};
}

// codes: {code, tolerated} of the errors that the overlay treats in a way of their own.
export function faultsPanelMake(codes) {
  const cards = new Map(); // kept by call, so that a button keeps the focus while the numbers of its card change
  const errors = $('fault-error');
  errors.prepend(...codes.map(({code, tolerated}) => element('option', {value: code, textContent: `${code} · ${tolerated ? 'tolerated' : 'reported'} by the overlay`})));
  errors.selectedIndex = 0;
  errors.addEventListener('change', () => { $('fault-own').hidden = errors.value !== 'own'; });

  $('fault-form').addEventListener('submit', (event) => {
    event.preventDefault();
    const error = errors.value === 'own' ? $('fault-code').value : errors.value;
    const count = $('fault-count').value;
    const delay = Number($('fault-delay').value);
    if (Number(error) === 0 && delay === 0) {
      toast('A fault without an error needs a delay.', true);
      return;
    }
    send('POST', '/api/faults', {
      call: $('fault-call').value, error, remaining: count === 'forever' ? count : Number(count), delay_ms: delay,
    });
  });
  $('fault-clear').addEventListener('click', async () => {
    if (await send('DELETE', '/api/faults')) toast('All faults are cleared.');
  });
  getJson('/api/faults').then(({calls}) => {
    $('fault-call').replaceChildren(...calls.map((call) => element('option', {value: call, textContent: call})));
  }).catch(() => {});

  return {
    showState(state) {
      const calls = state.faults.map((fault) => fault.call);
      for (const [call, card] of cards) {
        if (calls.includes(call)) continue;
        card.box.remove();
        cards.delete(call);
      }
      for (const fault of state.faults) {
        if (!cards.has(fault.call)) {
          cards.set(fault.call, cardMake(fault.call));
          $('faults').append(cards.get(fault.call).box);
        }
        setText(cards.get(fault.call).text, faultText(fault));
      }
      $('faults-none').hidden = cards.size > 0;
      $('tab-faults').classList.toggle('alert', cards.size > 0);
    },
  };
}
