// The lens: the ring and the controls of the sweep.
import {$, setPressed, setText} from './dom.js';
import {send} from './requests.js';
import {latestMake} from './latest.js';
import {ringMake} from './ring.js';

export function lensMake() {
  const position = latestMake((ring) => send('POST', '/api/ring', {ring}));
  const ring = ringMake($('ring'), (value) => {
    setText($('ring-value'), value.toFixed(3));
    position.send(value);
  });
  const period = $('sweep-period');
  let sweeping = false;
  let reported = 0; // the camera's period

  const sweep = (on) => send('POST', '/api/sweep', {on, period_s: Number(period.value)});
  $('sweep').addEventListener('click', () => sweep(!sweeping));
  period.addEventListener('change', () => {
    if (sweeping) sweep(true);
  });

  function showPeriod(seconds) {
    if (seconds === reported) return;
    reported = seconds;
    const find = () => [...period.options].find((option) => Number(option.value) === seconds);
    if (!find()) period.append(new Option(`${seconds} s`, String(seconds)));
    period.value = find().value;
  }

  return {
    showState(state) {
      sweeping = state.sweep;
      setPressed($('sweep'), sweeping);
      showPeriod(state.sweep_period_s);
    },
    // Draws the ring at the position of the latest measurement, unless a hand turns it.
    draw(latest) {
      if (latest && !ring.held && !position.leads(latest.ring)) {
        ring.show(latest.ring);
        setText($('ring-value'), latest.ring.toFixed(3));
      }
      ring.draw();
    },
    showPeak: ring.showPeak,
  };
}
