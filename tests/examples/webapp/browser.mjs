// The example web application in a real browser.
//   node browser.mjs <web application program> <screenshot folder>
// Starts the local provider and three instances of the web application on free loopback
// ports, then drives Debian's headless Chromium through puppeteer-core:
// - plain HTTP: a person signs in as alice at the provider's own login form, refreshes, signs
//   out; the cookies' attributes; a replayed callback, a callback without the login cookie,
//   one with another browser's login cookie and one meant for another browser are refused; a
//   tampered state is refused; the provider's error callback; forms from another site are
//   refused; an unanswered request ends on an error page; /healthz with a live and a stalled
//   worker; the log file's mode and escaping; the connection and size limits; ten browsers
//   sign in at once; a user name of 255 bytes is kept whole and one of 256 refused;
// - HTTPS with a throw-away certificate that only this Chromium trusts: __Host- cookies,
//   Secure, HSTS, the Origin check against https;
// - tight limits: a flood of sign-ins from 127.0.0.2 gets 429 while alice on 127.0.0.1 signs
//   in, a full pending store answers 503 without pushing out bob's sign-in under way, its
//   entries make room after their lifetime, and a session ends at its lifetime unless a
//   refresh moves it;
// - behind a balancer: X-Forwarded-For from it alone, the public origin, __Host- cookies.
// Saves a screenshot of every page it checks.
// Exit 0: passed, 1: failed, 77: no Chromium or puppeteer-core here (skipped).
import { execFileSync, spawn } from 'node:child_process';
import { createHash, X509Certificate } from 'node:crypto';
import {
  chmodSync, existsSync, mkdirSync, mkdtempSync, readdirSync, readFileSync, rmSync, statSync, symlinkSync, unlinkSync, writeFileSync,
} from 'node:fs';
import http from 'node:http';
import https from 'node:https';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';
import {
  check, chromium, loadPuppeteer, run, screenshots, serversDir, text,
} from '../browserTest.mjs';

const [program, shotsDir] = process.argv.slice(2);
const children = [];
const temporary = [];

const puppeteer = loadPuppeteer();

function temporaryDir(name) {
  const dir = mkdtempSync(path.join(os.tmpdir(), `qxss-webapp-${name}-`));
  temporary.push(dir);
  return dir;
}

// Starts a program and resolves with the first stdout line that `ready` matches.
function start(command, args, options, ready) {
  const child = spawn(command, args, { ...options, stdio: ['pipe', 'pipe', 'inherit'] });
  children.push(child);
  return new Promise((resolve, reject) => {
    let out = '';
    child.stdout.on('data', (chunk) => {
      out += chunk;
      const found = out.split('\n').find((line) => ready.test(line));
      if (found) resolve({ child, line: found });
    });
    child.on('exit', (code) => reject(new Error(`${command} ended early (${code})`)));
  });
}

function freePort() {
  return new Promise((resolve) => {
    const server = net.createServer().listen(0, '127.0.0.1', () => {
      const { port } = server.address();
      server.close(() => resolve(port));
    });
  });
}

// Two entries; the second (whose name shows that what comes from the configuration is escaped
// in the page) may name another provider address.
function configuration(base, callback, secondBase = base) {
  const provider = (name, desc, idp) => ({
    name,
    desc,
    type: 'OAuth',
    provider: 'keycloak',
    config: {
      idp_domain: idp,
      client_id: 'qxss-webapp',
      client_secret: 'webapp-secret',
      redirect_uris: [callback],
      qx_user_type: 'local',
      qx_refresh: true,
      qx_refresh_lifetime: 3600,
    },
  });
  return [provider('Local provider', 'The local test provider', base),
    provider('Second <i>one</i> & co', 'Same "provider"', secondBase)];
}

// One instance of the application with a configuration directory of its own. `callback` is
// the redirect URI registered for it (by default its own /cb over plain HTTP). The port must be
// in the configuration before the application starts, so it is chosen free and then bound by
// the application; another program may take it in between, and then the application cannot
// listen and ends: the next try takes another port.
async function startApp(base, options) {
  for (let attempt = 1; ; attempt += 1) {
    try {
      return await startAppOnce(base, options);
    } catch (error) {
      if (options.port !== undefined || attempt === 5) throw error;
      console.log(`${options.name}: the application did not start (${error.message}); trying another port`);
    }
  }
}

async function startAppOnce(base, { name, scheme = 'http', args = [], env = {}, callback, port: chosen, secondBase }) {
  const configDir = temporaryDir(name);
  const port = chosen ?? await freePort();
  const origin = `${scheme}://127.0.0.1:${port}`;
  writeFileSync(path.join(configDir, 'sso.cfg'), JSON.stringify(configuration(base, callback ?? `${origin}/cb`, secondBase), null, 2));
  const { child } = await start(program, ['--port', String(port), ...args], {
    env: { ...process.env, QXSS_WEBAPP_CONFIG_DIR: configDir, ...env },
  }, /listening on/);
  return { origin, port, child, configDir };
}

// The application's exit status after SIGTERM (in a sanitizer build: non-zero on leaks).
function stop(app) {
  return new Promise((resolve) => {
    app.child.removeAllListeners('exit');
    app.child.on('exit', (code, signal) => resolve(code ?? signal));
    app.child.kill('SIGTERM');
  });
}

// One HTTP(S) request outside the browser: { status, headers, body }, or { error }.
function request(url, { method = 'GET', headers = {}, body, localAddress, ca } = {}) {
  const target = new URL(url);
  const client = target.protocol === 'https:' ? https : http;
  return new Promise((resolve) => {
    const sent = client.request(target, { method, headers, localAddress, ca, agent: false }, (response) => {
      let text = '';
      response.setEncoding('utf8');
      response.on('data', (chunk) => { text += chunk; });
      response.on('end', () => resolve({ status: response.statusCode, headers: response.headers, body: text }));
    });
    sent.on('error', (error) => resolve({ error }));
    if (body) sent.write(body);
    sent.end();
  });
}

const screenshot = screenshots(shotsDir);

// A page for an answer that the browser did not load itself (a request from another address).
async function screenshotOf(browser, answer, name) {
  const page = await browser.newPage();
  await page.setContent(answer.body);
  await screenshot(page, name);
  await page.close();
}

// From the application's sign-in page through the provider's pages and back.
async function signIn(page, app, user, onLoginForm = async () => {}, option = 0) {
  await page.goto(app);
  await Promise.all([page.waitForNavigation(), page.click(`button[name="option"][value="${option}"]`)]);
  await signInAtProvider(page, app, user, onLoginForm);
}

async function signInAtProvider(page, app, user, onLoginForm = async () => {}) {
  for (let step = 0; step < 6 && !page.url().startsWith(app); step += 1) {
    const login = await page.$('input[name="login"]');
    if (login) {
      await onLoginForm(page);
      await login.type(user);
      await page.type('input[name="password"]', 'any password');
    }
    await Promise.all([page.waitForNavigation(), page.click('button[type="submit"]')]);
  }
}

// Signs `user` in at the provider but holds the browser's way back: the callback URL and the
// browser's login cookie, as they would have reached the application.
async function heldCallback(page, app, user) {
  await page.setRequestInterception(true);
  let held;
  const hold = (intercepted) => {
    const url = new URL(intercepted.url());
    if (intercepted.isNavigationRequest() && url.origin === app && url.pathname === '/cb') {
      held = url.toString();
      intercepted.respond({ status: 200, contentType: 'text/plain', body: 'held by the test' });
    } else {
      intercepted.continue();
    }
  };
  page.on('request', hold);
  await signIn(page, app, user);
  page.off('request', hold);
  await page.setRequestInterception(false);
  const loginCookie = (await page.cookies(`${app}/cb`)).find((c) => c.name === 'qxss_login');
  return { url: held, loginCookie };
}

async function cookieNamed(page, url, name) {
  return (await page.cookies(url)).find((c) => c.name === name);
}

// A page of another site (127.0.0.2) with one form that posts to the application.
async function startOtherSite() {
  const server = http.createServer((req, res) => {
    const target = new URL(req.url, 'http://x').searchParams.get('to') ?? '';
    res.writeHead(200, { 'content-type': 'text/html' });
    res.end(`<!DOCTYPE html><title>Another site</title><h1>Win a prize</h1>
      <form method="post" action="${target.replace(/"/g, '')}"><button type="submit">Claim</button></form>`);
  });
  await new Promise((resolve) => server.listen(0, '127.0.0.2', resolve));
  return { server, origin: `http://127.0.0.2:${server.address().port}` };
}

// Posts the other site's form to `target` in `page`: the application's answer.
async function crossSitePost(page, otherSite, target) {
  await page.goto(`${otherSite.origin}/?to=${encodeURIComponent(target)}`);
  const [answer] = await Promise.all([page.waitForNavigation(), page.click('button')]);
  return answer;
}

// A throw-away certificate for 127.0.0.1, and the SHA-256 of its public key, which is all
// that Chromium is told to accept beyond its own trust.
function throwAwayCertificate() {
  const dir = temporaryDir('tls');
  const cert = path.join(dir, 'cert.pem');
  const key = path.join(dir, 'key.pem');
  execFileSync('openssl', ['req', '-x509', '-newkey', 'ec', '-pkeyopt', 'ec_paramgen_curve:P-256', '-nodes',
    '-keyout', key, '-out', cert, '-days', '1', '-subj', '/CN=127.0.0.1',
    '-addext', 'subjectAltName=IP:127.0.0.1'], { stdio: 'ignore' });
  const pem = readFileSync(cert, 'utf8');
  const spki = new X509Certificate(pem).publicKey.export({ type: 'spki', format: 'der' });
  return { cert, key, pem, spkiHash: createHash('sha256').update(spki).digest('base64') };
}

// The provider registers plain-HTTP loopback callbacks only, so the HTTPS instance's callback
// is this address, which sends the browser on to the application's https one, as a site's
// port 80 sends browsers to its port 443.
async function startUpgrade(httpsOrigin) {
  const server = http.createServer((req, res) => {
    res.writeHead(303, { location: `${httpsOrigin}${req.url}` });
    res.end();
  });
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  return { server, origin: `http://127.0.0.1:${server.address().port}` };
}

// The local provider with another userinfo endpoint in its discovery document: this one, which
// answers as the provider does but gives user03 a name (the e-mail's local part) of 255 bytes
// and user04 one of 256, since a provider may send a name of any length.
async function startLongNames(base) {
  const lengths = { user03: 255, user04: 256 };
  let origin;
  const server = http.createServer(async (req, res) => {
    const upstream = await fetch(`${base}${req.url}`, { headers: { authorization: req.headers.authorization ?? '' } });
    let body = await upstream.text();
    if (req.url.startsWith('/.well-known/')) {
      body = body.replace(`"${base}/me"`, `"${origin}/me"`);
    } else if (upstream.ok) {
      const info = JSON.parse(body);
      if (lengths[info.sub]) info.email = `${'n'.repeat(lengths[info.sub])}@example.com`;
      body = JSON.stringify(info);
    }
    res.writeHead(upstream.status, { 'content-type': upstream.headers.get('content-type') ?? 'application/json' });
    res.end(body);
  });
  await new Promise((resolve) => server.listen(0, '127.0.0.1', resolve));
  origin = `http://127.0.0.1:${server.address().port}`;
  return { server, origin };
}

function sleep(ms) {
  return new Promise((resolve) => { setTimeout(resolve, ms); });
}

async function plainHttp(browser, base, otherSite, app, libraryLog, stallFile) {
  const origin = app.origin;
  const page = await browser.newPage();
  page.setDefaultTimeout(60000);
  const seen = []; // every URL the browser asked for, to learn the code, state and nonce
  page.on('request', (r) => seen.push(r.url()));

  // The sign-in page: the options as buttons, the names escaped.
  await page.goto(origin);
  await screenshot(page, 'login-options');
  const buttons = await page.$$eval('button[name="option"]', (all) => all.map((b) => b.textContent));
  check(buttons.length === 2 && buttons[0] === 'Sign in with Local provider', 'the login options are buttons');
  check(buttons[1] === 'Sign in with Second <i>one</i> & co' && (await page.$('button i')) === null,
    'a provider name is shown as text, not as HTML');

  // alice signs in at the provider's own form.
  await signIn(page, origin, 'alice', async (form) => {
    check(form.url().startsWith(base), 'the login form is the provider\'s');
    const login = await cookieNamed(form, `${origin}/cb`, 'qxss_login');
    check(login && login.httpOnly && login.sameSite === 'Lax' && login.path === '/cb' && !login.secure,
      'over HTTP the login cookie is HttpOnly, SameSite=Lax, for /cb only');
    await screenshot(form, 'provider-login');
  });
  await screenshot(page, 'signed-in');
  const welcome = await text(page);
  check(/Signed in as alice/.test(welcome), 'alice is signed in');
  check(/valid until \d{4}-\d\d-\d\d/.test(welcome), 'the page shows when the session ends');
  const callback = new URL(seen.find((url) => url.startsWith(`${origin}/cb?`)));
  const authorization = new URL(seen.find((url) => url.startsWith(`${base}/auth?`)));
  const html = await page.content();
  for (const secret of [callback.searchParams.get('code'), callback.searchParams.get('state'), authorization.searchParams.get('nonce')]) {
    check(secret && !html.includes(secret), 'neither code nor state nor nonce is in the page');
  }
  const session = await cookieNamed(page, origin, 'qxss_session');
  check(session && session.httpOnly && session.sameSite === 'Lax' && session.path === '/' && !session.secure,
    'over HTTP the session cookie is HttpOnly, SameSite=Lax, not Secure');
  check(!(await cookieNamed(page, `${origin}/cb`, 'qxss_login')), 'the login cookie is gone after the callback');
  check((await page.evaluate(() => document.cookie)) === '', 'the page\'s scripts see no cookie');
  check(!readFileSync(libraryLog, 'utf8').includes(session.value), 'the cookie is no value of the library');

  // The same callback URL again: the login was used up.
  const replayed = await page.goto(callback.toString());
  await screenshot(page, 'callback-replayed');
  check(replayed.status() === 400 && /already used/.test(await text(page)), 'a replayed callback is refused');
  await page.goto(origin);
  check(/Signed in as alice/.test(await text(page)), 'the replay did not touch alice\'s session');

  // Another site's forms are not obeyed, whatever cookies come with them.
  const refreshFromElsewhere = await crossSitePost(page, otherSite, `${origin}/refresh`);
  await screenshot(page, 'cross-site-refresh');
  check(refreshFromElsewhere.status() === 403 && /not sent from this site/.test(await text(page)),
    'a refresh posted from another site is refused');
  const logoutFromElsewhere = await crossSitePost(page, otherSite, `${origin}/logout`);
  await screenshot(page, 'cross-site-logout');
  check(logoutFromElsewhere.status() === 403, 'a sign-out posted from another site is refused');
  await page.goto(origin);
  const untouched = await text(page);
  check(/Signed in as alice/.test(untouched) && !/Refreshed/.test(untouched), 'alice is still signed in, not refreshed');

  // Refresh: a new expiry under a new session value, still alice.
  await Promise.all([page.waitForNavigation(), page.click('#refresh')]);
  await screenshot(page, 'refreshed');
  const refreshed = await text(page);
  check(/Signed in as alice/.test(refreshed) && /Refreshed 1 time\./.test(refreshed), 'the session was refreshed', refreshed);

  // Sign out: the session is forgotten.
  await Promise.all([page.waitForNavigation(), page.click('#logout')]);
  await screenshot(page, 'signed-out');
  check((await page.$$('button[name="option"]')).length === 2, 'after signing out the options are back');
  check(!(await cookieNamed(page, origin, 'qxss_session')), 'the session cookie is gone');
  await Promise.all([page.waitForNavigation(), page.goto(origin)]);
  check(!/Signed in/.test(await text(page)), 'the old session no longer signs in');

  // A state changed on the way back from the provider is refused.
  const tamper = (r) => {
    const url = new URL(r.url());
    if (r.isNavigationRequest() && url.origin === origin && url.pathname === '/cb') {
      url.searchParams.set('state', `${url.searchParams.get('state')}x`);
      r.continue({ url: url.toString() });
    } else {
      r.continue();
    }
  };
  await page.setRequestInterception(true);
  page.on('request', tamper);
  await signIn(page, origin, 'alice');
  page.off('request', tamper);
  await screenshot(page, 'tampered-state');
  const refused = await text(page);
  check(/Sign-in refused/.test(refused) && !/Signed in as/.test(refused), 'a tampered state is refused');
  check(!(await cookieNamed(page, origin, 'qxss_session')), 'a refused login gets no session');
  await page.setRequestInterception(false);

  // The provider's error callback: the person cancels at the provider's login form.
  await page.goto(origin);
  await Promise.all([page.waitForNavigation(), page.click('button[name="option"][value="0"]')]);
  const cancelled = await Promise.all([page.waitForNavigation(), page.click('a[href*="abort"]')]);
  for (let step = 0; step < 4 && !page.url().startsWith(origin); step += 1) {
    await page.waitForNavigation();
  }
  await screenshot(page, 'provider-error');
  check(cancelled && /Sign-in cancelled/.test(await text(page)) && /\(access_denied\)/.test(await text(page)),
    'the provider\'s access_denied callback ends on an error page');
  check(!(await cookieNamed(page, `${origin}/cb`, 'qxss_login')), 'the error callback used up the login');

  // The library answers no command for an option ID that it reads as below 1: the
  // application gives up after its bounded wait.
  const began = Date.now();
  const answer = await page.goto(`${origin}/login?option=00`);
  await screenshot(page, 'no-answer');
  check(answer.status() === 504 && /did not answer in time/.test(await text(page)), 'an unanswered request gets an error page');
  check(Date.now() - began < 15000, 'the wait for an answer is bounded');

  // /healthz asks the worker; a worker that stands still is reported.
  const healthy = await page.goto(`${origin}/healthz`);
  await screenshot(page, 'healthz');
  check(healthy.status() === 200 && (await text(page)).trim() === 'ok', '/healthz is 200 while the worker answers');
  writeFileSync(stallFile, 'stalled by the test\n');
  const stalled = await request(`${origin}/healthz`);
  unlinkSync(stallFile);
  check(stalled.status === 503 && /does not answer/.test(stalled.body), '/healthz is 503 while the worker stands still');
  check((await request(`${origin}/healthz`)).status === 200, '/healthz is 200 again once the worker goes on');
  await page.close();

  // Callbacks that are not this browser's. Each browser is a context of its own.
  const contexts = await Promise.all(Array.from({ length: 5 }, () => browser.createBrowserContext()));
  const [bobs, fresh, intruder, carols, daves] = await Promise.all(contexts.map(async (c) => {
    const p = await c.newPage();
    p.setDefaultTimeout(60000);
    return p;
  }));
  const bob = await heldCallback(bobs, origin, 'bob');
  check(bob.url && bob.loginCookie, 'bob came back from the provider (held by the test)');
  const noCookie = await fresh.goto(bob.url);
  await screenshot(fresh, 'callback-without-login-cookie');
  check(noCookie.status() === 400 && /expired or was already used/.test(await text(fresh)),
    'a callback without the login cookie is refused');
  await intruder.goto(`${origin}/login?option=0`); // a sign-in of its own, and its login cookie
  const notMine = await intruder.goto(bob.url);
  await screenshot(intruder, 'callback-of-another-browser');
  check(notMine.status() === 403 && /Sign-in refused/.test(await text(intruder)),
    'another browser\'s callback is refused in a browser with its own sign-in under way');
  check(!(await cookieNamed(intruder, origin, 'qxss_session')), 'the other browser got no session');
  await bobs.goto(bob.url);
  check(/Signed in as bob/.test(await text(bobs)), 'bob\'s own browser still signs in with that callback');
  await screenshot(bobs, 'bob-signed-in');
  const carol = await heldCallback(carols, origin, 'user01');
  const dave = await heldCallback(daves, origin, 'user02');
  await carols.setCookie({ ...dave.loginCookie, url: `${origin}/cb` });
  const swapped = await carols.goto(carol.url);
  await screenshot(carols, 'callback-with-other-login-cookie');
  check(swapped.status() === 403 && /Sign-in refused/.test(await text(carols)),
    'a callback with another browser\'s login cookie is refused');
  await Promise.all(contexts.map((c) => c.close()));

  // Requests that no browser of ours sends.
  const noOrigin = await request(`${origin}/logout`, { method: 'POST' });
  check(noOrigin.status === 403, 'a POST with neither Origin nor Referer is refused');
  const nullOrigin = await request(`${origin}/logout`, { method: 'POST', headers: { origin: 'null' } });
  check(nullOrigin.status === 403, 'a POST with Origin "null" is refused');
  const ourReferer = await request(`${origin}/logout`, { method: 'POST', headers: { referer: `${origin}/` } });
  check(ourReferer.status === 303, 'a POST whose Referer is a page of ours is obeyed');
  const otherPort = await request(`${origin}/logout`, { method: 'POST', headers: { origin: 'http://127.0.0.1:1' } });
  check(otherPort.status === 403, 'an Origin on another port is refused');
  const head = await request(`${origin}/login?option=0`, { method: 'HEAD' });
  check(head.status === 405 && head.headers.allow === 'GET' && !head.headers['set-cookie'],
    'HEAD /login starts no sign-in');
  const headCallback = await request(`${origin}/cb?code=x&state=y`, { method: 'HEAD' });
  check(headCallback.status === 405, 'HEAD /cb uses up nothing');
  const bigBody = 'x'.repeat(4096);
  const big = await request(`${origin}/logout`, {
    method: 'POST', headers: { origin, 'content-type': 'text/plain', 'content-length': bigBody.length }, body: bigBody,
  });
  check(big.status === 413, 'a body announced over the limit is refused');
  const chunked = await request(`${origin}/logout`, { method: 'POST', headers: { origin, 'content-type': 'text/plain' }, body: bigBody });
  check(chunked.error !== undefined, 'a chunked body that grows over the limit loses its connection');
  const bigHeader = await request(`${origin}/`, { headers: { 'x-filler': 'x'.repeat(20000) } });
  check(bigHeader.error || bigHeader.status === 431, 'a header over the limit is refused');

  // The log: private, appended to, and one line per statement whatever the provider sent.
  const mode = statSync(libraryLog).mode & 0o777;
  check(mode === 0o600, `the library's log is readable by its owner alone (${mode.toString(8)})`);
  const log = readFileSync(libraryLog, 'utf8');
  check(log.startsWith('an earlier run\n'), 'the log is appended to');
  const lines = log.split('\n').slice(1, -1);
  check(lines.length > 0 && lines.every((line) => /^(Sso\w*|CurlRequest): /.test(line)),
    'every line of the log is one statement of the library');
  check(log.includes('SSO_VERIFY_OK|') && log.includes('\\x0a'), 'line ends inside a statement are escaped');

  // Ten browsers at once, each its own user.
  const users = Array.from({ length: 10 }, (_, i) => `user${String(i + 1).padStart(2, '0')}`);
  const crowd = await Promise.all(users.map(() => browser.createBrowserContext()));
  const pages = await Promise.all(crowd.map((context) => context.newPage()));
  await Promise.all(pages.map((p, i) => {
    p.setDefaultTimeout(120000);
    return signIn(p, origin, users[i]);
  }));
  for (let i = 0; i < users.length; i += 1) {
    check(new RegExp(`Signed in as ${users[i]}\\b`).test(await text(pages[i])), `browser ${i + 1} is signed in as ${users[i]}`);
  }
  await screenshot(pages[9], 'ten-at-once');
  await Promise.all(crowd.map((context) => context.close()));

  // A user name is kept whole or not at all.
  const [longest, tooLong] = await Promise.all([0, 1].map(() => browser.createBrowserContext()));
  const longestPage = await longest.newPage();
  await signIn(longestPage, origin, 'user03', async () => {}, 1);
  await screenshot(longestPage, 'name-of-255-bytes');
  check((await longestPage.$eval('#user strong', (e) => e.textContent)) === 'n'.repeat(255),
    'a user name of 255 bytes is kept whole');
  const tooLongPage = await tooLong.newPage();
  await signIn(tooLongPage, origin, 'user04', async () => {}, 1);
  await screenshot(tooLongPage, 'name-of-256-bytes');
  check(/longer than this application can keep/.test(await text(tooLongPage)), 'a user name of 256 bytes is refused, not cut');
  check(!(await cookieNamed(tooLongPage, origin, 'qxss_session')), 'the refused name got no session');
  await Promise.all([longest.close(), tooLong.close()]);

  // The connection limit per address: a client that holds its connections open gets no more.
  const held = await Promise.all(Array.from({ length: 16 }, () => new Promise((resolve) => {
    const socket = net.connect({ host: '127.0.0.1', port: app.port, localAddress: '127.0.0.5' }, () => resolve(socket));
    socket.on('error', () => resolve(socket));
  })));
  const overLimit = await request(`${origin}/healthz`, { localAddress: '127.0.0.5' });
  const otherAddress = await request(`${origin}/healthz`, { localAddress: '127.0.0.6' });
  held.forEach((socket) => socket.destroy());
  check(overLimit.error && otherAddress.status === 200, 'an address over its connection limit is turned away, others are not');
}

async function overHttps(browser, base, otherSite, app, tls) {
  const origin = app.origin;
  const context = await browser.createBrowserContext();
  const page = await context.newPage();
  page.setDefaultTimeout(60000);
  const first = await page.goto(origin);
  await screenshot(page, 'https-login-options');
  check(page.url().startsWith('https://') && (await page.$$('button[name="option"]')).length === 2,
    'the application serves its pages over TLS');
  check(/max-age=\d+/.test(first.headers()['strict-transport-security'] || ''), 'over TLS the answers carry HSTS');
  await signIn(page, origin, 'alice', async (form) => {
    const login = await cookieNamed(form, `${origin}/`, '__Host-qxss_login');
    check(login && login.secure && login.httpOnly && login.sameSite === 'Lax' && login.path === '/',
      'over HTTPS the login cookie is __Host-, Secure, HttpOnly, SameSite=Lax');
  });
  await screenshot(page, 'https-signed-in');
  check(page.url().startsWith(origin) && /Signed in as alice/.test(await text(page)), 'alice signs in over HTTPS');
  const session = await cookieNamed(page, origin, '__Host-qxss_session');
  check(session && session.secure && session.httpOnly && session.sameSite === 'Lax' && session.path === '/',
    'over HTTPS the session cookie is __Host-, Secure, HttpOnly, SameSite=Lax');
  check(!(await cookieNamed(page, origin, 'qxss_session')), 'no unprefixed cookie over HTTPS');
  const refused = await crossSitePost(page, otherSite, `${origin}/refresh`);
  await screenshot(page, 'https-cross-site-refresh');
  check(refused.status() === 403, 'over HTTPS a refresh posted from another site is refused');
  await page.goto(origin);
  await Promise.all([page.waitForNavigation(), page.click('#refresh')]);
  const ownForm = await text(page);
  check(/Refreshed 1 time\./.test(ownForm), 'over HTTPS the page\'s own form is obeyed', ownForm);
  const plainOrigin = await request(`${origin}/logout`, { method: 'POST', headers: { origin: `http://127.0.0.1:${app.port}` }, ca: tls.pem });
  check(plainOrigin.status === 403, 'over HTTPS an http:// Origin is refused');
  const health = await request(`${origin}/healthz`, { ca: tls.pem });
  check(health.status === 200, '/healthz answers over HTTPS');
  await context.close();
}

async function underTightLimits(browser, base, app) {
  const origin = app.origin;
  // A flood of sign-ins from one address: five a minute, then 429.
  const flood = [];
  for (let i = 0; i < 12; i += 1) {
    flood.push(await request(`${origin}/login?option=0`, { localAddress: '127.0.0.2' }));
  }
  const limited = flood.filter((a) => a.status === 429);
  check(flood.slice(0, 5).every((a) => a.status === 303) && limited.length === 7,
    'a flood from 127.0.0.2 gets five sign-ins, then 429');
  check(limited.every((a) => Number(a.headers['retry-after']) >= 1), 'each 429 says when to retry');
  await screenshotOf(browser, limited[0], 'flood-429');

  // Meanwhile alice, on 127.0.0.1, signs in.
  const aliceContext = await browser.createBrowserContext();
  const alice = await aliceContext.newPage();
  alice.setDefaultTimeout(60000);
  await signIn(alice, origin, 'alice');
  const signedInAt = Date.now();
  await screenshot(alice, 'signed-in-during-flood');
  const aliceText = await text(alice);
  check(/Signed in as alice/.test(aliceText), 'alice signs in from 127.0.0.1 during the flood', aliceText);

  // Eight sign-ins may be under way: the flood holds five, bob starts one, 127.0.0.3 two.
  const bobContext = await browser.createBrowserContext();
  const bob = await bobContext.newPage();
  bob.setDefaultTimeout(60000);
  await bob.goto(origin);
  await Promise.all([bob.waitForNavigation(), bob.click('button[name="option"][value="0"]')]);
  check(bob.url().startsWith(base), 'bob is at the provider with his sign-in under way');
  for (let i = 0; i < 2; i += 1) {
    check((await request(`${origin}/login?option=0`, { localAddress: '127.0.0.3' })).status === 303, 'a sign-in from 127.0.0.3 starts');
  }
  const full = await request(`${origin}/login?option=0`, { localAddress: '127.0.0.4' });
  check(full.status === 503 && Number(full.headers['retry-after']) >= 1, 'with the pending store full, a new sign-in gets 503');
  await screenshotOf(browser, full, 'pending-full-503');
  await signInAtProvider(bob, origin, 'bob');
  await screenshot(bob, 'signed-in-with-store-full');
  check(/Signed in as bob/.test(await text(bob)), 'bob\'s sign-in under way was not pushed out');
  await bobContext.close();

  // alice's session lasts ten seconds; a refresh moves its end.
  await sleep(Math.max(0, signedInAt + 4000 - Date.now()));
  await Promise.all([alice.waitForNavigation(), alice.click('#refresh')]);
  const refreshedAt = Date.now();
  const refreshedPage = await text(alice);
  check(/Refreshed 1 time\./.test(refreshedPage), 'alice refreshes before her session ends', refreshedPage);
  await sleep(Math.max(0, signedInAt + 11000 - Date.now()));
  await alice.goto(origin);
  await screenshot(alice, 'after-first-lifetime');
  const livesOn = await text(alice);
  check(/Signed in as alice/.test(livesOn), 'past the first end the refreshed session lives', livesOn);
  await sleep(Math.max(0, refreshedAt + 11500 - Date.now()));
  await alice.goto(origin);
  await screenshot(alice, 'session-expired');
  check(!/Signed in/.test(await text(alice)) && (await alice.$$('button[name="option"]')).length === 2,
    'past its lifetime the session is over');
  await aliceContext.close();

  // By now the logins of the flood and of 127.0.0.3 are older than ten seconds: they make room.
  const later = await request(`${origin}/login?option=0`, { localAddress: '127.0.0.4' });
  check(later.status === 303, 'once the pending logins are past their lifetime, a new sign-in starts');
}

// Behind a balancer at 127.0.0.7 whose public origin is https://sso.example.test: only the
// balancer's X-Forwarded-For names the client, and only its last entry.
async function behindBalancer(app) {
  const login = (localAddress, forwarded) => request(`${app.origin}/login?option=0`, {
    localAddress, headers: forwarded ? { 'x-forwarded-for': forwarded } : {},
  }).then((answer) => answer.status);
  check((await login('127.0.0.7', '10.0.0.1')) === 303 && (await login('127.0.0.7', '10.0.0.1')) === 303
    && (await login('127.0.0.7', '10.0.0.1')) === 429, 'through the balancer the limit counts the forwarded client');
  check((await login('127.0.0.7', '10.0.0.2')) === 303, 'another forwarded client has its own limit');
  check((await login('127.0.0.7', '10.0.0.3, 10.0.0.1')) === 429, 'what the client claims before the balancer\'s entry is ignored');
  check((await login('127.0.0.7', '10.0.0.1, 10.0.0.4')) === 303, 'the balancer\'s own entry is the last one');
  const spoofed = [];
  for (let i = 0; i < 3; i += 1) spoofed.push(await login('127.0.0.8', `10.0.1.${i}`));
  check(spoofed.join() === '303,303,429', 'from any other address X-Forwarded-For is not believed');
  const fromPublic = await request(`${app.origin}/logout`, { method: 'POST', headers: { origin: 'https://sso.example.test' } });
  check(fromPublic.status === 303, 'a form from the public origin is obeyed');
  check(/^__Host-qxss_session=; Path=\/; HttpOnly; SameSite=Lax; Secure/.test(fromPublic.headers['set-cookie']?.[0] ?? ''),
    'behind an https public origin the cookies are __Host- and Secure');
  const fromBackend = await request(`${app.origin}/logout`, { method: 'POST', headers: { origin: app.origin } });
  check(fromBackend.status === 403, 'a form from the instance\'s own address is refused behind the balancer');
  check((await request(`${app.origin}/healthz`, { localAddress: '127.0.0.7' })).status === 200, '/healthz answers the balancer');
}

async function main() {
  mkdirSync(shotsDir, { recursive: true });
  readdirSync(shotsDir).filter((f) => f.endsWith('.png')).forEach((f) => unlinkSync(path.join(shotsDir, f)));
  const providerStarted = await start('node', ['provider.js', '0'], { cwd: serversDir }, /^READY /);
  const base = providerStarted.line.split(' ')[1];
  const otherSite = await startOtherSite();
  const longNames = await startLongNames(base);

  // The log file exists already, readable by all: the application makes it private.
  const libraryLog = path.join(shotsDir, 'library.log');
  writeFileSync(libraryLog, 'an earlier run\n');
  chmodSync(libraryLog, 0o644);
  const stallFile = path.join(temporaryDir('stall'), 'stall');
  const plain = await startApp(base, {
    name: 'plain',
    args: ['--log', libraryLog, '--timeout-ms', '5000', '--logins-per-minute', '120', '--max-per-address', '16'],
    env: { QXSS_WEBAPP_STALL_FILE: stallFile },
    secondBase: longNames.origin,
  });

  // The log is never opened through a symbolic link.
  const linkDir = temporaryDir('link');
  symlinkSync(path.join(linkDir, 'target'), path.join(linkDir, 'log'));
  const linked = await new Promise((resolve) => {
    const child = spawn(program, ['--port', '0', '--log', path.join(linkDir, 'log')], { stdio: 'ignore' });
    child.on('exit', (code) => resolve(code));
  });
  check(linked === 1 && !existsSync(path.join(linkDir, 'target')), 'a log path that is a symbolic link is refused');

  const tls = throwAwayCertificate();
  const httpsPort = await freePort();
  const upgrade = await startUpgrade(`https://127.0.0.1:${httpsPort}`);
  const secure = await startApp(base, {
    name: 'https',
    scheme: 'https',
    args: ['--https', tls.cert, tls.key],
    callback: `${upgrade.origin}/cb`,
    port: httpsPort,
  });
  const tight = await startApp(base, {
    name: 'tight',
    args: ['--logins-per-minute', '5', '--max-pending', '8', '--pending-lifetime', '10', '--session-lifetime', '10'],
  });

  const balanced = await startApp(base, {
    name: 'balanced',
    args: ['--public-origin', 'https://sso.example.test/', '--trusted-proxy', '127.0.0.7', '--logins-per-minute', '2'],
  });

  const args = [`--ignore-certificate-errors-spki-list=${tls.spkiHash}`];
  if (process.getuid?.() === 0) args.push('--no-sandbox');
  const browser = await puppeteer.launch({ executablePath: chromium, headless: true, args });
  try {
    await plainHttp(browser, base, otherSite, plain, libraryLog, stallFile);
    await overHttps(browser, base, otherSite, secure, tls);
    await underTightLimits(browser, base, tight);
    await behindBalancer(balanced);
  } finally {
    await browser.close();
    otherSite.server.close();
    upgrade.server.close();
    longNames.server.close();
  }

  // The application stops cleanly on SIGTERM (in a sanitizer build: without leaks).
  for (const app of [plain, secure, tight, balanced]) {
    check((await stop(app)) === 0, `the web application at ${app.origin} stops cleanly`);
  }
}

// However this program ends, the servers it started end with it.
process.on('exit', () => {
  children.forEach((child) => child.kill());
  temporary.forEach((dir) => rmSync(dir, { recursive: true, force: true }));
});
run(main);
