// The tone, whose pitch follows the value.
import {pitchOf} from './focus.js';

const VOLUME = 0.06;

export function toneMake() {
  let context = null; // made at the first use: browsers allow sound only after a click
  let oscillator = null;
  let gain = null;
  let on = false;

  return {
    get on() { return on; },
    play(value) {
      if (on) oscillator.frequency.setTargetAtTime(pitchOf(value), context.currentTime, 0.04);
    },
    set(wanted) {
      on = wanted;
      if (on && !context) {
        context = new AudioContext();
        oscillator = context.createOscillator();
        gain = context.createGain();
        gain.gain.value = 0;
        oscillator.connect(gain).connect(context.destination);
        oscillator.start();
      }
      if (!context) return;
      context.resume();
      gain.gain.setTargetAtTime(on ? VOLUME : 0, context.currentTime, 0.03);
    },
  };
}
