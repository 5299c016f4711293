import assert from 'node:assert/strict';
import {test} from 'node:test';
import {readParts} from '../../simcam/web/page/multipart.js';

const encoder = new TextEncoder();
const part = (bytes) => [...encoder.encode(`--frame\r\nContent-Type: image/jpeg\r\nContent-Length: ${bytes.length}\r\n\r\n`), ...bytes, 13, 10];

async function partsOf(bytes, chunk) {
  const stream = new ReadableStream({
    start(controller) {
      for (let at = 0; at < bytes.length; at += chunk) controller.enqueue(Uint8Array.from(bytes.slice(at, at + chunk)));
      controller.close();
    },
  });
  const parts = [];
  await readParts(stream, async (each) => { parts.push([...each]); });
  return parts;
}

test('parts come out whole, however the stream is cut', async () => {
  const wanted = [[1, 2, 3], [], [13, 10, 13, 10, 45, 45], Array.from({length: 2000}, (_, i) => i % 256)];
  const bytes = wanted.flatMap(part);
  for (const chunk of [1, 7, 100, bytes.length]) assert.deepEqual(await partsOf(bytes, chunk), wanted, `in pieces of ${chunk}`);
});

test('a part that the stream ends in is dropped', async () => {
  assert.deepEqual(await partsOf([...part([1, 2]), ...part([3, 4, 5]).slice(0, -4)], 9), [[1, 2]]);
});
