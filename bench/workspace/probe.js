// Injected into the page before its own scripts. Everything is stamped on the clock the stand-in
// uses (performance.timeOrigin + performance.now()), so a page time minus a stand-in time is a
// latency once the two processes' offset is taken out. Kept to what a stamp needs: the work done
// here runs on the page's main thread and is counted in its tasks, so its own cost is recorded too.
(() => {
  const clock = () => performance.timeOrigin + performance.now();
  // Markers are fixed-width words the answers carry, one per delta; Markdown leaves them alone.
  const MARKER = /lm\d{3}x\d{4}/g;
  const bench = {
    /** marker -> when it first reached the DOM */
    seen: Object.create(null),
    /** every long task the page reports (Chromium: over 50 ms) */
    longTasks: [],
    /** every frame that held input back (Long Animation Frames): its scripts' time and its rendering's */
    longFrames: [],
    /** each message of the event stream: when its handler began, how long it took, its size */
    handlers: [],
    /** the observer's own cost per batch of mutations */
    observerCost: [],
    clicks: [],
    hashChanges: [],
    /** set from outside: a selector whose first match is stamped when it enters the DOM */
    target: null,
    arrived: null,
    /** the frame after the target arrived: its animation-frame callback, and a task after it */
    frame: null,
    afterFrame: null,
    /** paint times of the target's text, from Element Timing */
    painted: [],
  };
  Object.defineProperty(globalThis, '__lmBench', { value: bench });

  new PerformanceObserver((list) => {
    for (const entry of list.getEntries()) bench.longTasks.push({ start: performance.timeOrigin + entry.startTime, duration: entry.duration });
  }).observe({ type: 'longtask', buffered: true });
  new PerformanceObserver((list) => {
    for (const entry of list.getEntries()) {
      if (entry.blockingDuration === 0) continue;
      const rendering = entry.renderStart ? entry.startTime + entry.duration - entry.renderStart : 0;
      bench.longFrames.push({ duration: entry.duration, scripts: entry.scripts.reduce((sum, script) => sum + script.duration, 0), rendering });
    }
  }).observe({ type: 'long-animation-frame', buffered: true });
  new PerformanceObserver((list) => {
    for (const entry of list.getEntries()) {
      if (entry.identifier === 'lm-target') bench.painted.push(performance.timeOrigin + entry.renderTime);
    }
  }).observe({ type: 'element', buffered: true });

  const add = EventTarget.prototype.addEventListener;
  WebSocket.prototype.addEventListener = function (type, listener, options) {
    if (type !== 'message' || typeof listener !== 'function') return add.call(this, type, listener, options);
    const timed = function (event) {
      const start = clock();
      try {
        return listener.call(this, event);
      } finally {
        const kind = /"type":"(\w+)"/.exec(event.data.slice(0, 40));
        bench.handlers.push({ start, duration: clock() - start, bytes: event.data.length, kind: kind ? kind[1] : '?' });
      }
    };
    return add.call(this, type, timed, options);
  };

  addEventListener('click', (event) => bench.clicks.push({ event: performance.timeOrigin + event.timeStamp, handled: clock() }), true);
  addEventListener('hashchange', () => bench.hashChanges.push(clock()), true);

  function markTarget(node) {
    // Element Timing reports text only for elements that carry the attribute when first painted;
    // this runs in the task that inserted them, before any rendering.
    for (const element of [node, ...node.querySelectorAll('*')]) {
      if ([...element.childNodes].some((child) => child.nodeType === Node.TEXT_NODE && child.data.trim() !== '')) {
        element.setAttribute('elementtiming', 'lm-target');
      }
    }
  }

  function onMutations(records) {
    const at = clock();
    let text = '';
    for (const record of records) {
      if (record.type === 'characterData') text += `${record.target.data}\n`;
      else for (const node of record.addedNodes) text += `${node.textContent}\n`;
    }
    for (const match of text.matchAll(MARKER)) if (!(match[0] in bench.seen)) bench.seen[match[0]] = at;
    if (bench.target && !bench.arrived) {
      const node = document.querySelector(bench.target);
      if (node) {
        bench.arrived = at;
        markTarget(node);
        requestAnimationFrame(() => {
          bench.frame = clock();
          const channel = new MessageChannel();
          channel.port1.onmessage = () => { bench.afterFrame = clock(); };
          channel.port2.postMessage(0);
        });
      }
    }
    bench.observerCost.push(clock() - at);
  }
  new MutationObserver(onMutations).observe(document, { childList: true, subtree: true, characterData: true });
})();
