// A stand-in for the model provider's side of the Responses streaming API, on loopback, so the
// real Codex runs in tests without reaching the internet. Each request is answered by the test's
// script, chosen from what the request asks.
import { createServer, type Server } from 'node:http';
import { once } from 'node:events';
import { mkdtempSync, writeFileSync } from 'node:fs';
import { tmpdir } from 'node:os';
import { join } from 'node:path';

export interface ResponsesRequest {
  input: { type: string; role?: string; content?: { type: string; text?: string }[]; call_id?: string; output?: string }[];
  model?: string;
  [key: string]: unknown;
}

/** One answer: a sequence of streamed steps, or an HTTP error. */
export type Reply =
  | { status: number; body: unknown }
  | { steps: Step[] };

export type Step =
  | { text: string[]; gapMs?: number; holdAfter?: { index: number; until: Promise<void> } }
  | { reasoning: string }
  /** A shell command; with `escalate`, run outside the sandbox once a person allows it, for that reason. */
  | { command: string; escalate?: string }

  /** A web search the model made, opening this page. */
  | { openedPage: string };

export type Script = (request: ResponsesRequest, index: number) => Reply;

/** The text of the last user message, which the script mostly answers by. */
export function lastQuestion(request: ResponsesRequest): string {
  for (let i = request.input.length - 1; i >= 0; i -= 1) {
    const entry = request.input[i]!;
    if (entry.role === 'user') return (entry.content ?? []).map((part) => part.text ?? '').join('');
  }
  return '';
}

/** Whether this request carries a command's output back: the model's turn to answer it. */
export function commandOutput(request: ResponsesRequest): string | null {
  const last = request.input.at(-1);
  return last?.type === 'function_call_output' ? String(last.output ?? '') : null;
}

const usage = { input_tokens: 10, input_tokens_details: { cached_tokens: 0 }, output_tokens: 5, output_tokens_details: { reasoning_tokens: 0 }, total_tokens: 15 };

export interface StandIn {
  url: string;
  requests: ResponsesRequest[];
  /** When each delta was written, by its text: for latency benchmarks. */
  sentAt: Map<string, number>;
  script: Script;
  close(): Promise<void>;
}

export async function startStandIn(script: Script): Promise<StandIn> {
  const sockets = new Set<import('node:net').Socket>();
  const standIn: StandIn = { url: '', requests: [], sentAt: new Map(), script, close: async () => {} };
  const server: Server = createServer(async (request, response) => {
    let body = '';
    for await (const chunk of request) body += chunk;
    const parsed = JSON.parse(body || '{}') as ResponsesRequest;
    const index = standIn.requests.push(parsed) - 1;
    const reply = standIn.script(parsed, index);
    if ('status' in reply) {
      response.writeHead(reply.status, { 'content-type': 'application/json' }).end(JSON.stringify(reply.body));
      return;
    }
    response.writeHead(200, { 'content-type': 'text/event-stream' });
    response.socket?.setNoDelay(true);
    const send = (type: string, data: object) => response.write(`event: ${type}\ndata: ${JSON.stringify({ type, ...data })}\n\n`);
    send('response.created', { response: { id: `resp_${index}` } });
    let output = 0;
    for (const step of reply.steps) {
      if (response.destroyed) return;
      const id = `${index}_${output}`;
      if ('text' in step) {
        send('response.output_item.added', { output_index: output, item: { type: 'message', id: `msg_${id}`, role: 'assistant', content: [] } });
        for (const [index, delta] of step.text.entries()) {
          standIn.sentAt.set(delta, performance.timeOrigin + performance.now());
          send('response.output_text.delta', { item_id: `msg_${id}`, output_index: output, content_index: 0, delta });
          if (step.holdAfter?.index === index) await step.holdAfter.until;
          if (step.gapMs) await new Promise((resolve) => setTimeout(resolve, step.gapMs));
          if (response.destroyed) return;
        }
        const text = step.text.join('');
        send('response.output_item.done', { output_index: output, item: { type: 'message', id: `msg_${id}`, role: 'assistant', content: [{ type: 'output_text', text }] } });
        output += 1;
      } else if ('reasoning' in step) {
        send('response.output_item.added', { output_index: output, item: { type: 'reasoning', id: `rs_${id}`, summary: [] } });
        send('response.reasoning_summary_part.added', { item_id: `rs_${id}`, output_index: output, summary_index: 0, part: { type: 'summary_text', text: '' } });
        send('response.reasoning_summary_text.delta', { item_id: `rs_${id}`, output_index: output, summary_index: 0, delta: step.reasoning });
        send('response.output_item.done', { output_index: output, item: { type: 'reasoning', id: `rs_${id}`, summary: [{ type: 'summary_text', text: step.reasoning }] } });
        output += 1;
      } else if ('openedPage' in step) {
        send('response.output_item.done', {
          output_index: output, item: { type: 'web_search_call', id: `ws_${id}`, status: 'completed', action: { type: 'open_page', url: step.openedPage } },
        });
        output += 1;
      } else {
        send('response.output_item.done', {
          output_index: output,
          item: { type: 'function_call', id: `fc_${id}`, call_id: `call_${id}`, name: 'exec_command',
          arguments: JSON.stringify({ cmd: step.command, ...(step.escalate && { sandbox_permissions: 'require_escalated', justification: step.escalate }) }) },
        });
        output += 1;
      }
    }
    send('response.completed', { response: { id: `resp_${index}`, usage } });
    response.end();
  });
  server.on('connection', (socket) => {
    sockets.add(socket);
    socket.on('close', () => sockets.delete(socket));
  });
  server.listen(0, '127.0.0.1');
  await once(server, 'listening');
  const address = server.address() as import('node:net').AddressInfo;
  standIn.url = `http://127.0.0.1:${address.port}/v1`;
  standIn.close = async () => {
    for (const socket of sockets) socket.destroy();
    server.close();
    await once(server, 'close');
  };
  return standIn;
}

/** Replies for the common cases. */
export const reply = {
  answer: (text: string | string[], gapMs = 0): Reply => ({ steps: [{ text: Array.isArray(text) ? text : [text], gapMs }] }),
  command: (command: string, reasoning?: string): Reply => ({
    steps: [...(reasoning ? [{ reasoning }] : []), { command }],
  }),
  unauthorized: (): Reply => ({ status: 401, body: { error: { message: 'invalid api key', code: 'invalid_api_key' } } }),
  missingModel: (): Reply => ({ status: 400, body: { error: { message: 'The model does not exist', code: 'model_not_found', type: 'invalid_request_error' } } }),
};

/**
 * A CODEX_HOME of the test's own whose provider is the stand-in. With signedOut, Codex asks for an
 * OpenAI sign-in and reports itself signed out (there is no auth.json).
 */
export function codexHome(standIn: StandIn, options: { signedOut?: boolean; folder?: string; settings?: string[] } = {}): string {
  const home = options.folder ?? mkdtempSync(join(tmpdir(), 'lm-codex-home-'));
  writeFileSync(join(home, 'config.toml'), [
    'model = "stand-in"',
    'model_provider = "standin"',
    ...(options.settings ?? []),
    '[model_providers.standin]',
    'name = "stand-in"',
    `base_url = "${standIn.url}"`,
    'wire_api = "responses"',
    'env_key = "STANDIN_KEY"',
    ...(options.signedOut ? ['requires_openai_auth = true'] : []),
    '',
  ].join('\n'));
  return home;
}
