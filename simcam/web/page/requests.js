// Requests to the camera, and the message that reports a refused one.
import {$} from './dom.js';

let toastTimer = 0;

export function toast(text, bad) {
  const box = $('toast');
  box.textContent = text;
  box.classList.toggle('bad', Boolean(bad));
  box.hidden = false;
  clearTimeout(toastTimer);
  toastTimer = setTimeout(() => { box.hidden = true; }, bad ? 6000 : 2500);
}

// Sends a command. Returns whether the camera accepted it; a refusal is shown as a message.
export async function send(method, path, body) {
  try {
    const answer = await fetch(path, {
      method,
      headers: body ? {'Content-Type': 'application/json'} : {},
      body: body ? JSON.stringify(body) : undefined,
    });
    if (answer.ok) return true;
    const refusal = await answer.json().catch(() => ({error: `status ${answer.status}`}));
    toast(refusal.error, true);
  } catch (error) {
    toast('The simulated camera does not answer.', true);
  }
  return false;
}

export async function getJson(path) {
  const answer = await fetch(path);
  return answer.json();
}
