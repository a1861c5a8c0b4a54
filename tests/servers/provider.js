// A real OpenID provider on loopback for the libqxss tests.
//   node provider.js [port]                      (0 or nothing: any free port)
//   node provider.js [port] --tls CERT KEY       HTTPS, with HTTP/2 beside HTTP/1.1 (ALPN)
//   node provider.js [port] --tls CERT KEY --http1   HTTPS with HTTP/1.1 only, as some
//                                                    providers and their proxies still serve
// Prints one line "READY <base URL>" when it listens. Discovery is served at
// <base>/.well-known/openid-configuration and, with its own endpoints, under <base>/v2.0.
// QXSS_PROVIDER_STORE=map in the environment: a store without the default's ~1,000-entry limit
// (map-adapter.js), for runs that mint hundreds of codes ahead of their use.
import fs from 'node:fs';
import http from 'node:http';
import http2 from 'node:http2';
import https from 'node:https';
import { Readable } from 'node:stream';
import Provider from 'oidc-provider';
import MapAdapter from './map-adapter.js';

export const clients = [
  {
    client_id: 'qxss-client',
    client_secret: 'qxss-secret',
    redirect_uris: ['http://127.0.0.1:18080/cb', 'http://127.0.0.1:18081/cb2', 'http://127.0.0.2:18082/cb3'],
  },
  {
    client_id: 'qxss-other',
    client_secret: 'other-secret',
    redirect_uris: ['http://127.0.0.1:18090/cb'],
  },
  {
    // The example web application (examples/webapp) listens on whatever loopback port is free:
    // a native client's loopback redirect URI matches on any port.
    client_id: 'qxss-webapp',
    client_secret: 'webapp-secret',
    application_type: 'native',
    redirect_uris: ['http://127.0.0.1/cb'],
  },
];

const users = {
  alice: { email: 'alice@example.com', preferred_username: 'alice', qx_login: 'alice.local' },
  bob: { email: 'bob@example.com', preferred_username: 'bob', qx_login: 'bob.local' },
  'carol|x': { email: 'carol@example.com', preferred_username: 'carol|x', qx_login: 'carol' },
};
// Ten more people, so that ten browsers can sign in at once as ten different users.
for (let i = 1; i <= 10; i += 1) {
  const name = `user${String(i).padStart(2, '0')}`;
  users[name] = { email: `${name}@example.com`, preferred_username: name, qx_login: `${name}.local` };
}

const extraScopes = ['https://graph.microsoft.com/User.Read'];

function configuration() {
  return {
    ...(process.env.QXSS_PROVIDER_STORE === 'map' ? { adapter: MapAdapter } : {}),
    clients: clients.map((c) => ({
      ...c,
      grant_types: ['authorization_code', 'refresh_token'],
      response_types: ['code'],
      token_endpoint_auth_method: 'client_secret_basic',
    })),
    pkce: { required: () => true, methods: ['S256'] },
    features: {
      devInteractions: { enabled: true },
      revocation: { enabled: true },
      userinfo: { enabled: true },
    },
    scopes: ['openid', 'offline_access', 'email', 'profile', ...extraScopes],
    claims: {
      openid: ['sub'],
      email: ['email', 'email_verified'],
      profile: ['preferred_username', 'qx_login', 'name'],
    },
    extraParams: ['access_type'],
    cookies: { keys: ['qxss-test-cookie-key'] },
    // Refresh tokens for every code grant, as the tests' providers are configured to give.
    issueRefreshToken: async (ctx, client) => client.grantTypeAllowed('refresh_token'),
    // No consent page: the test user grants whatever was asked.
    loadExistingGrant: async (ctx) => {
      const existing = ctx.oidc.result?.consent?.grantId || ctx.oidc.session.grantIdFor(ctx.oidc.client.clientId);
      if (existing) {
        const found = await ctx.oidc.provider.Grant.find(existing);
        if (found) return found;
      }
      const grant = new ctx.oidc.provider.Grant({
        clientId: ctx.oidc.client.clientId,
        accountId: ctx.oidc.session.accountId,
      });
      grant.addOIDCScope('openid email profile offline_access');
      grant.addOIDCClaims(['email', 'email_verified', 'preferred_username', 'qx_login', 'name']);
      await grant.save();
      return grant;
    },
    findAccount: async (ctx, sub) => {
      const user = users[sub];
      if (!user) return undefined;
      return { accountId: sub, claims: async () => ({ sub, email_verified: true, ...user }) };
    },
    ttl: { AccessToken: 3600, AuthorizationCode: 600, RefreshToken: 86400, Session: 3600, Interaction: 600, Grant: 86400 },
    renderError: async (ctx, out) => {
      ctx.type = 'application/json';
      ctx.body = out;
    },
  };
}

// Real providers take client credentials as form fields or as an HTTP Basic header alike;
// the clients are registered for Basic, so form credentials are moved into the header.
async function credentialsFromForm(ctx, next) {
  const isForm = ctx.method === 'POST' && (ctx.get('content-type') || '').startsWith('application/x-www-form-urlencoded');
  if (!isForm || ctx.get('authorization')) return next();
  const chunks = [];
  for await (const chunk of ctx.req) chunks.push(chunk);
  const params = new URLSearchParams(Buffer.concat(chunks).toString('utf8'));
  if (params.has('client_secret')) {
    const id = params.get('client_id') || '';
    const secret = params.get('client_secret');
    params.delete('client_secret');
    params.delete('client_id');
    ctx.req.headers.authorization = `Basic ${Buffer.from(`${encodeURIComponent(id)}:${encodeURIComponent(secret)}`).toString('base64')}`;
  }
  const body = Buffer.from(params.toString());
  const replacement = Readable.from([body]);
  replacement.headers = { ...ctx.req.headers, 'content-length': String(body.length) };
  replacement.method = ctx.req.method;
  replacement.url = ctx.req.url;
  replacement.socket = ctx.req.socket;
  replacement.httpVersion = ctx.req.httpVersion;
  ctx.req = replacement;
  ctx.request.req = replacement;
  return next();
}

async function makeProvider(issuer) {
  const provider = new Provider(issuer, configuration());
  provider.proxy = false;
  provider.use(credentialsFromForm);
  return provider;
}

// Test controls, outside the provider's own paths:
//   GET /qxss-test/requests             {"<path>": <count>} of every request so far
//   GET /qxss-test/revocation-body/on   revocations answer 200 with a JSON body
//   GET /qxss-test/revocation-body/off  revocations answer as the provider does: 200, empty
//   GET /qxss-test/delay/<ms>           the token, userinfo and revocation endpoints answer
//                                       each call <ms> milliseconds later (0: at once), as a
//                                       provider across a network does; sign-in pages do not
//   GET /qxss-test/hold/<n>             the next <n> calls to those endpoints get no answer
//                                       (a provider that hangs), until released
//   GET /qxss-test/held                 {"held": <calls held now>}
//   GET /qxss-test/release              answers every held call, late; {"released": <n>}
const requestCounts = {};
let revocationBody = false;
let clientCallDelay = 0;
let toHold = 0;
const held = [];

function answerJson(res, value) {
  res.writeHead(200, { 'content-type': 'application/json' });
  res.end(JSON.stringify(value));
}

function control(path, res) {
  if (path === '/qxss-test/requests') {
    res.writeHead(200, { 'content-type': 'application/json' });
    res.end(JSON.stringify(requestCounts));
    return;
  }
  const switched = /^\/qxss-test\/revocation-body\/(on|off)$/.exec(path);
  if (switched) {
    revocationBody = switched[1] === 'on';
    res.writeHead(200, { 'content-type': 'application/json' });
    res.end(JSON.stringify({ revocationBody }));
    return;
  }
  const delay = /^\/qxss-test\/delay\/([0-9]+)$/.exec(path);
  if (delay) {
    clientCallDelay = Number(delay[1]);
    res.writeHead(200, { 'content-type': 'application/json' });
    res.end(JSON.stringify({ delay: clientCallDelay }));
    return;
  }
  const hold = /^\/qxss-test\/hold\/([0-9]+)$/.exec(path);
  if (hold) {
    toHold = Number(hold[1]);
    answerJson(res, { hold: toHold });
    return;
  }
  if (path === '/qxss-test/held') {
    answerJson(res, { held: held.length });
    return;
  }
  if (path === '/qxss-test/release') {
    toHold = 0;
    const released = held.splice(0, held.length);
    for (const handle of released) handle();
    answerJson(res, { released: released.length });
    return;
  }
  res.writeHead(404);
  res.end();
}

// The endpoints a client calls after the sign-in, at the root and under /v2.0.
function isClientCall(path) {
  return /^(\/v2\.0)?\/(token|me|token\/revocation)$/.test(path);
}

// RFC 7009 lets a provider answer a revocation with an empty 200, as this one does; some
// answer with a body. This makes the provider one of the latter, without changing what it does.
function answerRevocationWithBody(res) {
  const setHeader = res.setHeader.bind(res);
  const end = res.end.bind(res);
  res.setHeader = (name, value) => (name.toLowerCase() === 'content-length' ? res : setHeader(name, value));
  res.end = (chunk, ...rest) => {
    if (res.statusCode === 200 && (!chunk || chunk.length === 0)) {
      if (!res.headersSent) setHeader('content-type', 'application/json');
      return end('{"revoked":true}');
    }
    return end(chunk, ...rest);
  };
}

// With --tls the provider answers as the big ones do: TLS with the given certificate, and
// HTTP/2 to clients that offer it in ALPN, HTTP/1.1 to the others, on the same port.
const args = process.argv.slice(2);
const tlsAt = args.indexOf('--tls');
const tls = tlsAt >= 0 ? { cert: fs.readFileSync(args[tlsAt + 1]), key: fs.readFileSync(args[tlsAt + 2]) } : null;
if (tlsAt >= 0) args.splice(tlsAt, 3);
const http1At = args.indexOf('--http1');
if (http1At >= 0) args.splice(http1At, 1);
const port = Number(args[0] || 0);
const server = !tls ? http.createServer()
  : http1At >= 0 ? https.createServer(tls)
  : http2.createSecureServer({ ...tls, allowHTTP1: true });
server.listen(port, '127.0.0.1', async () => {
  const base = `${tls ? 'https' : 'http'}://127.0.0.1:${server.address().port}`;
  const root = await makeProvider(base);
  const v2 = await makeProvider(`${base}/v2.0`);
  const rootHandler = root.callback();
  const v2Handler = v2.callback();
  server.on('request', (req, res) => {
    const path = req.url.split('?')[0];
    if (path.startsWith('/qxss-test/')) {
      control(path, res);
      return;
    }
    requestCounts[path] = (requestCounts[path] || 0) + 1;
    if (revocationBody && path.endsWith('/token/revocation')) answerRevocationWithBody(res);
    const handle = () => {
      if (req.url === '/v2.0' || req.url.startsWith('/v2.0/')) {
        req.originalUrl = req.url;
        req.baseUrl = '/v2.0';
        req.url = req.url.slice('/v2.0'.length) || '/';
        v2Handler(req, res);
      } else {
        rootHandler(req, res);
      }
    };
    if (toHold > 0 && isClientCall(path)) {
      toHold -= 1;
      held.push(handle);
    } else if (clientCallDelay > 0 && isClientCall(path)) setTimeout(handle, clientCallDelay);
    else handle();
  });
  process.stdout.write(`READY ${base}\n`);
});

process.on('SIGTERM', () => process.exit(0));
process.on('SIGINT', () => process.exit(0));
// The test program that started us may die without stopping us.
process.stdin.on('end', () => process.exit(0));
process.stdin.resume();
