// Helpers for the document that several modules need.

export const $ = (id) => document.getElementById(id);

// Creates an element. Attributes that are properties of the element are set as such.
export function element(name, attributes = {}, ...children) {
  const made = document.createElement(name);
  for (const [key, value] of Object.entries(attributes)) {
    if (key in made && key !== 'role') made[key] = value;
    else made.setAttribute(key, value);
  }
  made.append(...children);
  return made;
}

// Leaves a text that is already right alone, so that it stays selected and is not announced again.
export function setText(node, text) {
  if (node.textContent !== text) node.textContent = text;
}

export function setPressed(button, pressed) {
  button.setAttribute('aria-pressed', String(pressed));
}

// A button that is pressed or not.
export function onToggle(button, onChange) {
  button.addEventListener('click', () => {
    const pressed = button.getAttribute('aria-pressed') !== 'true';
    setPressed(button, pressed);
    onChange(pressed);
  });
}

// Without a target, a link is disabled: the keyboard does not reach it either.
export function setLink(link, target) {
  if (target) link.setAttribute('href', target);
  else link.removeAttribute('href');
  link.setAttribute('aria-disabled', String(!target));
}

// Shows [name, value] pairs in a description list.
export function setFacts(list, facts) {
  const wanted = facts.flatMap(([name, value]) => [name, String(value)]);
  if (list.children.length !== wanted.length) {
    list.replaceChildren(...facts.flatMap(([name]) => [element('dt', {textContent: name}), element('dd')]));
  }
  wanted.forEach((text, i) => setText(list.children[i], text));
}
