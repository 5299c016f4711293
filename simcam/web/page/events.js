// The stream of events from the camera. Opens it again when it breaks.

const RETRY_MS = 2000;
const KINDS = ['state', 'measurement', 'output'];

// handlers: hello, state, measurement and output get the event's data; lost() is called when the camera does not
// answer. hidden() says whether a page in the background may close its stream.
export function eventsMake(handlers, hidden) {
  let source = null;

  function listen() {
    if (source) return;
    source = new EventSource(`/api/events?kinds=${KINDS.join()}`);
    for (const kind of ['hello', ...KINDS]) source.addEventListener(kind, (event) => handlers[kind](JSON.parse(event.data)));
    source.addEventListener('error', () => {
      handlers.lost();
      if (source && source.readyState === EventSource.CLOSED) { // refused: the browser does not try again by itself
        source = null;
        setTimeout(listen, RETRY_MS);
      }
    });
  }

  // A browser has only six connections to a server for all its pages: a page in the background gives up its own.
  document.addEventListener('visibilitychange', () => {
    if (!document.hidden) {
      listen();
    } else if (source && hidden()) {
      source.close();
      source = null;
    }
  });
  listen();
}
