// A clock that moves only when the test says so.
import type { Clock, Timer } from '../../resources/app/workspace/clock.ts';

interface Pending {
  at: number;
  action: () => void;
  cancelled: boolean;
}

export class VirtualClock implements Clock {
  #now = 0;
  #pending: Pending[] = [];

  now(): number {
    return this.#now;
  }

  after(ms: number, action: () => void): Timer {
    const pending = { at: this.#now + ms, action, cancelled: false };
    this.#pending.push(pending);
    return { cancel: () => { pending.cancelled = true; } };
  }

  /** Moves time on, firing what falls due in order; lets promises settle after each. */
  async advance(ms: number): Promise<void> {
    const end = this.#now + ms;
    for (;;) {
      await settle();
      const due = this.#pending.filter((pending) => !pending.cancelled && pending.at <= end).sort((a, b) => a.at - b.at)[0];
      if (!due) break;
      this.#now = due.at;
      due.cancelled = true;
      due.action();
    }
    this.#now = end;
    this.#pending = this.#pending.filter((pending) => !pending.cancelled);
    await settle();
  }
}

/** Lets every promise that can settle now settle. */
export async function settle(): Promise<void> {
  for (let i = 0; i < 10; i += 1) await new Promise((resolve) => setImmediate(resolve));
}
