// The tabs at the side, with the keys that tabs have.
import {$} from './dom.js';

// Calls onShow with the name of the panel that a person chose ("posts").
export function tabsMake(onShow) {
  const tabs = [...document.querySelectorAll('[role=tab]')];
  function show(tab) {
    for (const each of tabs) {
      const chosen = each === tab;
      each.setAttribute('aria-selected', String(chosen));
      each.tabIndex = chosen ? 0 : -1;
      $(each.getAttribute('aria-controls')).hidden = !chosen;
    }
    onShow(tab.id.slice('tab-'.length));
  }
  tabs.forEach((tab, i) => {
    tab.addEventListener('click', () => show(tab));
    tab.addEventListener('keydown', (event) => {
      const next = {ArrowRight: i + 1, ArrowLeft: i - 1, Home: 0, End: tabs.length - 1}[event.key];
      if (next === undefined) return;
      event.preventDefault();
      const other = tabs[(next + tabs.length) % tabs.length];
      show(other);
      other.focus();
    });
  });
}
