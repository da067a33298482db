// The app-server's life on a virtual clock: a start that never answers, and a stop it resists.
import { test } from 'node:test';
import assert from 'node:assert/strict';
import { existsSync, readFileSync } from 'node:fs';
import { join } from 'node:path';
import { CodexAppServer } from '../../../resources/app/workspace/codex/appServer.ts';
import { texts } from '../../../resources/app/workspace/texts.ts';
import type { CodexState } from '../../../resources/app/workspace/model.ts';
import { VirtualClock } from '../../harness/clock.ts';
import { treeOf } from '../../../resources/app/workspace/codex/commands.ts';
import { fakeCodex, isRunning, temporaryFolder, until } from '../../harness/service.ts';

function appServer(env: NodeJS.ProcessEnv) {
  const clock = new VirtualClock();
  const states: CodexState[] = [];
  let exits = 0;
  const server = new CodexAppServer({
    command: fakeCodex(temporaryFolder('lm-fake-')), env: { ...process.env, ...env }, clock, clientVersion: 'test',
    onState: (state) => states.push(state), onNotification: () => {}, onExit: () => { exits += 1; },
  });
  return { server, clock, states, exits: () => exits };
}

// One that floods its output ends as soon as that output is let go of: its next write fails.
for (const [kind, killedAt] of [['hang', 1_500], ['flood', 0]] as const) {
  test(`an app-server given up on (${kind}) ends with everything under it, and is not started twice meanwhile`, async () => {
    const log = join(temporaryFolder('lm-fake-'), 'methods');
    const { server, clock, states } = appServer({ FAKE_CODEX_DIE: kind, FAKE_CODEX_LOG: log });
    const first = server.connect().catch((error: Error) => error.message);
    await until('the start to be asked', () => existsSync(log));
    const pid = server.pid!;
    const below = await until('its child', async () => (await treeOf(pid))[0]?.pid);
    await clock.advance(19_999);
    assert.equal(server.state.state, 'starting');
    await clock.advance(1);
    const again = server.connect().catch((error: Error) => error.message);
    await clock.advance(killedAt);
    // A SIGKILL sent is not yet a process gone.
    await until('it and its child to end', () => ![pid, below].some(isRunning));
    assert.deepEqual([await first, await again], Array(2).fill(texts.codexDidNotStart(texts.codexSilent)));
    assert.deepEqual(states.map((state) => state.state), ['starting', 'unavailable']);
    assert.equal(readFileSync(log, 'utf8'), 'initialize\n');
  });
}

test('an app-server that exits at start is reported by its exit, though its output closed first', async () => {
  await assert.rejects(appServer({ FAKE_CODEX_DIE: 'at-start' }).server.connect(), { message: texts.codexDidNotStart(texts.exitCode(1)) });
});

for (const [kind, endsAt] of [['deaf', 1000], ['stubborn', 1500]] as const) {
  test(`a stop closes the app-server's input; a ${kind} one ends ${endsAt} ms later (SIGTERM at 1 s, SIGKILL at 1.5 s)`, async () => {
    const { server, clock, exits } = appServer({ FAKE_CODEX_DIE: kind });
    await server.connect();
    const pid = server.pid!;
    const stopped = server.stop();
    await clock.advance(endsAt - 1);
    await new Promise((resolve) => setTimeout(resolve, 100));
    assert.equal(isRunning(pid), true);
    await clock.advance(1);
    await stopped;
    assert.equal(isRunning(pid), false);
    assert.equal(exits(), 1);
    assert.equal(server.state.state, 'ready', 'a stop asked for is not reported as a failure');
  });
}

test('what is asked while Codex starts waits for its handshake, and is refused with it', async () => {
  const log = join(temporaryFolder('lm-fake-'), 'methods');
  for (const [version, outcome] of [['0.169.0', 'answered'], ['0.99.0', 'refused']] as const) {
    const { server } = appServer({ FAKE_CODEX_LOG: log, FAKE_CODEX_VERSION: version });
    const first = server.connect();
    const asked = await server.request('thread/start', {}).then(() => 'answered', () => 'refused');
    await first.catch(() => {});
    await server.stop();
    assert.equal(asked, outcome, version);
  }
  assert.deepEqual(readFileSync(log, 'utf8').trim().split('\n'), ['initialize', 'initialized', 'thread/start', 'initialize']);
});
