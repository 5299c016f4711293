// The panel of posts: each one's size, its switch, and its open planes.
import {$, element, setText} from './dom.js';
import {send} from './requests.js';

const OWN = 'own'; // the entry of the list that opens the input for another size

const sizeText = (width, height) => `${width} × ${height}`;

// The lines that describe the planes of a post.
export function planesText(post) {
  if (!post.running) return 'Off.';
  const lines = post.planes.flatMap((plane, i) => (plane.open
    ? [`Plane ${i}: ${sizeText(plane.width, plane.height)} at ${plane.x}, ${plane.y}${plane.shown ? '' : ', not shown'}`] : []));
  return lines.length ? lines.join('\n') : 'Running, no plane is open.';
}

// What became of reports of starts and stops that a program did not read in time.
export function mergedText(count) {
  return count ? `${count} reports of starts and stops were merged because a program did not read them. The last state of each post is always reported.` : '';
}

function postMake(number, sizes) {
  const size = element('select', {'aria-label': `Size of post ${number}`},
    ...sizes.map(([width, height]) => element('option', {value: `${width}x${height}`, textContent: sizeText(width, height)})),
    element('option', {value: OWN, textContent: 'Another size …'}));
  const power = element('button', {
    type: 'button', className: 'switch', role: 'switch', 'aria-checked': 'false', 'aria-label': `Post ${number}`, textContent: 'Off',
  });
  const input = element('input', {
    type: 'text', placeholder: '640x480', pattern: '[0-9]+x[0-9]+', required: true, 'aria-label': `Another size of post ${number}, width x height`,
  });
  const own = element('form', {className: 'own joined', hidden: true}, input, element('button', {type: 'submit', textContent: 'Set'}));
  const planes = element('p', {className: 'fine planes'});
  $('posts').append(element('div', {className: 'post'}, element('header', {}, element('b', {textContent: `Post ${number}`}), size, power), own, planes));
  const start = (wanted) => send('POST', `/api/posts/${number}/start`, wanted && {size: wanted});
  let state = null;

  power.addEventListener('click', () => {
    if (state?.running) send('POST', `/api/posts/${number}/stop`);
    else start(size.value === OWN ? undefined : size.value);
  });
  size.addEventListener('change', () => {
    own.hidden = size.value !== OWN;
    if (size.value === OWN) input.focus();
    else if (state?.running) start(size.value);
  });
  own.addEventListener('submit', async (event) => {
    event.preventDefault();
    if (await start(input.value)) own.hidden = true;
  });

  return (now) => {
    const before = state;
    state = now;
    power.setAttribute('aria-checked', String(now.running));
    setText(power, now.running ? 'On' : 'Off');
    if (now.width && (!before || before.width !== now.width || before.height !== now.height)) {
      const value = `${now.width}x${now.height}`;
      if (![...size.options].some((option) => option.value === value)) {
        size.insertBefore(element('option', {value, textContent: sizeText(now.width, now.height)}), size.lastElementChild);
      }
      size.value = value;
    }
    setText(planes, planesText(now));
  };
}

export function postsPanelMake(sizes) {
  const posts = [];
  const merged = element('p', {className: 'fine', id: 'merged', hidden: true});
  $('posts').after(merged);
  return {
    showState(state) {
      state.posts.forEach((now, number) => {
        if (!posts[number]) posts[number] = postMake(number, sizes);
        posts[number](now);
      });
      merged.hidden = !state.merged_reports;
      setText(merged, mergedText(state.merged_reports));
    },
  };
}
