// @ts-check
// In a narrow window the thread list folds away: the menu button shows it over the thread, and
// choosing a thread, the scrim or Esc puts it away again.

/** Where the list folds; the same width as the media query in reading.css. */
export const NARROW = '(max-width: 720px)';

const layout = () => /** @type {HTMLElement} */ (document.querySelector('.layout'));
const menu = () => /** @type {HTMLButtonElement} */ (document.getElementById('menu'));
const scrim = () => /** @type {HTMLElement} */ (document.getElementById('scrim'));

export function listShown() {
  return layout().classList.contains('list-open');
}

/** @param {boolean} shown */
export function showList(shown) {
  if (shown && !matchMedia(NARROW).matches) return;
  layout().classList.toggle('list-open', shown);
  scrim().hidden = !shown;
  menu().setAttribute('aria-expanded', String(shown));
}

export function installNarrowList() {
  menu().addEventListener('click', () => showList(!listShown()));
  scrim().addEventListener('click', () => showList(false));
  window.addEventListener('hashchange', () => showList(false));
  // Reaching the list by keyboard (Tab, or the search shortcut) shows it too.
  document.querySelector('.sidebar')?.addEventListener('focusin', () => showList(true));
  matchMedia(NARROW).addEventListener('change', () => showList(false));
}
