// Splits a multipart stream, such as the live picture, into its parts.

const HEAD_MAX = 512; // bytes in which the headers of a part end

// Reads body to its end and calls onPart with the bytes of each part, one after the other.
export async function readParts(body, onPart) {
  const reader = body.getReader();
  const decoder = new TextDecoder('latin1');
  let buffer = new Uint8Array(0);
  for (;;) {
    const {done, value} = await reader.read();
    if (done) return;
    const joined = new Uint8Array(buffer.length + value.length);
    joined.set(buffer);
    joined.set(value, buffer.length);
    buffer = joined;
    for (;;) {
      const head = decoder.decode(buffer.subarray(0, HEAD_MAX));
      const end = head.indexOf('\r\n\r\n');
      const length = /content-length: *(\d+)/i.exec(head);
      if (end < 0 || !length || buffer.length < end + 4 + Number(length[1])) break;
      const stop = end + 4 + Number(length[1]);
      await onPart(buffer.slice(end + 4, stop));
      buffer = buffer.slice(stop + 2); // behind the line end that closes the part
    }
  }
}
