// Where the time goes: a CPU profile (Chrome's .cpuprofile format, from the page through the
// DevTools protocol or from Node.js's --cpu-prof) reduced to the functions with the most time.
import { writeFileSync } from 'node:fs';
import type { Page } from '../../tests/harness/browser.ts';

interface ProfileNode {
  id: number;
  callFrame: { functionName: string; url: string; lineNumber: number };
  children?: number[];
}

export interface CpuProfile {
  nodes: ProfileNode[];
  samples: number[];
  timeDeltas: number[];
}

const label = (node: ProfileNode) => {
  const file = node.callFrame.url.split('/').slice(-1)[0] || '';
  return `${node.callFrame.functionName || '(anonymous)'}${file ? ` ${file}:${node.callFrame.lineNumber + 1}` : ''}`;
};

/** The top functions by their own time and by time including what they called, in ms. */
export function summarise(profile: CpuProfile, top = 12): string {
  const byId = new Map(profile.nodes.map((node) => [node.id, node]));
  const parent = new Map<number, number>();
  for (const node of profile.nodes) for (const child of node.children ?? []) parent.set(child, node.id);
  const own = new Map<string, number>();
  const inclusive = new Map<string, number>();
  let total = 0;
  profile.samples.forEach((id, index) => {
    const delta = (profile.timeDeltas[index] ?? 0) / 1000;
    const node = byId.get(id)!;
    if (node.callFrame.functionName === '(idle)') return;
    total += delta;
    own.set(label(node), (own.get(label(node)) ?? 0) + delta);
    const counted = new Set<string>();
    for (let at: number | undefined = id; at !== undefined; at = parent.get(at)) {
      const name = label(byId.get(at)!);
      if (counted.has(name)) continue;
      counted.add(name);
      inclusive.set(name, (inclusive.get(name) ?? 0) + delta);
    }
  });
  const list = (map: Map<string, number>) => [...map].filter(([name]) => !/^\((root|program)\)/.test(name))
    .sort((a, b) => b[1] - a[1]).slice(0, top).map(([name, ms]) => `    ${ms.toFixed(1).padStart(8)} ms  ${name}`).join('\n');
  return `  busy ${total.toFixed(0)} ms\n  own time:\n${list(own)}\n  including callees:\n${list(inclusive)}`;
}

/** Profiles the page while work runs; the profile is written to file when one is given. */
export async function profilePage<T>(page: Page, file: string | null, work: () => Promise<T>): Promise<{ result: T; profile: CpuProfile }> {
  const session = await page.context().newCDPSession(page);
  await session.send('Profiler.enable');
  await session.send('Profiler.setSamplingInterval', { interval: 100 });
  await session.send('Profiler.start');
  try {
    const result = await work();
    const { profile } = await session.send('Profiler.stop') as unknown as { profile: CpuProfile };
    if (file) writeFileSync(file, JSON.stringify(profile));
    return { result, profile };
  } finally {
    await session.detach().catch(() => {});
  }
}
