// Finds out what keeps the readout from being drawn, from the states that the camera reports.

const STILL_S = 3; // a text that is not drawn again for this long has stopped
const START_S = 3; // a process without a session with the camera after this long will not get one

export function healthNew(textPlane) {
  return {
    textPlane,            // number of the plane with the text
    texts: [],            // of each post: how often its text was shown, and since when it has not changed
    aloneSince: null,     // since when a process has run without a session, by the camera's clock
    starts: 0,            // which process that is
    noSession: false,     // whether it will not get one
  };
}

export function healthStep(health, state) {
  state.posts.forEach((post, i) => {
    const text = post.planes[health.textPlane];
    const shows = post.running && text.open ? text.shows : -1; // -1: no text
    if (!health.texts[i] || shows !== health.texts[i].shows || shows < 0) health.texts[i] = {shows, since: state.time_s};
  });
  const {process} = state;
  if (!process.running || process.attached) health.aloneSince = null;
  else if (health.aloneSince === null || health.starts !== process.starts) health.aloneSince = state.time_s;
  health.starts = process.starts;
  health.noSession = health.aloneSince !== null && state.time_s - health.aloneSince > START_S;
}

// Whether an overlay process runs, started by the camera or by somebody else.
export function overlayRuns(state) {
  return state.process.running || state.process.attached;
}

// The state of the process as [kind, text].
export function processChip(state, health) {
  const {process} = state;
  if (!overlayRuns(state)) return ['bad', 'not running'];
  if (process.attached) return ['good', `running, pid ${process.pid}`];
  return health.noSession ? ['bad', 'no session'] : ['wait', 'starting'];
}

// The first trouble as {text, label, action, posts}: label is the text of the button that helps, action what the
// button does ('start', 'restart', 'posts'; posts: which ones). null without trouble. view is what the page shows.
export function noticeFor(state, health, view) {
  const {process} = state;
  if (!overlayRuns(state)) {
    return process.configured
      ? {text: `The overlay process is not running: ${process.last_end || 'not started yet'}.`, label: 'Start it', action: 'start'}
      : {text: 'No overlay process is attached, so nothing is drawn on the picture.', label: '', action: ''};
  }
  if (health.noSession) {
    return {text: 'The overlay process has no session with the camera and cannot draw. Start it again.', label: 'Start again', action: 'restart'};
  }
  const age = (i) => state.time_s - health.texts[i].since;
  const stopped = health.texts.map((_, i) => i).filter((i) => health.texts[i].shows >= 0 && age(i) > STILL_S);
  const seen = stopped.find((i) => view === String(i) || view === 'all');
  if (seen === undefined) return null;
  const left = process.starts > 1 ? ' The previous process left its planes open.' : '';
  return {
    text: `The text of post ${seen} has not changed for ${Math.floor(age(seen))} s.${left}`,
    label: stopped.length > 1 ? `Restart ${stopped.length} posts` : 'Restart the post',
    action: 'posts',
    posts: stopped,
  };
}
