// A thread's files in the page: a folder of 10,000 files opened in the panel and scrolled, a 1 GiB
// CSV previewed (and the service's memory meanwhile), a file a running turn's command writes
// reaching the open panel, and the start of a 200 MB PDF served. The service runs on its own with
// the fake app-server, whose second turn never ends: the new files are written while a turn runs.
import { closeSync, mkdirSync, openSync, readFileSync, writeFileSync, writeSync, ftruncateSync } from 'node:fs';
import { join } from 'node:path';
import { request } from 'node:http';
import { fakeCodex, startService, temporaryFolder, until, type Running } from '../../tests/harness/service.ts';
import { launchBrowser, openPage, type Page } from '../../tests/harness/browser.ts';
import { now } from './inPage.ts';
import type { Figure } from './figures.ts';

export interface ResultsOptions {
  runs: number;
  app?: string;
  log(line: string): void;
}

const FILES = 10_000;
const CSV_BYTES = 1 << 30;
const PDF_BYTES = 200 << 20;

const residentMb = (pid: number) => Number(/VmRSS:\s+(\d+)/.exec(readFileSync(`/proc/${pid}/status`, 'utf8'))?.[1] ?? 0) / 1024;

/** In the page: a click, then the frames until the selector matches, then one more; its time in ms. */
const clickToPainted = (page: Page, click: string, selector: string) => page.evaluate(`(async () => {
  const frame = () => new Promise((resolve) => requestAnimationFrame(resolve));
  const begun = performance.now();
  document.querySelector(${JSON.stringify(click)}).click();
  while (!document.querySelector(${JSON.stringify(selector)})) await frame();
  await frame();
  return performance.now() - begun;
})()`) as Promise<number>;

/** A big CSV: real rows at its start, the rest of its length a hole that reads as zeros. */
function bigCsv(path: string): void {
  const fd = openSync(path, 'w');
  let text = 'id,value,label\n';
  for (let row = 1; row <= 20_000; row += 1) text += `${row},${(row * 0.37).toFixed(3)},"row ${row}, quoted"\n`;
  writeSync(fd, text);
  ftruncateSync(fd, CSV_BYTES);
  closeSync(fd);
}

/** Time to the first byte of the first 64 KiB of a file, from a loopback client. */
function firstBytes(service: Running, path: string): Promise<number> {
  const begun = now();
  return new Promise((resolve, reject) => {
    request({ host: '127.0.0.1', port: service.port, path, headers: { host: `127.0.0.1:${service.port}`, range: 'bytes=0-65535' } }, (response) => {
      response.once('data', () => resolve(now() - begun));
      response.resume();
    }).on('error', reject).end();
  });
}

export async function resultsFigures(options: ResultsOptions): Promise<Figure[]> {
  const service = await startService({ codexPath: fakeCodex(temporaryFolder('lm-fake-')), app: options.app, env: { FAKE_CODEX_DIE: 'never-finishes' } });
  const browser = await launchBrowser();
  try {
    const id: string = (await service.request('POST', '/api/threads', { question: '结果' })).body.thread.id;
    const folder = join(service.dataFolder, 'threads', id);
    mkdirSync(join(folder, 'many'));
    for (let i = 0; i < FILES; i += 1) writeFileSync(join(folder, 'many', `file-${String(i).padStart(5, '0')}.txt`), 'x');
    bigCsv(join(folder, 'big.csv'));
    const pdf = openSync(join(folder, 'paper.pdf'), 'w');
    writeSync(pdf, '%PDF-1.4\n');
    ftruncateSync(pdf, PDF_BYTES);
    closeSync(pdf);
    await until('the first turn to end', async () => !(await service.request('GET', `/api/threads/${id}`)).body.thread.running);

    const { page } = await openPage(browser, `${service.url}#${id}`, { width: 1280, height: 860 });
    await page.locator('#files-toggle').click();
    await page.locator('.file-row[title="many"]').click();
    await page.locator('.file-row[title="file-00000.txt"]').waitFor();

    const list: number[] = [];
    const longest: number[] = [];
    for (let run = 0; run < options.runs; run += 1) {
      await page.locator('#files-up').click();
      await page.locator('.file-row[title="big.csv"]').waitFor();
      list.push(await clickToPainted(page, '.file-row[title="many"]', '.file-row[title="file-00000.txt"]'));
      // Long tasks while the panel of 10,000 rows is wheeled through, 600 px every 30 ms for 3 s.
      await page.evaluate(`globalThis.__lmLong = 0; new PerformanceObserver((list) => { for (const task of list.getEntries()) globalThis.__lmLong = Math.max(globalThis.__lmLong, task.duration); }).observe({ type: 'longtask' })`);
      const box = (await page.locator('#files-rows').boundingBox())!;
      await page.mouse.move(box.x + box.width / 2, box.y + box.height / 2);
      for (let step = 0; step < 100; step += 1) {
        await page.mouse.wheel(0, 600);
        await new Promise((resolve) => setTimeout(resolve, 30));
      }
      longest.push(await page.evaluate('globalThis.__lmLong') as number);
      options.log(`files, run ${run + 1}: 10,000 listed and painted in ${list.at(-1)!.toFixed(1)} ms; longest task while wheeling ${longest.at(-1)} ms`);
    }
    await page.locator('#files-up').click();
    await page.locator('.file-row', { hasText: 'big.csv' }).waitFor();

    const csv: number[] = [];
    const growth: number[] = [];
    for (let run = 0; run < options.runs; run += 1) {
      const before = residentMb(service.child.pid!);
      let peak = before;
      const sampler = setInterval(() => { peak = Math.max(peak, residentMb(service.child.pid!)); }, 10);
      csv.push(await clickToPainted(page, '.file-row[title="big.csv"]', '.preview-table td'));
      clearInterval(sampler);
      growth.push(peak - before);
      await page.locator('#preview-close').click();
      options.log(`files, run ${run + 1}: 1 GiB CSV's first rows painted in ${csv.at(-1)!.toFixed(1)} ms; service resident ${before.toFixed(1)} → peak ${peak.toFixed(1)} MB`);
    }

    const pdfFirst: number[] = [];
    for (let run = 0; run < options.runs; run += 1) pdfFirst.push(await firstBytes(service, `/api/threads/${id}/file?path=paper.pdf`));

    // A turn that runs (the fake's second never ends), the panel open: a file a command writes.
    await service.request('POST', `/api/threads/${id}/turns`, { question: '写文件' });
    await page.locator('#stop:not([hidden])').waitFor();
    const appear: number[] = [];
    for (let run = 0; run < options.runs * 3; run += 1) {
      const name = `new-${run}.txt`;
      const written = now();
      writeFileSync(join(folder, name), 'new');
      await page.locator('.file-row', { hasText: name }).waitFor({ timeout: 10_000 });
      appear.push(now() - written);
    }
    options.log(`files: a new file in the open panel after ${appear.map((ms) => ms.toFixed(0)).join(', ')} ms`);

    return [
      { name: `files: ${FILES} listed → painted`, unit: 'ms', runs: [list], goal: { limit: 100, atMost: true, text: '≤ 100 ms' }, note: 'a click on the folder\'s row → the frame after its first rows are in the DOM, in the page (the window in view read first)' },
      { name: 'files: longest task wheeling the 10,000 rows', unit: 'ms', runs: [longest], statistic: 'max', goal: { limit: 50, atMost: true, text: 'none over 50 ms' }, note: 'Long Tasks API: 0 when none over 50 ms' },
      { name: 'files: 1 GiB CSV → first rows painted', unit: 'ms', runs: [csv], goal: { limit: 200, atMost: true, text: '≤ 200 ms' }, note: 'its first 64 KiB read with a Range request and parsed by Papa Parse' },
      { name: 'files: service memory growth while previewing it', unit: 'MB', runs: [growth], statistic: 'max', goal: { limit: 10, atMost: true, text: '≤ 10 MB' }, note: 'VmRSS peak (sampled every 10 ms) minus before' },
      { name: 'files: a written file → in the open panel', unit: 'ms', runs: [appear], statistic: 'max', goal: { limit: 1000, atMost: true, text: '≤ 1 s' }, note: 'the service watches the folder the panel shows and says when it changed; seen from the driving process, a few ms of its polling included' },
      { name: 'files: 200 MB PDF, first 64 KiB → first byte', unit: 'ms', runs: [pdfFirst], note: 'a Range request from a loopback client; the viewer itself does not draw in headless Chromium' },
    ];
  } finally {
    await browser.close();
    service.child.kill('SIGTERM');
    await service.exited;
  }
}
