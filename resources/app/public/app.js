// @ts-check
// The workspace page: the thread list beside the open thread, the question box, and the event
// stream that keeps all of it current.
import { createMarkdown } from './markdown.js';
import { ItemView, element } from './items.js';
import { installKeys } from './keys.js';
import { installNarrowList } from './narrow.js';
import { ThreadList } from './threadList.js';
import { ThreadActions } from './threadActions.js';
import { drawAccount, signInBanner } from './account.js';
import { Attachments, attachmentList } from './attachments.js';
import { ModelPicker } from './models.js';
import { startSearch } from './search.js';

/** @typedef {import('../workspace/model.ts').PageEvent} PageEvent */
/** @typedef {import('../workspace/model.ts').ServiceState} ServiceState */
/** @typedef {import('../workspace/model.ts').ThreadSummary} ThreadSummary */
/** @typedef {import('../workspace/model.ts').Thread} Thread */
/** @typedef {import('../workspace/model.ts').Turn} Turn */
/** @typedef {import('../workspace/model.ts').TurnHead} TurnHead */
/** @typedef {import('../workspace/model.ts').Item} Item */
/** @typedef {import('../workspace/model.ts').Usage} Usage */

const md = createMarkdown();

/** @param {string} id */
function byId(id) {
  return /** @type {HTMLElement} */ (document.getElementById(id));
}

const ui = {
  threads: byId('threads'),
  banners: byId('banners'),
  aboutList: byId('about-list'),
  account: byId('account'),
  head: byId('thread-head'),
  title: byId('thread-title'),
  meta: byId('thread-meta'),
  usage: byId('thread-usage'),
  scroller: byId('scroller'),
  welcome: byId('welcome'),
  conversation: byId('conversation'),
  form: /** @type {HTMLFormElement} */ (byId('ask')),
  question: /** @type {HTMLTextAreaElement} */ (byId('question')),
  send: /** @type {HTMLButtonElement} */ (byId('send')),
  stop: /** @type {HTMLButtonElement} */ (byId('stop')),
  error: byId('ask-error'),
  newThread: byId('new-thread'),
};

const attachments = new Attachments({
  list: byId('attachments'), note: byId('attach-note'), button: byId('attach'),
  input: /** @type {HTMLInputElement} */ (byId('attach-input')), question: ui.question,
  report: (message) => { ui.error.textContent = message; },
});
const picker = new ModelPicker({
  model: /** @type {HTMLSelectElement} */ (byId('model')), effort: /** @type {HTMLSelectElement} */ (byId('effort')), note: byId('model-note'),
});

const number = new Intl.NumberFormat('zh-CN');

/** @type {{ service: ServiceState | null, open: string | null, connected: boolean }} */
const state = { service: null, open: null, connected: true };

// ---- the thread list ----

const list = new ThreadList(ui.threads);

/** One thread changed: its entry moves to its place, and its head is drawn again when it is open. @param {ThreadSummary} thread */
function updateListEntry(thread) {
  list.update(thread);
  if (thread.id === state.open) drawHead(thread);
}

// ---- banners and the about panel ----

/** @param {ServiceState} service */
function drawService(service) {
  state.service = service;
  picker.serviceChanged(service);
  /** @type {[string, string][]} */
  const notes = [];
  if (!state.connected) notes.push(['error', '与工作区服务的连接断开了，正在重新连接……如果 Lanternmoor Pro 已退出，请重新打开它。']);
  if (service.codex.state === 'unavailable') notes.push(['error', service.codex.message]);
  if (service.storage) notes.push(['error', service.storage]);
  ui.banners.replaceChildren(...notes.map(([level, text]) => element('div', `banner ${level}`, text)));
  const signIn = signInBanner(service, () => drawService(service));
  if (signIn) ui.banners.append(signIn);
  drawAccount(ui.account, service);

  const codex = service.codex.version ? `${service.about.codexPath}（版本 ${service.codex.version}）` : service.about.codexPath;
  const account = service.account?.signedIn ? service.account.label : service.account ? '未登录' : '—';
  /** @type {[string, string][]} */
  const rows = [
    ['工作区地址', service.about.address],
    ['数据文件夹', service.about.dataFolder],
    ['Codex 工具', codex || '（未提供）'],
    ['Codex 账户', account],
    ['Node.js', service.about.node],
    ['启动时间', new Date(service.about.startedAt).toLocaleString('zh-CN')],
  ];
  ui.aboutList.replaceChildren(...rows.flatMap(([term, value]) => [element('dt', '', term), element('dd', '', value)]));
}

function setConnected(/** @type {boolean} */ connected) {
  if (state.connected === connected) return;
  state.connected = connected;
  if (state.service) drawService(state.service);
}

// ---- the open thread ----

/** @type {Map<string, { node: HTMLElement, items: HTMLElement, foot: HTMLElement, head: TurnHead }>} */
const turnViews = new Map();
/** @type {Map<string, ItemView>} */
const itemViews = new Map();
/** Where the earliest drawn turn of the open thread is; null when no earlier turn is left to fetch. */
let earliest = /** @type {number | null} */ (null);
let fetchingEarlier = false;
const topSentinel = element('div', 'sentinel');
// A thread opened at a search hit may not have its newest turns drawn: they come as the reader
// scrolls down to them, and turns that start meanwhile come with them.
/** Where the latest drawn turn is while later ones are left to fetch; null once the newest is drawn. */
let latest = /** @type {number | null} */ (null);
let fetchingLater = false;
const bottomSentinel = element('div', 'sentinel');
/** The turn to bring into view when the thread is drawn (a search hit's); null to show the end. */
let wantedTurn = /** @type {number | null} */ (null);

/** @param {ThreadSummary} thread */
function drawHead(thread) {
  actions.show(thread);
  ui.head.hidden = false;
  ui.title.textContent = thread.title;
  ui.stop.hidden = !thread.running;
  ui.send.disabled = thread.running;
}

/** @param {TurnHead} head */
function turnFootText(head) {
  if (head.status === 'running') return 'Codex 正在回答……';
  if (head.status === 'stopped') return '已停止，之前的内容已保留。';
  if (head.status === 'interrupted') return head.error ?? '回答被中断了。';
  if (head.status === 'failed') return head.error ?? '这个问题没有得到回答。';
  if (!head.usage) return '';
  return `本轮用量：输入 ${number.format(head.usage.input)} · 输出 ${number.format(head.usage.output)} 个 token`;
}

/** @param {Usage | null} usage */
function drawThreadUsage(usage) {
  ui.usage.textContent = usage ? `全部用量：输入 ${number.format(usage.input)} · 输出 ${number.format(usage.output)} 个 token` : '';
}

/** @param {string} turnId @param {number} position */
const itemKey = (turnId, position) => `${turnId}/${position}`;

/** @param {TurnHead} head */
function turnView(head) {
  let view = turnViews.get(head.id);
  if (!view) {
    const node = element('section', 'turn');
    node.dataset.turn = head.id;
    const question = node.appendChild(element('div', 'question', head.question));
    question.setAttribute('dir', 'auto');
    if (head.attachments) node.append(attachmentList(head.attachments));
    view = { node, items: node.appendChild(element('div', 'items')), foot: node.appendChild(element('div', 'turn-foot')), head };
    turnViews.set(head.id, view);
  }
  view.head = head;
  view.node.dataset.status = head.status;
  view.foot.textContent = turnFootText(head);
  view.foot.classList.toggle('error', head.status === 'failed' || head.status === 'interrupted');
  return view;
}

/** @param {string} turnId @param {Item} item @param {HTMLElement} into */
function drawItem(turnId, item, into) {
  const key = itemKey(turnId, item.position);
  const existing = itemViews.get(key);
  if (existing && existing.kind === item.kind) {
    existing.update(item);
    return;
  }
  const view = new ItemView(item, md);
  itemViews.set(key, view);
  if (existing) existing.node.replaceWith(view.node);
  else into.append(view.node);
}

/** @param {Turn} turn */
function drawTurn(turn) {
  const view = turnView(turn);
  for (const item of turn.items) drawItem(turn.id, item, view.items);
  return view.node;
}

/** @param {Thread | null} thread */
function showThread(thread) {
  turnViews.clear();
  itemViews.clear();
  ui.conversation.replaceChildren();
  ui.welcome.hidden = thread !== null;
  ui.head.hidden = thread === null;
  if (!thread) actions.show(null);
  ui.stop.hidden = true;
  ui.send.disabled = false;
  earliest = null;
  attachments.reset(thread?.id ?? null);
  picker.show(thread);
  latest = null;
  if (!thread) return;
  drawHead(thread);
  ui.meta.textContent = `文件夹：${thread.folder}`;
  drawThreadUsage(thread.usage);
  const fragment = document.createDocumentFragment();
  for (const turn of thread.turns) fragment.append(drawTurn(turn));
  ui.conversation.append(fragment);
  if (thread.earlier && thread.turns.length > 0) {
    earliest = thread.turns[0].position;
    ui.conversation.prepend(topSentinel);
  }
  if (thread.later && thread.turns.length > 0) {
    latest = thread.turns[thread.turns.length - 1].position;
    ui.conversation.append(bottomSentinel);
  }
  ui.scroller.scrollTop = ui.scroller.scrollHeight;
  showWantedTurn();
}

/** Brings the turn a search hit named into view and marks it for a moment. */
function showWantedTurn() {
  const view = [...turnViews.values()].find((turn) => turn.head.position === wantedTurn);
  wantedTurn = null;
  if (!view) return;
  view.node.scrollIntoView({ block: 'start' });
  following = false;
  view.node.classList.remove('found');
  void view.node.offsetWidth; // restarts the animation when the same turn is found again
  view.node.classList.add('found');
}

/**
 * The turns before or after a position, for the thread still open once they come; null otherwise.
 * @param {string} thread @param {string} query
 */
async function turnsOf(thread, query) {
  const answer = await fetch(`/api/threads/${encodeURIComponent(thread)}/turns?${query}`);
  if (!answer.ok || state.open !== thread) return null;
  return answer.json();
}

/**
 * Draws more whenever the sentinel comes near the view, and again while it stays there: a short
 * page may not push it out.
 * @param {HTMLElement} sentinel @param {() => Promise<void>} draw @param {string} rootMargin
 */
function drawNear(sentinel, draw, rootMargin) {
  const observer = new IntersectionObserver((entries) => {
    if (!entries.some((entry) => entry.isIntersecting)) return;
    void draw().then(() => {
      if (!sentinel.isConnected) return;
      observer.unobserve(sentinel);
      observer.observe(sentinel);
    });
  }, { root: ui.scroller, rootMargin });
  observer.observe(sentinel);
}

/** Fetches and draws the turns after the latest drawn; the reader's view stays where it is. */
async function drawLater() {
  const thread = state.open;
  if (latest === null || fetchingLater || !thread) return;
  fetchingLater = true;
  try {
    /** @type {{ turns: Turn[], later: boolean } | null} */
    const page = await turnsOf(thread, `after=${latest}`);
    if (!page) return;
    const fragment = document.createDocumentFragment();
    for (const turn of page.turns) fragment.append(drawTurn(turn));
    bottomSentinel.before(fragment);
    latest = page.later && page.turns.length > 0 ? page.turns[page.turns.length - 1].position : null;
    if (latest === null) bottomSentinel.remove();
  } finally {
    fetchingLater = false;
  }
}

drawNear(bottomSentinel, drawLater, '0px 0px 600px 0px');

const FRAME_BUDGET_MS = 12;

/** Fetches and draws the turns before the earliest drawn, keeping what the reader sees where it is. */
async function drawEarlier() {
  const thread = state.open;
  if (earliest === null || fetchingEarlier || !thread) return;
  fetchingEarlier = true;
  try {
    /** @type {{ turns: Turn[], earlier: boolean } | null} */
    const page = await turnsOf(thread, `before=${earliest}`);
    if (!page) return;
    const { turns, earlier } = page;
    // Newest first, beside what the reader sees, a frame's worth at a time: drawing a whole page
    // of turns at once blocks scrolling for longer than a reader will wait.
    let began = performance.now();
    for (const turn of turns.toReversed()) {
      if (performance.now() - began > FRAME_BUDGET_MS) {
        await new Promise((resolve) => requestAnimationFrame(resolve));
        if (state.open !== thread) return;
        began = performance.now();
      }
      const fromBottom = ui.scroller.scrollHeight - ui.scroller.scrollTop;
      topSentinel.after(drawTurn(turn));
      ui.scroller.scrollTop = ui.scroller.scrollHeight - fromBottom;
    }
    earliest = earlier && turns.length > 0 ? turns[0].position : null;
    if (earliest === null) topSentinel.remove();
  } finally {
    fetchingEarlier = false;
  }
}

drawNear(topSentinel, drawEarlier, '600px 0px 0px 0px');

// Following the answer: the view stays at the end while the reader is there, and stays put
// when they have scrolled up to read.
let following = true;
let scrollQueued = false;
ui.scroller.addEventListener('scroll', () => {
  following = ui.scroller.scrollHeight - ui.scroller.scrollTop - ui.scroller.clientHeight < 48;
}, { passive: true });

function follow() {
  if (!following || scrollQueued) return;
  scrollQueued = true;
  requestAnimationFrame(() => {
    scrollQueued = false;
    ui.scroller.scrollTop = ui.scroller.scrollHeight;
  });
}

// ---- events from the service ----

/** @param {PageEvent} event */
function receive(event) {
  switch (event.type) {
    case 'hello':
      drawService(event.service);
      if (state.open && !event.thread) {
        ui.error.textContent = event.notice ?? '';
        state.open = null;
        history.replaceState(null, '', location.pathname);
      }
      list.hello(event.threads, event.moreThreads ?? false, state.open);
      showThread(event.thread);
      return;
    case 'service':
      drawService(event.service);
      return;
    case 'threadSummary':
      updateListEntry(event.thread);
      return;
    case 'threadUsage':
      if (event.threadId === state.open) drawThreadUsage(event.usage);
      return;
    case 'threadRemoved':
      list.remove(event.id);
      if (event.id !== state.open) return;
      // Deleted here or in another page: this page goes back to the welcome, and says why.
      history.replaceState(null, '', location.pathname);
      listen(null);
      showThread(null);
      ui.error.textContent = '这个研究线程已被删除。';
      return;
    case 'turn': {
      if (event.turn.threadId !== state.open) return;
      const isNew = !turnViews.has(event.turn.id);
      if (isNew && latest !== null) return;
      const view = turnView(event.turn);
      if (isNew) ui.conversation.append(view.node);
      follow();
      return;
    }
    case 'item': {
      if (event.threadId !== state.open) return;
      const view = turnViews.get(event.turnId);
      if (!view) return;
      drawItem(event.turnId, event.item, view.items);
      follow();
      return;
    }
    case 'delta': {
      if (event.threadId !== state.open) return;
      itemViews.get(itemKey(event.turnId, event.position))?.append(event.field, event.part, event.text);
      follow();
      return;
    }
  }
}

/** @type {WebSocket | null} */
let source = null;
/** @type {ReturnType<typeof setTimeout> | undefined} */
let reconnect;
// A WebSocket, not an event stream over HTTP: the browser keeps six HTTP connections to the
// service, and an open stream in each of six pages would take every one.
const RECONNECT_MS = 1000;

/** @param {string | null} threadId @param {number | null} [at] the turn to open it at */
function listen(threadId, at = null) {
  clearTimeout(reconnect);
  source?.close();
  state.open = threadId;
  wantedTurn = at;
  const place = at === null ? '' : `&at=${at}`;
  const query = threadId ? `?thread=${encodeURIComponent(threadId)}${place}` : '';
  const socket = new WebSocket(`ws://${location.host}/api/events${query}`);
  source = socket;
  // The socket of a thread left behind may still deliver a little: only the current one counts.
  socket.addEventListener('message', (message) => { if (socket === source) receive(JSON.parse(message.data)); });
  socket.addEventListener('open', () => { if (socket === source) setConnected(true); });
  socket.addEventListener('close', () => {
    if (socket !== source) return;
    setConnected(false);
    // Back with a fresh snapshot, where the page was: the hello redraws the thread.
    reconnect = setTimeout(() => listen(state.open, state.open === threadId ? at : null), RECONNECT_MS);
  });
}

function openFromAddress() {
  // #thread, or #thread/turn for a search hit.
  const [thread, turn] = decodeURIComponent(location.hash.slice(1)).split('/');
  const wanted = thread || null;
  ui.error.textContent = '';
  listen(wanted, turn && /^\d+$/.test(turn) ? Number(turn) : null);
  if (!wanted) ui.question.focus();
}

window.addEventListener('hashchange', openFromAddress);

// ---- asking ----

/** @param {string} path @param {unknown} body */
async function post(path, body) {
  const answer = await fetch(path, { method: 'POST', headers: { 'Content-Type': 'application/json' }, body: JSON.stringify(body) });
  const result = await answer.json().catch(() => ({}));
  if (!answer.ok) throw new Error(result.error ?? `工作区服务拒绝了这个请求（${answer.status}）。`);
  return result;
}

async function ask() {
  const question = ui.question.value;
  if (question.trim() === '' || ui.send.disabled) return;
  ui.send.disabled = true;
  ui.error.textContent = '';
  try {
    // A thread opened at a search hit shows the new turn at its end, with the turns before it.
    if (state.open && latest !== null) {
      history.replaceState(null, '', `#${state.open}`);
      listen(state.open);
    }
    const body = { question, ...(await attachments.extras()), ...picker.choice() };
    if (state.open) {
      await post(`/api/threads/${encodeURIComponent(state.open)}/turns`, body);
    } else {
      const created = await post('/api/threads', body);
      location.hash = created.thread.id;
    }
    attachments.sent();
    picker.sent();
    ui.question.value = '';
    fitQuestion();
    following = true;
  } catch (error) {
    ui.error.textContent = error instanceof Error && error.message !== 'Failed to fetch' ? error.message : '无法连接工作区服务。';
    ui.send.disabled = false;
  }
}

ui.form.addEventListener('submit', (event) => {
  event.preventDefault();
  void ask();
});

ui.question.addEventListener('keydown', (event) => {
  // Enter that ends an input method's composition picks the characters; it does not send.
  if (event.key !== 'Enter' || event.shiftKey || event.isComposing || event.keyCode === 229) return;
  event.preventDefault();
  void ask();
});

function fitQuestion() {
  ui.question.style.height = 'auto';
  ui.question.style.height = `${Math.min(ui.question.scrollHeight, 240)}px`;
}
ui.question.addEventListener('input', fitQuestion);

const actions = new ThreadActions(ui.head, ui.title, post);

ui.stop.addEventListener('click', async () => {
  if (!state.open) return;
  ui.stop.disabled = true;
  try {
    await post(`/api/threads/${encodeURIComponent(state.open)}/stop`, {});
  } catch (error) {
    ui.error.textContent = error instanceof Error ? error.message : String(error);
  } finally {
    ui.stop.disabled = false;
  }
});

ui.newThread.addEventListener('click', () => {
  if (location.hash) location.hash = '';
  else openFromAddress();
});

installKeys();
installNarrowList();
startSearch({ input: /** @type {HTMLInputElement} */ (byId('search')), results: byId('search-results'), threads: ui.threads }, (thread, turn) => {
  const hash = `#${thread}/${turn}`;
  if (location.hash === hash) openFromAddress();
  else location.hash = hash;
});

openFromAddress();
