// A stand-in for the ChatGPT sign-in Codex talks to, on loopback: Codex is pointed at it with
// CODEX_APP_SERVER_LOGIN_ISSUER (honoured by the released app-server) and at its usage endpoint
// with `chatgpt_base_url`. The test decides who signs in, on which plan, with what usage.
import { createServer, type Server } from 'node:http';
import { once } from 'node:events';

export interface SignInScript {
  email: string;
  plan: string;
  /** Used share of the short window, in percent; no usage endpoint when absent. */
  usedPercent?: number;
  /** The device code shown to the user, for the device-code sign-in. */
  userCode?: string;
  /** The user takes their time: the sign-in page stays open instead of sending them back. */
  dawdle?: boolean;
}

export interface SignInStandIn {
  url: string;
  script: SignInScript;
  close(): Promise<void>;
}

const base64url = (value: object) => Buffer.from(JSON.stringify(value)).toString('base64url');

/** An unsigned JWT with the claims Codex reads: email, plan and account. */
function idToken(script: SignInScript): string {
  const claims = {
    email: script.email,
    exp: Math.floor(Date.now() / 1000) + 3600,
    'https://api.openai.com/auth': { chatgpt_plan_type: script.plan, chatgpt_account_id: 'acct-stand-in', chatgpt_user_id: 'user-stand-in' },
  };
  return `${base64url({ alg: 'none', typ: 'JWT' })}.${base64url(claims)}.c3RhbmQtaW4`;
}

export async function startSignInStandIn(script: SignInScript): Promise<SignInStandIn> {
  const standIn = { script } as SignInStandIn;
  const server: Server = createServer(async (request, response) => {
    let body = '';
    for await (const chunk of request) body += chunk;
    const url = new URL(request.url ?? '/', 'http://stand-in.invalid');
    const json = (status: number, value: object) => response.writeHead(status, { 'content-type': 'application/json' }).end(JSON.stringify(value));
    switch (url.pathname) {
      case '/oauth/authorize': {
        if (standIn.script.dawdle) return void response.writeHead(200, { 'content-type': 'text/html' }).end('<title>sign in</title>');
        // The user "signs in" at once: straight back to Codex's callback with a code.
        const back = new URL(url.searchParams.get('redirect_uri') ?? '');
        back.searchParams.set('code', 'code-stand-in');
        back.searchParams.set('state', url.searchParams.get('state') ?? '');
        response.writeHead(302, { location: back.href }).end();
        return;
      }
      case '/oauth/token': {
        const form = new URLSearchParams(body);
        // The API-key exchange is refused: a ChatGPT sign-in works without one.
        if (form.get('grant_type') !== 'authorization_code') return json(400, { error: 'unsupported_grant_type' });
        const token = idToken(standIn.script);
        return json(200, { id_token: token, access_token: token, refresh_token: 'refresh-stand-in' });
      }
      case '/api/accounts/deviceauth/usercode':
        return json(200, { device_auth_id: 'device-stand-in', user_code: standIn.script.userCode ?? 'STAND-IN', interval: '1' });
      case '/backend-api/wham/accounts/check':
        // Codex asks which workspaces the account belongs to before it counts a sign-in as done.
        return json(200, { accounts: [{ id: 'acct-stand-in', workspace_backend_origin: 'https://chatgpt.com', account_routing_override: 'NO_CONSTRAINT' }], account_ordering: ['acct-stand-in'] });
      case '/backend-api/wham/usage':
        if (standIn.script.usedPercent === undefined) return json(404, {});
        return json(200, {
          plan_type: standIn.script.plan,
          rate_limit: { allowed: true, limit_reached: false, primary_window: { used_percent: standIn.script.usedPercent, limit_window_seconds: 18_000, reset_after_seconds: 3600, reset_at: Math.floor(Date.now() / 1000) + 3600 } },
        });
      default:
        return json(404, {});
    }
  });
  server.listen(0, '127.0.0.1');
  await once(server, 'listening');
  const { port } = server.address() as import('node:net').AddressInfo;
  return Object.assign(standIn, {
    url: `http://127.0.0.1:${port}`,
    close: async () => {
      server.closeAllConnections();
      server.close();
      await once(server, 'close');
    },
  });
}
