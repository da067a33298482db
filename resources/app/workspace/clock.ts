// Time goes through here, so time-outs and deadlines can be tested on a virtual clock.

export interface Timer {
  cancel(): void;
}

export interface Clock {
  now(): number;
  after(ms: number, action: () => void): Timer;
}

export const systemClock: Clock = {
  now: () => Date.now(),
  after(ms, action) {
    const handle = setTimeout(action, ms);
    return { cancel: () => clearTimeout(handle) };
  },
};

/** Resolves after ms on this clock. */
export function sleep(clock: Clock, ms: number): Promise<void> {
  return new Promise((resolve) => clock.after(ms, resolve));
}
