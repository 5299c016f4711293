// The panel of the scene: what the camera looks at, and the light.
import {$, element, setFacts, setPressed, setText} from './dom.js';
import {latestMake} from './latest.js';
import {send} from './requests.js';

// scenes: names of the built-in scenes. gain: {least, most}. noise: {least, most, default}. onFlash is called after a
// flash.
export function scenePanelMake({scenes, gain: gains, noise: noises}, onFlash) {
  const setScene = (scene) => send('POST', '/api/scene', {scene});
  const buttons = scenes.map((name) => {
    const button = element('button', {type: 'button', 'aria-pressed': 'false', textContent: name[0].toUpperCase() + name.slice(1)});
    button.dataset.scene = name;
    button.addEventListener('click', () => setScene(name));
    return button;
  });
  $('scenes').append(...buttons);
  $('scene-form').addEventListener('submit', (event) => {
    event.preventDefault();
    if ($('scene-path').value.trim()) setScene($('scene-path').value.trim());
  });

  const sendGain = latestMake((gain) => send('POST', '/api/gain', {gain})).send;
  const showGain = (gain) => setText($('gain-value'), `${gain.toFixed(2)}×`);
  // The slider moves in quarters of a stop that the camera accepts.
  $('gain').min = Math.ceil(4 * Math.log2(gains.least)) / 4;
  $('gain').max = Math.floor(4 * Math.log2(gains.most)) / 4;
  $('gain').addEventListener('input', () => showGain(2 ** Number($('gain').value)));
  $('gain').addEventListener('change', () => sendGain(2 ** Number($('gain').value)));
  $('gain-reset').addEventListener('click', () => sendGain(1));
  const sendNoise = latestMake((noise) => send('POST', '/api/noise', {noise})).send;
  const showNoise = (noise) => setText($('noise-value'), noise ? `${noise.toFixed(1)} of 255` : 'none');
  $('noise').min = noises.least;
  $('noise').max = noises.most;
  $('noise').value = noises.default;
  showNoise(noises.default);
  $('noise').addEventListener('input', () => showNoise(Number($('noise').value)));
  $('noise').addEventListener('change', () => sendNoise(Number($('noise').value)));
  $('flash').addEventListener('click', async () => {
    if (await send('POST', '/api/flash')) onFlash();
  });

  return {
    showState(state) {
      for (const button of buttons) setPressed(button, button.dataset.scene === state.scene);
      if (document.activeElement !== $('gain')) $('gain').value = String(Math.log2(state.gain));
      showGain(state.gain);
      if (document.activeElement !== $('noise')) $('noise').value = String(state.noise);
      showNoise(state.noise);
      setFacts($('camera-facts'), [
        ['Scene', state.scene], ['Measurements', `${state.measured_rate_hz.toFixed(1)} of ${state.rate_hz.toFixed(0)} a second`],
        ['Blur disc', `${state.latest.blur_px.toFixed(2)} dots`], ['Configured by overlay', state.focus_configured ? 'yes' : 'no'],
        ['Line alignment', `${state.pitch_align} bytes`], ['Seed', state.seed], ['Run directory', state.run_directory || '–'],
      ]);
    },
  };
}
