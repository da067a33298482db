// The page's flow without a browser: the address it opens, what the box's text becomes, the pages
// of a long thread, and what a reconnection asks for. Views are stand-ins that record what they
// are told; the thread view keeps only which turn positions it has drawn.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { texts } from '../../../resources/app/public/texts.js';
import { settle } from '../../harness/clock.ts';
import type { PageEvent, Thread, Turn } from '../../../resources/app/workspace/model.ts';

// Imported by address alone: the views it names need the DOM's types, which the service's check has not.
const { Controller } = await import('../../../resources/app/public/controller.js' as string);

type Side = 'before' | 'after';

const turns = (from: number, to: number) => Array.from({ length: to - from }, (_, i) => ({ position: from + i }) as Turn);
const thread = (id: string, extra: Partial<Thread> = {}) => ({ id, running: false, turns: turns(0, 1), earlier: false, later: false, ...extra }) as Thread;
const hello = (open: Thread | null, notice?: string): PageEvent => ({ type: 'hello', service: { rules: {} } as never, threads: [], thread: open, notice, page: 'p1' });
const events = (query: string) => `ws://127.0.0.1:18765/api/events${query}`;

/** A page at this address; answer is the service's reply to each request (thrown: a refusal). */
function page(hash: string, answer: (path: string) => unknown = () => ({ thread: { id: 'new' } })) {
  let address = hash;
  const onHashChange: (() => void)[] = [];
  const location = {
    host: '127.0.0.1:18765', pathname: '/',
    get hash() { return address; },
    set hash(value: string) {
      const next = value && `#${value.replace(/^#/, '')}`;
      if (next === address) return;
      address = next;
      queueMicrotask(() => { for (const listener of onHashChange) listener(); });
    },
  };
  Object.assign(globalThis, {
    location,
    history: { replaceState: (_: unknown, __: string, url: string) => { address = url.startsWith('#') ? url : ''; } },
    window: { addEventListener: (_: string, listener: () => void) => onHashChange.push(listener) },
  });

  const told: unknown[][] = [];
  const drawn = { positions: [] as number[], more: { before: false, after: false } };
  const box = { question: '', ready: true };
  const own: Record<string, Record<string, unknown>> = {
    thread: {
      edge: (side: Side) => (drawn.more[side] ? (side === 'before' ? drawn.positions[0] : drawn.positions.at(-1)) ?? null : null),
      prepare: async (page: Turn[]) => page,
      show: (shown: Thread | null) => {
        drawn.positions = shown?.turns.map((turn) => turn.position) ?? [];
        drawn.more = { before: shown?.earlier ?? false, after: shown?.later ?? false };
      },
      add: async (side: Side, page: Turn[], more: boolean) => {
        const positions = page.map((turn) => turn.position);
        drawn.positions = side === 'before' ? [...positions, ...drawn.positions] : [...drawn.positions, ...positions];
        drawn.more[side] = more;
      },
    },
    ask: box,
    list: { counts: () => ({}) },
    attachments: { extras: async () => ({}) },
    picker: { choice: () => ({}) },
    ownFolder: { folder: null },
  };
  // Every call is recorded by the view's name and the method's; what a test needs answered, own answers.
  const views = new Proxy({}, {
    get: (_, name: string) => new Proxy(own[name] ?? {}, {
      get: (target, key: string) => (typeof target[key] !== 'function' && key in target ? target[key] : (...args: unknown[]) => {
        told.push([`${name}.${key}`, ...args]);
        return (target[key] as ((...args: unknown[]) => unknown) | undefined)?.(...args);
      }),
    }),
  });
  const handler = (name: string) => told.find(([what]) => what === name)![1] as any;

  const requests: unknown[][] = [];
  const reply = async (path: string, body?: unknown) => {
    requests.push(body === undefined ? [path] : [path, body]);
    return answer(path);
  };
  const opened: string[] = [];
  let socket!: { address: () => string; event: (event: PageEvent) => void; connection: (connected: boolean) => void };
  new Controller(views, {
    getJson: reply, postJson: reply,
    connect: (address: () => string, event: (event: PageEvent) => void, connection: (connected: boolean) => void) => {
      socket = { address, event, connection };
      return { open: () => opened.push(address()) };
    },
  }).start();
  const said = () => told.filter(([what]) => what === 'ask.say').at(-1)![1];
  return { told, handler, drawn, box, requests, opened, socket, location, said };
}

test('the address opens its thread, at a search hit\'s turn when it names one; a thread gone leaves it for the welcome, saying why', () => {
  const rows: [string, string][] = [
    ['', ''], ['#t1', '?thread=t1'], ['#t1/12', '?thread=t1&at=12'], ['#t1/x', '?thread=t1'],
    [`#${encodeURIComponent('线程 1')}/3`, `?thread=${encodeURIComponent('线程 1').replace(/%20/g, '+')}&at=3`],
  ];
  for (const [hash, query] of rows) assert.deepEqual(page(hash).opened, [events(query)], hash);

  const gone = page('#t1');
  gone.socket.event(hello(null, '不在了'));
  assert.deepEqual([gone.said(), gone.location.hash, gone.socket.address()], ['不在了', '', events('')]);
  const removed = page('#t1');
  removed.socket.event(hello(thread('t1')));
  removed.socket.event({ type: 'threadRemoved', id: 't2' });
  removed.socket.event({ type: 'threadRemoved', id: 't1' });
  assert.deepEqual([removed.said(), removed.opened], [texts.threadDeleted, [events('?thread=t1'), events('')]]);
});

test('what the box holds becomes a question, guidance, a queued question or the last one asked again', async () => {
  const refused = () => { throw new Error('拒绝了'); };
  const asked = (path: string) => [`/api/threads${path}`, { question: '问' }];
  // The thread open, what runs, what was pressed; what the service is asked, pressed once per request.
  const rows: [string, { running?: string; edit?: boolean; press?: string; answer?: () => never }, unknown[][]][] = [
    ['#t1', {}, [asked('/t1/turns')]],
    ['#t1', { running: 't1' }, [asked('/t1/steer')]],
    ['#t1', { running: 't2' }, [asked('/t1/turns')]],
    ['#t1', { running: 't1', press: 'Queue' }, [asked('/t1/queue')]],
    ['#t1', { edit: true }, [asked('/t1/redo'), asked('/t1/turns')]],
    ['#t1', { edit: true, running: 't1' }, [asked('/t1/steer')]],
    ['#t1', { press: 'Stop' }, [['/api/threads/t1/stop', {}]]],
    ['', {}, [asked(''), asked('/new/turns')]],
    ['#t1', { running: 't1', answer: refused }, [asked('/t1/steer')]],
  ];
  for (const [hash, { running, edit = false, press = 'Ask', answer }, requests] of rows) {
    const at = page(hash, answer);
    at.socket.event(hello(hash ? thread('t1') : null));
    if (running) at.socket.event({ type: 'threadSummary', thread: thread(running, { running: true }) });
    if (edit) at.handler('thread.bindTurnActions').edit({ threadId: 't1', question: '旧' });
    for (const _ of requests) {
      at.box.question = '问';
      at.handler(`ask.bind${press}`)();
      await settle();
      if (!hash) at.socket.event(hello(thread('new')));
    }
    const row = JSON.stringify([hash, running, edit, press]);
    assert.deepEqual(at.requests, requests, row);
    assert.deepEqual([at.said(), at.told.some(([what]) => what === 'ask.clear')], answer ? ['拒绝了', false] : ['', press !== 'Stop'], row);
  }
});

test('a long thread\'s turns come a page at a time as the reader nears either end, each once, the next fetched ahead', async () => {
  // Turns 0 to 99, opened at a hit in the middle; the service gives ten at a time.
  const at = page('#long/50', (path) => {
    const [, side, from] = /turns\?(before|after)=(\d+)$/.exec(path)!;
    const start = side === 'before' ? Math.max(0, Number(from) - 10) : Number(from) + 1;
    const end = side === 'before' ? Number(from) : Math.min(100, start + 10);
    return { turns: turns(start, end), earlier: start > 0, later: end < 100 };
  });
  at.socket.event(hello(thread('long', { turns: turns(45, 55), earlier: true, later: true })));
  const near = at.handler('thread.bindNear');
  for (let i = 0; i < 6; i += 1) {
    // The sentinel calls again before the last page is drawn: that asks for nothing more.
    await Promise.all([near('before'), near('before'), near('after')]);
    await settle();
  }
  assert.deepEqual(at.drawn.positions, Array.from({ length: 100 }, (_, i) => i));
  assert.equal(new Set(at.requests.map(String)).size, at.requests.length);
});

test('a lost connection is shown, the snapshot it reconnects to redraws the thread, and a question asked at a hit opens the thread afresh at its end', async () => {
  const at = page('#t1/12');
  at.socket.event(hello(thread('t1', { running: true })));
  at.socket.connection(false);
  at.socket.connection(true);
  at.socket.event(hello(thread('t1', { later: true })));
  const seen = ['service.draw', 'thread.show', 'ask.running'];
  assert.deepEqual(at.told.filter(([what]) => seen.includes(what as string)).map(([what, ...args]) => [what, what === 'service.draw' ? args[1] : args[0]]), [
    ['service.draw', true], ['thread.show', thread('t1', { running: true })], ['ask.running', true], ['service.draw', false],
    ['service.draw', true], ['service.draw', true], ['thread.show', thread('t1', { later: true })], ['ask.running', false],
  ]);
  at.box.question = '再问';
  at.handler('ask.bindAsk')();
  await settle();
  assert.deepEqual([at.location.hash, at.opened, at.socket.address()], ['#t1', [events('?thread=t1&at=12'), events('?thread=t1')], events('?thread=t1')]);
});
