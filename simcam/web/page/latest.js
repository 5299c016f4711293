// Sends the values of a control while somebody moves it: one request at a time, the latest value wins. Requests side by
// side may arrive in another order.

const REQUEST_EVERY_MS = 33;
const REPORT_MS = 3000; // how long the camera may take to report the new value

export function latestMake(send, now = () => performance.now(), later = setTimeout) {
  let wanted = null; // the value to send next
  let busy = false;
  let sent = null;   // the value that was sent and not reported yet
  let until = 0;

  async function transmit() {
    if (busy || wanted === null) return;
    busy = true;
    const value = wanted;
    wanted = null;
    sent = await send(value) ? value : null;
    until = now() + REPORT_MS;
    later(() => {
      busy = false;
      transmit();
    }, REQUEST_EVERY_MS);
  }

  return {
    send(value) {
      wanted = value;
      transmit();
    },
    // Whether the control stays where the hand put it, instead of following the value that the camera reports.
    leads(reported) {
      if (busy || wanted !== null) return true;
      if (sent !== null && (Math.abs(reported - sent) < 1e-6 || now() >= until)) sent = null;
      return sent !== null;
    },
  };
}
