// Limits how often a live region changes, so that a screen reader can finish a sentence.

// Calls say(text) for a text that changed, at most once every periodMs. A text that comes too early is
// announced when the period is over, unless another one replaces it first or the old one returns.
export function announcerMake(say, periodMs, now = () => performance.now(), later = setTimeout) {
  let announced = '';
  let wanted = '';
  let next = -Infinity; // the earliest time of the next announcement
  let waiting = false;

  function announce() {
    if (waiting || wanted === announced) return;
    if (now() >= next) {
      announced = wanted;
      next = now() + periodMs;
      say(announced);
      return;
    }
    waiting = true;
    later(() => {
      waiting = false;
      announce();
    }, next - now());
  }

  return (text) => {
    wanted = text;
    announce();
  };
}
