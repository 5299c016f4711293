// The panel of the overlay process: its state, its buttons, and what it writes.
import {$, element, setFacts} from './dom.js';
import {send} from './requests.js';
import {overlayRuns} from './health.js';

const LOG_MAX = 2000; // pieces of output kept on the page

function stateText(process, health) {
  if (!process.running) return process.attached ? 'attached, started elsewhere' : 'not running';
  if (process.attached) return 'running, attached';
  return health.noSession ? 'running without a session' : 'running, not attached yet';
}

export function processPanelMake() {
  const log = $('log');
  for (const name of ['start', 'stop', 'kill']) $(`process-${name}`).addEventListener('click', () => send('POST', `/api/process/${name}`));
  $('log-clear').addEventListener('click', () => log.replaceChildren());
  log.append(element('span', {className: 'say', textContent: 'Nothing yet. The overlay writes only when something fails.'}));

  const follow = () => {
    if ($('log-follow').checked) log.scrollTop = log.scrollHeight;
  };

  return {
    showState(state, health) {
      const {process} = state;
      setFacts($('process-facts'), [
        ['State', stateText(process, health)],
        ['Process id', process.pid || '–'],
        ['CPU', process.running ? `${process.cpu_percent.toFixed(1)} %` : '–'],
        ['Memory', process.running ? `${(process.resident_bytes / 1048576).toFixed(1)} MiB` : '–'],
        ['Started', `${process.starts} ${process.starts === 1 ? 'time' : 'times'}`],
        ['Last end', process.last_end || '–'],
      ]);
      $('process-start').disabled = !process.configured || process.running;
      $('process-stop').disabled = !process.running;
      $('process-kill').disabled = !process.running;
      $('tab-process').classList.toggle('alert', health.noSession || !overlayRuns(state));
    },
    addOutput(chunk) {
      if (log.firstElementChild?.classList.contains('say')) log.replaceChildren();
      log.append(element('span', {className: chunk.stream === 2 ? 'err' : 'out', textContent: chunk.text}));
      while (log.children.length > LOG_MAX) log.firstElementChild.remove();
      follow();
    },
    load: follow,
    reset() {
      log.replaceChildren();
    },
  };
}
