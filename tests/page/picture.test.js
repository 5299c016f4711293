import assert from 'node:assert/strict';
import {test} from 'node:test';
import {streamUrl} from '../../simcam/web/page/picture.js';

const WANTED = {view: '2', planes: true, peaking: false, loupe: false};

// The path and the parameters of the stream's address.
function stream(changes, dots = 800) {
  const url = new URL(streamUrl({...WANTED, ...changes}, dots), 'http://camera');
  return {path: url.pathname, ...Object.fromEntries(url.searchParams)};
}

test('each view has a stream', () => {
  assert.deepEqual(stream({}), {path: '/api/posts/2/stream.mjpeg', fps: '20', quality: '80', planes: '1', width: '800'});
  assert.equal(stream({view: 'all'}).path, '/api/all/stream.mjpeg');
  assert.equal(stream({view: 'sensor'}).path, '/api/sensor/stream.mjpeg');
});

test('planes can be left out, and the sensor has none', () => {
  assert.equal(stream({planes: false}).planes, '0');
  assert.equal(stream({view: 'all', planes: false}).planes, '0');
  assert.equal('planes' in stream({view: 'sensor'}), false);
});

test('the width is that of the viewer, rounded up to a multiple of 160, at least 320', () => {
  for (const [dots, width] of [[0, '320'], [320, '320'], [321, '480'], [800, '800'], [800.5, '960']]) {
    assert.equal(stream({}, dots).width, width, `${dots} dots`);
  }
});

test('the loupe gets the picture unscaled and sharper', () => {
  assert.deepEqual(stream({loupe: true}), {path: '/api/posts/2/stream.mjpeg', fps: '20', quality: '90', planes: '1'});
});
