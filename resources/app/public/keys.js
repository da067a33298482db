// @ts-check
// The page's keyboard shortcuts. Each one presses what a mouse would (the new-thread and stop
// buttons, the search box, the thread list), so a shortcut does exactly what its button does.
// None of them is a key typing in the question box could mean: they take Ctrl (⌘ on a Mac) with
// Shift or a letter the box does not use, or Alt with an arrow.
import { listShown, showList } from './narrow.js';
import { byId, element } from './dom.js';
import { texts } from './texts.js';

const MAC = /Mac|iPhone|iPad/.test(navigator.platform);
const MOD = MAC ? '⌘' : 'Ctrl+';
const SHIFT = MAC ? '⇧' : 'Shift+';
const ALT = MAC ? '⌥' : 'Alt+';

/** What each shortcut is called in the page. */
const SHORTCUTS = {
  newThread: `${MOD}${SHIFT}O`,
  search: `${MOD}K`,
  stop: 'Esc',
  previous: `${ALT}↑`,
  next: `${ALT}↓`,
};

/** @param {KeyboardEvent} event */
const modifier = (event) => (MAC ? event.metaKey && !event.ctrlKey : event.ctrlKey && !event.metaKey);

/** The open thread's id, as the address says it (a turn may follow it after a "/"). */
function openThread() {
  return decodeURIComponent(location.hash.slice(1)).split('/')[0] ?? '';
}

/** Opens the thread before (-1) or after (1) the open one in the list, as it is shown. @param {-1 | 1} step */
function move(step) {
  const entries = [...document.querySelectorAll('#threads .thread-entry')].map((entry) => /** @type {HTMLElement} */ (entry).dataset.thread ?? '');
  if (entries.length === 0) return;
  const at = entries.indexOf(openThread());
  const next = at === -1 ? (step === 1 ? 0 : entries.length - 1) : Math.min(entries.length - 1, Math.max(0, at + step));
  if (entries[next] !== openThread()) location.hash = /** @type {string} */ (entries[next]);
}

function stop() {
  const button = /** @type {HTMLButtonElement} */ (byId('stop'));
  if (button.hidden || button.disabled) return false;
  button.click();
  return true;
}

/** @param {EventTarget | null} target */
function ownsEscape(target) {
  if (!(target instanceof HTMLElement) || target.id === 'question') return false;
  return target.isContentEditable || target instanceof HTMLInputElement || target instanceof HTMLTextAreaElement || target instanceof HTMLSelectElement;
}

/** @param {KeyboardEvent} event */
function onKey(event) {
  if (event.defaultPrevented || event.isComposing) return;
  let handled = false;
  if (modifier(event) && event.shiftKey && !event.altKey && event.code === 'KeyO') {
    byId('new-thread').click();
    handled = true;
  } else if (modifier(event) && !event.shiftKey && !event.altKey && event.code === 'KeyK') {
    showList(true);
    byId('search').focus();
    handled = true;
  } else if (event.altKey && !event.ctrlKey && !event.metaKey && !event.shiftKey && (event.key === 'ArrowUp' || event.key === 'ArrowDown')) {
    // On a Mac, ⌥↑ and ⌥↓ move the caret by paragraphs in a text box: there they stay its own.
    if (MAC && event.target instanceof HTMLTextAreaElement) return;
    move(event.key === 'ArrowUp' ? -1 : 1);
    handled = true;
  } else if (event.key === 'Escape' && !event.ctrlKey && !event.metaKey && !event.altKey) {
    // Esc in another box (the search, a title being renamed) is that box's: clearing, cancelling.
    if (ownsEscape(event.target)) return;
    if (listShown()) {
      showList(false);
      handled = true;
    } else {
      handled = stop();
    }
  }
  if (handled) event.preventDefault();
}

/** Names each shortcut in the help list and in the title of the button it stands for. */
function describe() {
  const names = texts.shortcuts;
  /** @type {[string, string, string | null][]} */
  const rows = [
    [names.newThread, SHORTCUTS.newThread, 'new-thread'],
    [names.search, SHORTCUTS.search, 'search'],
    [names.stop, SHORTCUTS.stop, 'stop'],
    [names.previous, SHORTCUTS.previous, null],
    [names.next, SHORTCUTS.next, null],
  ];
  byId('keys-list').replaceChildren(...rows.flatMap(([what, keys]) => {
    const value = element('dd');
    value.append(element('kbd', '', keys));
    return [element('dt', '', what), value];
  }));
  for (const [what, keys, id] of rows) {
    const target = id ? byId(id) : null;
    if (target && !target.title) target.title = texts.withShortcut(what, keys);
  }
}

export function installKeys() {
  describe();
  document.addEventListener('keydown', onKey);
}
