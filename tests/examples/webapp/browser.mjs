// The example web application in a real browser.
//   node browser.mjs <web application program> <screenshot folder>
// Starts the local provider and the web application on free loopback ports, then drives
// Debian's headless Chromium through puppeteer-core: a person signs in as alice at the
// provider's own login form, refreshes, signs out; a login whose state was changed on the way
// back is refused; a request the library never answers ends on an error page; and ten browsers
// sign in at once, each as its own user. Saves a screenshot of every page it checks.
// Exit 0: passed, 1: failed, 77: no Chromium or puppeteer-core here (skipped).
import { spawn } from 'node:child_process';
import { existsSync, mkdirSync, mkdtempSync, readFileSync, rmSync, writeFileSync } from 'node:fs';
import { createRequire } from 'node:module';
import net from 'node:net';
import os from 'node:os';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

const here = path.dirname(fileURLToPath(import.meta.url));
const serversDir = path.resolve(here, '../../servers');
const chromium = '/usr/bin/chromium';
const [program, shotsDir] = process.argv.slice(2);
const children = [];

function skip(why) {
  console.log(`SKIPPED: ${why}`);
  process.exit(77);
}

function check(condition, what) {
  if (!condition) throw new Error(`check failed: ${what}`);
  console.log(`ok - ${what}`);
}

let puppeteer;
try {
  puppeteer = createRequire(path.join(serversDir, 'package.json'))('puppeteer-core');
} catch {
  skip('puppeteer-core is not installed in tests/servers (scripts/install-test-deps.sh)');
}
if (!existsSync(chromium)) skip(`no ${chromium} (Debian package chromium)`);

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

function configuration(base, port) {
  const provider = (name, desc) => ({
    name,
    desc,
    type: 'OAuth',
    provider: 'keycloak',
    config: {
      idp_domain: base,
      client_id: 'qxss-webapp',
      client_secret: 'webapp-secret',
      redirect_uris: [`http://127.0.0.1:${port}/cb`],
      qx_user_type: 'local',
      qx_refresh: true,
      qx_refresh_lifetime: 3600,
    },
  });
  // The second name shows that what comes from the configuration is escaped in the page.
  return [provider('Local provider', 'The local test provider'), provider('Second <i>one</i> & co', 'Same "provider"')];
}

let shot = 0;
async function screenshot(page, name) {
  shot += 1;
  const file = path.join(shotsDir, `${String(shot).padStart(2, '0')}-${name}.png`);
  await page.screenshot({ path: file, fullPage: true });
}

// From the application's sign-in page through the provider's pages and back.
async function signIn(page, app, user, onLoginForm = async () => {}) {
  await page.goto(app);
  await Promise.all([page.waitForNavigation(), page.click('button[name="option"][value="0"]')]);
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

async function text(page) {
  return page.evaluate(() => document.body.innerText);
}

async function main() {
  mkdirSync(shotsDir, { recursive: true });
  const configDir = mkdtempSync(path.join(os.tmpdir(), 'qxss-webapp-'));
  const providerStarted = await start('node', ['provider.js', '0'], { cwd: serversDir }, /^READY /);
  const base = providerStarted.line.split(' ')[1];
  const port = await freePort();
  const app = `http://127.0.0.1:${port}`;
  writeFileSync(path.join(configDir, 'sso.cfg'), JSON.stringify(configuration(base, port), null, 2));
  const libraryLog = path.join(shotsDir, 'library.log');
  const webapp = (
    await start(program, ['--port', String(port), '--timeout-ms', '3000', '--log', libraryLog], {
      env: { ...process.env, QXSS_WEBAPP_CONFIG_DIR: configDir },
    }, /listening on/)
  ).child;

  const browser = await puppeteer.launch({
    executablePath: chromium,
    headless: true,
    args: process.getuid?.() === 0 ? ['--no-sandbox'] : [],
  });
  try {
    const page = await browser.newPage();
    page.setDefaultTimeout(60000);
    const seen = []; // every URL the browser asked for, to learn the code, state and nonce
    page.on('request', (request) => seen.push(request.url()));

    // The sign-in page: the options as buttons, the names escaped.
    await page.goto(app);
    await screenshot(page, 'login-options');
    const buttons = await page.$$eval('button[name="option"]', (all) => all.map((b) => b.textContent));
    check(buttons.length === 2 && buttons[0] === 'Sign in with Local provider', 'the login options are buttons');
    check(buttons[1] === 'Sign in with Second <i>one</i> & co' && (await page.$('button i')) === null,
      'a provider name is shown as text, not as HTML');

    // alice signs in at the provider's own form.
    await signIn(page, app, 'alice', async (form) => {
      check(form.url().startsWith(base), 'the login form is the provider\'s');
      await screenshot(form, 'provider-login');
    });
    await screenshot(page, 'signed-in');
    const welcome = await text(page);
    check(/Signed in as alice/.test(welcome), 'alice is signed in');
    check(/valid until \d{4}-\d\d-\d\d/.test(welcome), 'the page shows the token\'s expiry');
    const callback = new URL(seen.find((url) => url.startsWith(`${app}/cb?`)));
    const authorization = new URL(seen.find((url) => url.startsWith(`${base}/auth?`)));
    const html = await page.content();
    for (const secret of [callback.searchParams.get('code'), callback.searchParams.get('state'), authorization.searchParams.get('nonce')]) {
      check(secret && !html.includes(secret), 'neither code nor state nor nonce is in the page');
    }
    const cookies = await page.cookies(app);
    const session = cookies.find((c) => c.name === 'qxss_session');
    check(session && session.httpOnly && session.sameSite === 'Lax', 'the session cookie is HttpOnly and SameSite=Lax');
    check((await page.evaluate(() => document.cookie)) === '', 'the page\'s scripts see no cookie');
    check(!readFileSync(libraryLog, 'utf8').includes(session.value), 'the cookie is no value of the library');

    // Refresh: a new expiry under a new session value, still alice.
    await Promise.all([page.waitForNavigation(), page.click('#refresh')]);
    await screenshot(page, 'refreshed');
    const refreshed = await text(page);
    check(/Signed in as alice/.test(refreshed) && /Refreshed 1 time\./.test(refreshed), 'the session was refreshed');

    // Sign out: the session is forgotten.
    await Promise.all([page.waitForNavigation(), page.click('#logout')]);
    await screenshot(page, 'signed-out');
    check((await page.$$('button[name="option"]')).length === 2, 'after signing out the options are back');
    check(!(await page.cookies(app)).some((c) => c.name === 'qxss_session'), 'the session cookie is gone');
    await Promise.all([page.waitForNavigation(), page.goto(app)]);
    check(!/Signed in/.test(await text(page)), 'the old session no longer signs in');

    // A state changed on the way back from the provider is refused.
    const tamper = (request) => {
      const url = new URL(request.url());
      if (request.isNavigationRequest() && url.origin === app && url.pathname === '/cb') {
        url.searchParams.set('state', `${url.searchParams.get('state')}x`);
        request.continue({ url: url.toString() });
      } else {
        request.continue();
      }
    };
    await page.setRequestInterception(true);
    page.on('request', tamper);
    await signIn(page, app, 'alice');
    page.off('request', tamper);
    await screenshot(page, 'tampered-state');
    const refused = await text(page);
    check(/Sign-in refused/.test(refused) && !/Signed in as/.test(refused), 'a tampered state is refused');
    check(!(await page.cookies(app)).some((c) => c.name === 'qxss_session'), 'a refused login gets no session');
    await page.setRequestInterception(false);

    // The library answers no command for an option ID that it reads as below 1: the
    // application gives up after its bounded wait.
    const began = Date.now();
    const answer = await page.goto(`${app}/login?option=00`);
    await screenshot(page, 'no-answer');
    check(answer.status() === 504 && /did not answer in time/.test(await text(page)), 'an unanswered request gets an error page');
    check(Date.now() - began < 15000, 'the wait for an answer is bounded');
    await page.close();

    // Ten browsers at once, each its own user.
    const users = Array.from({ length: 10 }, (_, i) => `user${String(i + 1).padStart(2, '0')}`);
    const contexts = await Promise.all(users.map(() => browser.createBrowserContext()));
    const pages = await Promise.all(contexts.map((context) => context.newPage()));
    await Promise.all(pages.map((p, i) => {
      p.setDefaultTimeout(120000);
      return signIn(p, app, users[i]);
    }));
    for (let i = 0; i < users.length; i += 1) {
      check(new RegExp(`Signed in as ${users[i]}\\b`).test(await text(pages[i])), `browser ${i + 1} is signed in as ${users[i]}`);
    }
    await screenshot(pages[9], 'ten-at-once');
    await Promise.all(contexts.map((context) => context.close()));
  } finally {
    await browser.close();
    rmSync(configDir, { recursive: true, force: true });
  }

  // The application stops cleanly on SIGTERM (in a sanitizer build: without leaks).
  const status = await new Promise((resolve) => {
    webapp.removeAllListeners('exit');
    webapp.on('exit', (code, signal) => resolve(code ?? signal));
    webapp.kill('SIGTERM');
  });
  check(status === 0, 'the web application stops cleanly');
}

// However this program ends, the servers it started end with it.
process.on('exit', () => children.forEach((child) => child.kill()));
main().then(
  () => process.exit(0),
  (error) => {
    console.error(error);
    process.exit(1);
  },
);
