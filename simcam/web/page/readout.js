// The figures beside the picture: current value, the overlay's peak, the percentage, and what to do.
import {$, setText} from './dom.js';
import {announcerMake} from './announce.js';
import {cueFor, percentOf} from './focus.js';
import {overlayRuns} from './health.js';
import {historyTravel} from './history.js';

const ANNOUNCE_EVERY_MS = 2000;

// What to tell the person at the ring, as {kind, text}. keeper: whether a process keeps a peak.
export function cueNow(history, keeper, percent, health) {
  if (!keeper) {
    return {kind: 'none', text: health.noSession ? 'The overlay process has no session, so it shows no peak.' : 'No overlay process runs, so there is no peak.'};
  }
  return history.latest ? cueFor({...history.peak, percent}, history.latest.ring, historyTravel(history)) : {kind: 'none', text: ''};
}

export function readoutMake(threshold) {
  const announce = announcerMake((text) => setText($('cue-announced'), text), ANNOUNCE_EVERY_MS);
  const meter = $('meter');
  meter.querySelector('.line').style.left = `${threshold}%`;
  meter.querySelector('.line').title = `${threshold} %`;

  return {
    // Shows the history's latest measurement. Returns the ring position of the peak, or null.
    show(history, state, health) {
      const {latest, peak} = history;
      const keeper = state !== null && overlayRuns(state) && !health.noSession; // whether a process keeps a peak
      const percent = keeper && latest ? percentOf(latest.value, peak.value) : 0;
      setText($('current'), latest ? String(latest.value) : '–');
      if (latest) $('current').dataset.number = latest.number; // for tests: the measurement that is shown
      setText($('peak'), keeper ? String(peak.value || '---') : '–');
      setText($('percent'), keeper && peak.value ? `${percent} %` : '–');
      $('readout').classList.toggle('high', percent >= threshold);
      meter.querySelector('.fill').style.width = `${Math.min(100, percent)}%`;
      meter.setAttribute('aria-valuenow', String(Math.min(100, percent)));
      const {kind, text} = cueNow(history, keeper, percent, health);
      setText($('cue'), text);
      $('cue').className = `cue ${kind}`;
      announce(text);
      return keeper && peak.value ? peak.ring : null;
    },
  };
}
