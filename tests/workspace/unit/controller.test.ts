// The page's flow without a browser: the address it opens, what the box's text becomes, the pages
// of a long thread, and what a reconnection asks for. Views are stand-ins that record what they
// are told; the thread view keeps only which turn positions it has drawn.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { texts } from '../../../resources/app/public/texts.js';
import { settle } from '../../harness/clock.ts';
import type { PageEvent, Thread, Turn } from '../../../resources/app/workspace/model.ts';

// Imported by address alone: the page's views it names need the DOM's types, which the service's check has not.
const { Controller } = await import('../../../resources/app/public/controller.js' as string);

type Side = 'before' | 'after';
type Answer = (path: string, body?: unknown) => unknown;

const turns = (from: number, to: number) => Array.from({ length: to - from }, (_, i) => ({ id: `t-${from + i}`, position: from + i, items: [] }) as unknown as Turn);
const thread = (id: string, extra: Partial<Thread> = {}) => ({ id, title: id, running: false, queued: [], approvals: [], turns: turns(0, 1), earlier: false, later: false, ...extra }) as Thread;
const hello = (open: Thread | null, extra = {}): PageEvent => ({ type: 'hello', service: { rules: {} } as never, threads: [], thread: open, ...extra });

/** A page at this address; answer gives the service's reply to each request (a thrown error: a refusal). */
function page(hash: string, answer: Answer = () => ({})) {
  let address = hash;
  const onHashChange: (() => void)[] = [];
  const location = {
    host: '127.0.0.1:18765', pathname: '/',
    get hash() { return address; },
    set hash(value: string) {
      const next = value === '' || value.startsWith('#') ? value : `#${value}`;
      if (next === address) return;
      address = next;
      queueMicrotask(() => { for (const listener of onHashChange) listener(); });
    },
  };
  Object.assign(globalThis, {
    location,
    history: { replaceState: (_: unknown, __: string, url: string) => { address = url.startsWith('#') ? url : ''; } },
    window: { addEventListener: (type: string, listener: () => void) => { if (type === 'hashchange') onHashChange.push(listener); }, confirm: () => true },
  });

  const told: unknown[][] = [];
  const handlers: Record<string, (...args: any[]) => unknown> = {};
  const drawn = { positions: [] as number[], more: { before: false, after: false } };
  const box = { question: '', ready: true };
  const own: Record<string, Record<string, unknown>> = {
    thread: {
      edge: (side: Side) => (drawn.more[side] ? (side === 'before' ? drawn.positions[0] : drawn.positions.at(-1)) ?? null : null),
      prepare: async (page: Turn[]) => ({ turns: page }),
      show: (shown: Thread | null, at: number | null) => {
        told.push(['thread.show', shown?.id ?? null, at]);
        drawn.positions = shown?.turns.map((turn) => turn.position) ?? [];
        drawn.more = { before: shown?.earlier ?? false, after: shown?.later ?? false };
      },
      add: async (side: Side, prepared: { turns: Turn[] }, more: boolean) => {
        const positions = prepared.turns.map((turn) => turn.position);
        drawn.positions = side === 'before' ? [...positions, ...drawn.positions] : [...drawn.positions, ...positions];
        drawn.more[side] = more;
      },
    },
    ask: box,
    list: { counts: () => ({ running: 0, waiting: 0 }), get: () => undefined },
    attachments: { extras: async () => ({}) },
    picker: { choice: () => ({}) },
    ownFolder: { folder: null },
  };
  const view = (name: string) => new Proxy(own[name] ?? {}, {
    get: (target, key: string) => (key in target ? target[key] : (...args: unknown[]) => {
      if (key.startsWith('bind')) Object.assign(handlers, key === 'bindTurnActions' || key === 'bindAccount' ? args[0] : { [`${name}.${key}`]: args[0] });
      else told.push([`${name}.${key}`, ...args]);
    }),
  });
  const views = Object.fromEntries(['thread', 'ask', 'service', 'list', 'attachments', 'picker', 'approvals', 'permission', 'notices', 'ownFolder', 'queue', 'files']
    .map((name) => [name, view(name)]));

  const requests: unknown[][] = [];
  const reply = async (path: string, body?: unknown) => {
    requests.push(body === undefined ? [path] : [path, body]);
    return answer(path, body);
  };
  const opened: string[] = [];
  let socket!: { address: () => string; event: (event: PageEvent) => void; connection: (connected: boolean) => void };
  const controller = new Controller(views as never, {
    getJson: reply, postJson: reply,
    connect: (address: () => string, event: (event: PageEvent) => void, connection: (connected: boolean) => void) => {
      socket = { address, event, connection };
      return { open: () => opened.push(address()) };
    },
  });
  controller.start();
  return { controller, told, handlers, drawn, box, requests, opened, socket, location };
}

const events = (query: string) => `ws://127.0.0.1:18765/api/events${query}`;

test('the address opens its thread, at a search hit\'s turn when it names one', () => {
  const rows: [string, string][] = [
    ['', ''], ['#t1', '?thread=t1'], ['#t1/12', '?thread=t1&at=12'], ['#t1/x', '?thread=t1'],
    [`#${encodeURIComponent('线程 1')}/3`, `?thread=${encodeURIComponent('线程 1').replace(/%20/g, '+')}&at=3`],
  ];
  for (const [hash, query] of rows) assert.deepEqual(page(hash).opened, [events(query)], hash);
});

test('a thread gone from under the page: back to the welcome, saying why, and the address forgets it', async () => {
  const gone = page('#t1');
  gone.socket.event(hello(null, { notice: '不在了' }));
  assert.deepEqual(gone.told.filter(([what]) => what === 'ask.say').at(-1), ['ask.say', '不在了']);
  assert.deepEqual([gone.location.hash, gone.socket.address()], ['', events('')]);

  const removed = page('#t1');
  removed.socket.event(hello(thread('t1')));
  removed.socket.event({ type: 'threadRemoved', id: 't2' });
  assert.equal(removed.opened.length, 1, 'another thread\'s removal leaves this one open');
  removed.socket.event({ type: 'threadRemoved', id: 't1' });
  assert.deepEqual(removed.opened, [events('?thread=t1'), events('')]);
  assert.deepEqual(removed.told.filter(([what]) => what === 'thread.show' || what === 'ask.say').slice(-2), [['thread.show', null, null], ['ask.say', texts.threadDeleted]]);
});

test('what the box holds becomes a question, guidance, a queued question or the last one asked again', async () => {
  const refused = () => { throw new Error('拒绝了'); };
  // The open thread, what it runs, what was pressed, and what the service is asked.
  const rows: [string, { running?: boolean; othersRunning?: boolean; edit?: boolean; how?: string; answer?: Answer }, unknown[][]][] = [
    ['#t1', {}, [['/api/threads/t1/turns', { question: '问' }]]],
    ['#t1', { running: true }, [['/api/threads/t1/steer', { question: '问' }]]],
    ['#t1', { othersRunning: true }, [['/api/threads/t1/turns', { question: '问' }]]],
    ['#t1', { running: true, how: 'queue' }, [['/api/threads/t1/queue', { question: '问' }]]],
    ['#t1', { edit: true }, [['/api/threads/t1/redo', { question: '问' }], ['/api/threads/t1/turns', { question: '问' }]]],
    ['#t1', { edit: true, running: true }, [['/api/threads/t1/steer', { question: '问' }]]],
    ['#t1', { how: 'stop' }, [['/api/threads/t1/stop', {}]]],
    ['', {}, [['/api/threads', { question: '问' }], ['/api/threads/new/turns', { question: '问' }]]],
    ['#t1', { running: true, answer: refused }, [['/api/threads/t1/steer', { question: '问' }]]],
  ];
  for (const [hash, { running = false, othersRunning = false, edit = false, how = 'ask', answer = () => ({ thread: { id: 'new' } }) }, asked] of rows) {
    const at = page(hash, answer);
    at.socket.event(hello(hash ? thread('t1') : null));
    if (running || othersRunning) at.socket.event({ type: 'threadSummary', thread: thread(running ? 't1' : 't2', { running: true }) });
    if (edit) at.handlers.edit!({ threadId: 't1', question: '旧' });
    // Pressed twice: after the first, the thread open and the edit are as the first left them.
    for (let presses = 0; presses < asked.length; presses += 1) {
      at.box.question = '问';
      at.handlers[`ask.bind${how[0]!.toUpperCase()}${how.slice(1)}`]!();
      await settle();
      if (!hash && presses === 0) at.socket.event(hello(thread('new')));
    }
    const row = `${hash} ${JSON.stringify({ running, othersRunning, edit, how })}`;
    assert.deepEqual(at.requests, asked, row);
    const said = at.told.filter(([what]) => what === 'ask.say').at(-1);
    assert.deepEqual([said, at.told.some(([what]) => what === 'ask.clear')], answer === refused ? [['ask.say', '拒绝了'], false] : [['ask.say', ''], how !== 'stop'], row);
  }
});

test('a long thread\'s turns come a page at a time as the reader nears either end, each once, the next fetched ahead', async () => {
  // Turns 0 to 99, opened at a hit in the middle: the service gives ten at a time.
  const at = page('#long/50', (path) => {
    const [, side, from] = /turns\?(before|after)=(\d+)$/.exec(path)!;
    const start = side === 'before' ? Math.max(0, Number(from) - 10) : Number(from) + 1;
    const end = side === 'before' ? Number(from) : Math.min(100, start + 10);
    return { turns: turns(start, end), earlier: start > 0, later: end < 100 };
  });
  at.socket.event(hello(thread('long', { turns: turns(45, 55), earlier: true, later: true })));
  const near = at.handlers['thread.bindNear']!;
  for (let i = 0; i < 8; i += 1) {
    // The sentinel may call again before the last page is drawn: that asks for nothing more.
    void near('before');
    await Promise.all([near('before'), near('after')]);
    await settle();
  }
  assert.deepEqual(at.drawn.positions, Array.from({ length: 100 }, (_, i) => i));
  assert.deepEqual([at.drawn.more, new Set(at.requests.map(String)).size], [{ before: false, after: false }, at.requests.length]);

});

test('a lost connection is shown, and the snapshot it reconnects to redraws the thread; a question asked at a hit opens the thread afresh at its end', async () => {
  const at = page('#t1/12');
  at.socket.event(hello(thread('t1', { running: true })));
  at.socket.connection(false);
  at.socket.connection(true);
  at.socket.event(hello(thread('t1', { later: true })));
  const seen = ['service.draw', 'thread.show', 'ask.running'];
  assert.deepEqual(at.told.filter(([what]) => seen.includes(what as string)).map(([what, ...args]) => [what, what === 'service.draw' ? args[1] : args[0]]), [
    ['service.draw', true], ['thread.show', 't1'], ['ask.running', true],
    ['service.draw', false], ['service.draw', true],
    ['service.draw', true], ['thread.show', 't1'], ['ask.running', false],
  ]);
  at.box.question = '再问';
  at.handlers['ask.bindAsk']!();
  await settle();
  assert.deepEqual([at.location.hash, at.opened, at.socket.address()], ['#t1', [events('?thread=t1&at=12'), events('?thread=t1')], events('?thread=t1')]);
});
