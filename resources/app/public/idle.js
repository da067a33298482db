// @ts-check
// Work done in the moments the browser has nothing else to do, so that scrolling never waits for it.

/** When the browser says it is idle only this late, the work goes on anyway. */
const IDLE_TIMEOUT_MS = 500;
/**
 * At most this much work a slice, though the browser may offer up to 50 ms: a piece begun near the
 * end of a long slice would make a task long enough to hold back the next frame.
 */
const SLICE_MS = 12;

/** The next idle moment, and how much of it is left. @returns {Promise<{ timeRemaining(): number }>} */
export async function idle() {
  /** @type {{ timeRemaining(): number }} */
  const offered = 'requestIdleCallback' in globalThis
    ? await new Promise((resolve) => requestIdleCallback(resolve, { timeout: IDLE_TIMEOUT_MS }))
    // Without idle callbacks (Safari): after the tasks already waiting.
    : await new Promise((resolve) => setTimeout(() => resolve({ timeRemaining: () => SLICE_MS }), 0));
  const until = performance.now() + SLICE_MS;
  return { timeRemaining: () => Math.min(offered.timeRemaining(), until - performance.now()) };
}
