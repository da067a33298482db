// Samples and how they are printed: a figure is a median (or a maximum) with its sample count, the
// spread of all samples, and the range of the same statistic over separate runs, or over
// consecutive blocks of one run's samples: how stable the figure is.

export interface Figure {
  name: string;
  unit: string;
  /** One array of samples per run; the figure pools them. */
  runs: number[][];
  goal?: { limit: number; atMost: boolean; text: string };
  /** How the figure is taken from the pooled samples: the median, or the largest. */
  statistic?: 'median' | 'max';
  note?: string;
}

export function quantile(values: readonly number[], q: number): number {
  if (values.length === 0) return Number.NaN;
  const sorted = [...values].sort((a, b) => a - b);
  const at = (sorted.length - 1) * q;
  const low = Math.floor(at);
  const high = Math.ceil(at);
  return sorted[low]! + (sorted[high]! - sorted[low]!) * (at - low);
}

export const median = (values: readonly number[]) => quantile(values, 0.5);

/** Samples taken one after another, cut into consecutive blocks: the blocks' medians show drift. */
export function blocks(values: readonly number[], size: number): number[][] {
  const cut: number[][] = [];
  for (let start = 0; start < values.length; start += size) cut.push(values.slice(start, start + size));
  return cut;
}

function format(value: number): string {
  if (!Number.isFinite(value)) return '—';
  return Math.abs(value) >= 100 ? value.toFixed(0) : value.toFixed(1);
}

export function valueOf(figure: Figure): number {
  const all = figure.runs.flat();
  return figure.statistic === 'max' ? Math.max(...all) : median(all);
}

export function verdict(figure: Figure): string {
  if (!figure.goal) return '';
  const value = valueOf(figure);
  const met = figure.goal.atMost ? value <= figure.goal.limit : value >= figure.goal.limit;
  return `${met ? 'met' : 'NOT met'} (${figure.goal.text})`;
}

/** The table: one row per figure. */
export function printTable(figures: readonly Figure[]): void {
  const header = ['figure', 'value', 'n', 'p10', 'p90', 'min', 'max', 'runs or blocks', 'goal'];
  const rows = figures.map((figure) => {
    const all = figure.runs.flat();
    const medians = figure.runs.filter((run) => run.length > 0).map((run) => figure.statistic === 'max' ? Math.max(...run) : median(run));
    const runs = medians.length > 1 ? `${format(Math.min(...medians))}–${format(Math.max(...medians))} (${medians.length})` : '—';
    return [
      figure.name, `${format(valueOf(figure))} ${figure.unit}${figure.statistic === 'max' ? ' (max)' : ''}`, String(all.length),
      format(quantile(all, 0.1)), format(quantile(all, 0.9)), format(Math.min(...all)), format(Math.max(...all)), runs, verdict(figure),
    ];
  });
  const widths = header.map((title, column) => Math.max(title.length, ...rows.map((row) => row[column]!.length)));
  const line = (cells: string[]) => cells.map((cell, column) => column === 0 ? cell.padEnd(widths[column]!) : cell.padStart(widths[column]!)).join('  ');
  console.log(line(header));
  console.log(widths.map((width) => '-'.repeat(width)).join('  '));
  for (const row of rows) console.log(line(row));
  for (const figure of figures) if (figure.note) console.log(`  ${figure.name}: ${figure.note}`);
}
