// Chooses what the picture shows: one post, all four, or the sensor; with the toggles below the picture.
import {$, element, onToggle, setPressed, setText} from './dom.js';

const isPost = (view) => /^\d$/.test(view);

export function viewMake(picture, onChange) {
  const buttons = [...$('views').children];
  const names = {all: 'all four posts', sensor: 'what the sensor sees'};

  function choose(view) {
    for (const button of buttons) setPressed(button, button.dataset.view === view);
    picture.set({view});
    $('toggle-planes').disabled = view === 'sensor';
    $('picture').setAttribute('aria-label', `Live picture: ${isPost(view) ? `post ${view}` : names[view]}`);
    onChange();
  }
  for (const button of buttons) button.addEventListener('click', () => choose(button.dataset.view));

  const tiles = buttons.map((button) => button.dataset.view).filter(isPost).map((post) => {
    const tile = element('button', {type: 'button', 'aria-label': `Show post ${post} alone`}, element('span'));
    tile.addEventListener('click', () => choose(post));
    return tile;
  });
  $('tiles').append(...tiles);

  onToggle($('toggle-planes'), (planes) => picture.set({planes}));
  onToggle($('toggle-peaking'), (peaking) => picture.set({peaking}));
  onToggle($('toggle-loupe'), (loupe) => picture.set({loupe}));

  return {
    choose,
    // The post that is shown alone, or null.
    post: () => (isPost(picture.view) ? Number(picture.view) : null),
    showState(state) {
      tiles.forEach((tile, i) => {
        const post = state.posts[i];
        setText(tile.firstChild, post.running ? `Post ${i} · ${post.width} × ${post.height}` : `Post ${i}`);
      });
    },
  };
}
