// The state of camera and overlay in words: the chips at the top, the notice above the picture, the veil over it.
import {$, setLink, setText} from './dom.js';
import {getJson, send} from './requests.js';
import {noticeFor, processChip} from './health.js';

const STOP_TRIES = 50; // 0.1 s apart

function showChip(id, kind, text) {
  $(id).className = `chip ${kind}`;
  setText($(id).querySelector('span'), text);
}

async function restartProcess() {
  if (!await send('POST', '/api/process/stop')) return;
  for (let i = 0; i < STOP_TRIES; i += 1) { // while it still runs, the camera refuses to start another one
    const process = await getJson('/api/process').catch(() => ({running: true}));
    if (!process.running) break;
    await new Promise((resolve) => { setTimeout(resolve, 100); });
  }
  await send('POST', '/api/process/start');
}

async function restartPost(post) {
  if (await send('POST', `/api/posts/${post}/stop`)) await send('POST', `/api/posts/${post}/start`);
}

const ACTIONS = {
  start: () => send('POST', '/api/process/start'),
  restart: restartProcess,
  posts: ({posts}) => posts.forEach(restartPost),
};

export function statusMake(picture, view) {
  const notice = {box: $('notice'), text: $('notice').querySelector('span'), button: $('notice').querySelector('button')};
  const veil = {box: $('veil'), text: $('veil').querySelector('span'), button: $('veil').querySelector('button')};
  let trouble = null;
  notice.button.addEventListener('click', () => ACTIONS[trouble?.action]?.(trouble));
  veil.button.addEventListener('click', () => send('POST', `/api/posts/${view.post()}/start`));

  // Covers a picture that is not live.
  function showVeil(connected, number, post) {
    const off = post !== null && !post.running;
    veil.box.hidden = connected && !off;
    $('tiles').hidden = !veil.box.hidden || picture.view !== 'all';
    const text = off ? `Post ${number} is off.` : '';
    setText(veil.text, connected ? text : 'The simulated camera does not answer. Trying again …');
    veil.button.hidden = !connected || !off || !post.width;
    setText(veil.button, off ? `Start it at ${post.width} × ${post.height}` : '');
    const name = post ? `posts/${number}` : picture.view;
    setLink($('snapshot'), connected && !off && `/api/${name}/frame.png?download=1`);
  }

  return {
    // state is null until the camera has reported one.
    show(state, health, connected) {
      showChip('chip-link', connected ? 'good' : 'bad', connected ? `${(state?.measured_rate_hz ?? 0).toFixed(0)} values/s` : 'no answer');
      const number = view.post();
      const post = state && number !== null ? state.posts[number] : null;
      showVeil(connected, number, post);
      if (!state) return;
      showChip('chip-process', ...processChip(state, health));
      trouble = noticeFor(state, health, picture.view);
      notice.box.hidden = !trouble || !connected;
      setText(notice.text, trouble?.text ?? '');
      setText(notice.button, trouble?.label ?? '');
      notice.button.hidden = !trouble?.label;
      const facts = [];
      if (post) facts.push(post.running ? `${post.width} × ${post.height}` : 'off');
      if ((!post || post.running) && picture.rate > 0) facts.push(`${picture.rate} pictures/s`);
      setText($('facts'), facts.join(' · '));
    },
  };
}
