// Finds text that overlaps or is cut off and controls that cannot be reached, in the page's current layout, with one
// panel after the other open. The browser test runs this file as the body of a function. It returns a list of
// sentences, one for each finding.

const [tabs] = arguments; // names of the panels
const TOLERANCE = 1;      // CSS pixels
const LETTER_PART = 0.6;  // height of the letters / height of the line: the space above and below may overlap

let findings = [];
const name = (e) => `${e.tagName.toLowerCase()}${e.id ? `#${e.id}` : ''} "${(e.getAttribute('aria-label') || e.textContent || '').trim().slice(0, 30)}"`;
const isShown = (e) => e.checkVisibility({visibilityProperty: true}) && !e.closest('.only-heard, [hidden]');
const overflow = (e) => getComputedStyle(e).overflowY;
const scrolls = (e) => ['auto', 'scroll'].includes(overflow(e));
const clips = (e) => ['hidden', 'clip'].includes(overflow(e));

function ancestors(e) {
  const list = [];
  for (let up = e.parentElement; up && up !== document.body; up = up.parentElement) list.push(up);
  return list;
}
function inside(rect, box) {
  return rect.left >= box.left - TOLERANCE && rect.right <= box.right + TOLERANCE
    && rect.top >= box.top - TOLERANCE && rect.bottom <= box.bottom + TOLERANCE;
}
function cut(rect, box) {
  return {left: Math.max(rect.left, box.left), right: Math.min(rect.right, box.right), top: Math.max(rect.top, box.top), bottom: Math.min(rect.bottom, box.bottom)};
}
const overlap = (a, b) => Math.min(a.right, b.right) - Math.max(a.left, b.left) > TOLERANCE
  && Math.min(a.bottom, b.bottom) - Math.max(a.top, b.top) > TOLERANCE;
const view = {left: 0, top: 0, right: innerWidth, bottom: innerHeight};
const start = (node) => `"${node.data.trim().slice(0, 30)}"`;

// Every control is inside what can be seen or scrolled to, and nothing covers it.
function checkControls(part) {
  const controls = [...part.querySelectorAll('a[href], button, input, select, [tabindex]')]
    .filter((e) => e.tabIndex >= 0 && !e.disabled && (isShown(e) || e.classList.contains('skip')));
  for (const control of controls) {
    control.focus({preventScroll: true});
    control.scrollIntoView({block: 'nearest', inline: 'nearest'});
    const rect = control.getBoundingClientRect();
    if (rect.width < 8 || rect.height < 8) findings.push(`${name(control)} has no size`);
    let seen = cut(rect, view);
    for (const box of ancestors(control)) {
      if (!clips(box) && !scrolls(box)) continue;
      const frame = box.getBoundingClientRect();
      if (clips(box) && !inside(rect, frame)) findings.push(`${name(control)} is cut off by ${name(box)}`);
      if (clips(box) && (box.scrollTop || box.scrollLeft)) findings.push(`${name(box)} hides what ${name(control)} scrolled to`);
      seen = cut(seen, frame);
    }
    const fits = rect.height <= innerHeight && ancestors(control).filter(scrolls).every((box) => rect.height <= box.clientHeight);
    if (fits && !inside(rect, seen)) findings.push(`${name(control)} cannot be scrolled into view`);
    const hit = document.elementFromPoint((seen.left + seen.right) / 2, (seen.top + seen.bottom) / 2);
    if (!control.contains(hit)) findings.push(`${name(control)} is covered by ${hit ? name(hit) : 'nothing'}`);
  }
  document.activeElement.blur();
  for (const box of document.querySelectorAll('*')) {
    if (scrolls(box) || box === document.documentElement) box.scrollTo(0, 0);
    if (scrolls(box) && isShown(box) && box.scrollWidth > box.clientWidth + TOLERANCE) findings.push(`${name(box)} scrolls sideways`);
  }
  scrollTo(0, 0);
  if (document.documentElement.scrollWidth > innerWidth) findings.push('the page scrolls sideways');
}

// No text is cut off, no two texts overlap.
function checkTexts() {
  const texts = [];
  const walker = document.createTreeWalker(document.body, NodeFilter.SHOW_TEXT);
  while (walker.nextNode()) {
    const node = walker.currentNode;
    const parent = node.parentElement;
    if (!node.data.trim() || !isShown(parent) || parent.closest('select, script, .skip')) continue;
    const range = document.createRange();
    range.selectNodeContents(node);
    const boxes = [parent, ...ancestors(parent)];
    const scroller = boxes.find(scrolls) ?? null;
    const fixed = boxes.find((box) => getComputedStyle(box).position === 'fixed')?.getBoundingClientRect();
    for (const line of range.getClientRects()) {
      const spare = line.height * (1 - LETTER_PART) / 2;
      const rect = {left: line.left, right: line.right, top: line.top + spare, bottom: line.bottom - spare};
      const clip = boxes.slice(0, scroller ? boxes.indexOf(scroller) : boxes.length).find((box) => clips(box) && !inside(rect, box.getBoundingClientRect()));
      if (clip) findings.push(`the text ${start(node)} is cut off by ${name(clip)}`);
      if (fixed && !(inside(fixed, view) && (scroller || inside(rect, fixed)))) findings.push(`the text ${start(node)} is not in view`);
      const seen = boxes.filter((box) => scrolls(box) || clips(box)).reduce((part, box) => cut(part, box.getBoundingClientRect()), rect);
      texts.push({node, scroller, fixed, rect, seen});
    }
  }
  const scrolled = document.documentElement.scrollHeight - innerHeight; // where the page ends
  texts.forEach((a, i) => {
    for (const b of texts.slice(i + 1)) {
      if (a.node === b.node) continue;
      let boxes = [a.seen, b.seen];
      if (a.fixed || b.fixed) { // what it covers can be scrolled out from under it, or not even at the end of the page
        boxes = [a, b].map(({fixed, seen}) => fixed ?? {...seen, top: seen.top - scrolled, bottom: seen.bottom - scrolled});
      } else if (a.scroller === b.scroller) { // also what is scrolled out of view
        boxes = [a.rect, b.rect];
      }
      if (overlap(...boxes)) findings.push(`the texts ${start(a.node)} and ${start(b.node)} overlap`);
    }
  });
  if (texts.length < 20) findings.push(`only ${texts.length} texts`); // the search itself works
}

// The first screen shows the picture and the ring.
function checkFirstScreen() {
  for (const id of ['picture', 'ring']) {
    const rect = document.getElementById(id).getBoundingClientRect();
    if (!inside(rect, view)) findings.push(`#${id} is not on the first screen: ${Math.round(rect.top)} to ${Math.round(rect.bottom)} of ${innerHeight}`);
    if (rect.width < 280 || rect.height < 70) findings.push(`#${id} is only ${rect.width} x ${rect.height}`);
  }
}

const all = tabs.flatMap((tab, i) => {
  findings = [];
  document.getElementById(`tab-${tab}`).click();
  checkControls(i === 0 ? document : document.querySelector('.side')); // the other parts stay as they are
  checkTexts();
  checkFirstScreen();
  return findings.map((finding) => `${tab}: ${finding}`);
});
document.getElementById('tab-posts').click();
return all;
