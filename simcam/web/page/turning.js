// Sends ring positions to the camera while somebody turns the ring: one request at a time, the last position wins.

const REQUEST_EVERY_MS = 33;
const REPORT_MS = 3000; // how long the camera may take to measure at the new position

export function turningMake(send, now = () => performance.now(), later = setTimeout) {
  let wanted = null; // the position to send next
  let busy = false;
  let sent = null;   // the position that was sent and not measured yet
  let until = 0;

  async function transmit() {
    if (busy || wanted === null) return;
    busy = true;
    const ring = wanted;
    wanted = null;
    sent = await send(ring) ? ring : null;
    until = now() + REPORT_MS;
    later(() => {
      busy = false;
      transmit();
    }, REQUEST_EVERY_MS);
  }

  return {
    turn(ring) {
      wanted = ring;
      transmit();
    },
    // Whether the ring stays where the hand put it, instead of following the position of the last measurement.
    leads(measuredRing) {
      if (busy || wanted !== null) return true;
      if (sent !== null && (Math.abs(measuredRing - sent) < 1e-6 || now() >= until)) sent = null;
      return sent !== null;
    },
  };
}
