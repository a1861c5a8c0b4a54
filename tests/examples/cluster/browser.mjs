// The example web application behind a load balancer, in a real browser.
//   node browser.mjs <scripts/cluster.sh> <web application program> <node service program> <screenshot folder>
// Runs scripts/cluster.sh with the given programs (the test build's, which take their
// configuration folder from the environment): the local provider, three instances of the
// application behind HAProxy, and the node-role service. Then drives Debian's headless Chromium
// through HAProxy: twelve people sign in and are spread over the three instances, each
// refreshes, the node service confirms a few; one instance is killed; the people on the other
// two still refresh and are still confirmed, those of the dead one land on the sign-in page
// without any 5xx and sign in again on a live instance; HAProxy's statistics show the dead one
// down. Saves a screenshot of every step.
// Exit 0: passed, 1: failed, 77: no Chromium, puppeteer-core or HAProxy here (skipped).
import { spawn } from 'node:child_process';
import { existsSync, mkdirSync, readFileSync, rmSync } from 'node:fs';
import net from 'node:net';
import path from 'node:path';
import {
  check, chromium, loadPuppeteer, run, screenshots, skip, text,
} from '../browserTest.mjs';

const [clusterScript, webappProgram, nodeProgram, shotsDir] = process.argv.slice(2);

const puppeteer = loadPuppeteer();
const haproxyHere = (process.env.PATH || '').split(':').concat(['/usr/sbin'])
  .some((dir) => existsSync(path.join(dir, 'haproxy')));
if (!haproxyHere) skip('HAProxy is not installed (Debian package haproxy; scripts/install-deps.sh installs it)');

// Two free loopback ports in a row: the balancer's and its statistics'.
function freePair() {
  const listen = (port) => new Promise((resolve) => {
    const server = net.createServer();
    server.once('error', () => resolve(null));
    server.listen(port, '127.0.0.1', () => resolve(server));
  });
  return (async () => {
    for (let attempt = 0; attempt < 50; attempt += 1) {
      const first = await listen(0);
      const { port } = first.address();
      const second = port < 65535 ? await listen(port + 1) : null;
      await new Promise((resolve) => first.close(resolve));
      if (second) {
        await new Promise((resolve) => second.close(resolve));
        return port;
      }
    }
    throw new Error('no two free ports in a row');
  })();
}

// cluster.sh in a process group of its own, and what it printed, line by line.
let cluster;
const printed = [];
function startCluster(port) {
  cluster = spawn(clusterScript, [], {
    detached: true,
    stdio: ['ignore', 'pipe', 'inherit'],
    env: {
      ...process.env,
      QXSS_CLUSTER_PORT: String(port),
      QXSS_CLUSTER_WEBAPP: webappProgram,
      QXSS_CLUSTER_NODE: nodeProgram,
      QXSS_CLUSTER_LOGS: path.join(shotsDir, 'logs'),
      QXSS_CLUSTER_LIFETIME: '900',
    },
  });
  let pending = '';
  cluster.stdout.on('data', (chunk) => {
    pending += chunk;
    const lines = pending.split('\n');
    pending = lines.pop();
    for (const line of lines) {
      console.log(line);
      printed.push(line);
    }
  });
  return new Promise((resolve, reject) => {
    const timer = setInterval(() => {
      if (printed.some((line) => /^cluster: open /.test(line))) {
        clearInterval(timer);
        resolve();
      }
    }, 100);
    cluster.on('exit', (code) => {
      clearInterval(timer);
      reject(new Error(`cluster.sh ended early (${code})`));
    });
  });
}

function printedMatch(pattern) {
  const line = printed.find((l) => pattern.test(l));
  if (!line) throw new Error(`cluster.sh did not print ${pattern}`);
  return line.match(pattern);
}

const screenshot = screenshots(shotsDir);

// From the sign-in page to the provider's form.
async function startSignIn(page) {
  await Promise.all([page.waitForNavigation(), page.click('button[name="option"][value="0"]')]);
}

// From the provider's form back to the site.
async function finishAtProvider(page, site, user) {
  for (let step = 0; step < 6 && !page.url().startsWith(site); step += 1) {
    const login = await page.$('input[name="login"]');
    if (login) {
      await login.type(user);
      await page.type('input[name="password"]', 'any password');
    }
    await Promise.all([page.waitForNavigation(), page.click('button[type="submit"]')]);
  }
}

// From the sign-in page through the provider's form and back.
async function signInFromOptions(page, site, user) {
  await startSignIn(page);
  await finishAtProvider(page, site, user);
}

async function instanceOf(person, site) {
  const cookie = (await person.page.cookies(site)).find((c) => c.name === 'qxss_instance');
  return cookie ? cookie.value : '';
}

async function statistics(statsUrl) {
  const csv = await (await fetch(`${statsUrl};csv`)).text();
  const status = {};
  for (const line of csv.split('\n')) {
    const fields = line.split(',');
    if (fields[0] === 'instances' && /^web\d$/.test(fields[1])) status[fields[1]] = fields[17];
  }
  return status;
}

async function refresh(person, times) {
  await Promise.all([person.page.waitForNavigation(), person.page.click('#refresh')]);
  const shown = await text(person.page);
  return new RegExp(`Signed in as ${person.user}\\b`).test(shown)
    && new RegExp(`Refreshed ${times} times?\\.`).test(shown);
}

// From the signed-in page to the node service's page.
async function openNodePage(person, site) {
  await person.page.goto(site);
  await Promise.all([person.page.waitForNavigation(), person.page.click('#node')]);
}

async function confirmAtNode(person, site) {
  await openNodePage(person, site);
  await Promise.all([person.page.waitForNavigation(), person.page.click('#confirm')]);
  const shown = await text(person.page);
  return new RegExp(`The node service confirmed you as ${person.user}\\.`).test(shown);
}

async function main() {
  rmSync(shotsDir, { recursive: true, force: true });
  mkdirSync(shotsDir, { recursive: true });
  const port = await freePair();
  await startCluster(port);
  const site = printedMatch(/^cluster: open (http:\/\/127\.0\.0\.1:\d+)\//)[1];
  const statsUrl = printedMatch(/statistics at (http:\/\/127\.0\.0\.1:\d+\/)/)[1];
  const nodeUrl = printedMatch(/^cluster: node service at (http:\/\/127\.0\.0\.1:\d+\/)/)[1];
  const pids = {};
  for (const name of ['web1', 'web2', 'web3']) {
    pids[name] = Number(printedMatch(new RegExp(`^cluster: instance ${name} at \\S+ \\(pid (\\d+)\\)`))[1]);
  }
  check(site === `http://127.0.0.1:${port}`, 'the cluster answers on the loopback address it was given');

  // The node service refuses whoever does not bring the shared secret.
  for (const authorization of [undefined, 'Bearer not-the-secret-at-all']) {
    const answer = await fetch(`${nodeUrl}confirm`, {
      method: 'POST',
      headers: authorization ? { Authorization: authorization } : {},
      body: '{"access_token":"x","userinfo_uri":"http://127.0.0.1:1/"}|abc',
    });
    check(answer.status === 401, `the node service refuses a request ${authorization ? 'with a wrong' : 'without a'} secret`);
  }

  const browser = await puppeteer.launch({
    executablePath: chromium,
    headless: true,
    args: process.getuid?.() === 0 ? ['--no-sandbox'] : [],
  });
  const serverErrors = [];
  try {
    // The statistics page refreshes itself every 2 s; a reload of ours racing with that
    // navigation leaves puppeteer without the page. ";norefresh" is HAProxy's own way to stop it.
    const statsPage = await browser.newPage();
    await statsPage.goto(`${statsUrl};norefresh`);
    await screenshot(statsPage, 'haproxy-all-up');
    check(Object.values(await statistics(statsUrl)).join() === 'UP,UP,UP', 'HAProxy sees three instances up');

    // Twelve people, each in a browser context of its own (its own cookies).
    const users = ['alice', 'bob', ...Array.from({ length: 10 }, (_, i) => `user${String(i + 1).padStart(2, '0')}`)];
    const people = [];
    for (const user of users) {
      const context = await browser.createBrowserContext();
      const page = await context.newPage();
      page.setDefaultTimeout(120000);
      page.on('response', (response) => {
        if (response.status() >= 500) serverErrors.push(`${user}: ${response.status()} ${response.url()}`);
      });
      people.push({ user, context, page });
    }
    // The first visits one after the other, so that the balancer's turns are the people's order.
    for (const person of people) await person.page.goto(site);
    await screenshot(people[0].page, 'sign-in-options');
    await Promise.all(people.map((person) => signInFromOptions(person.page, site, person.user)));
    for (const person of people) {
      const shown = await text(person.page);
      check(new RegExp(`Signed in as ${person.user}\\b`).test(shown), `${person.user} is signed in`, `${person.page.url()}: ${shown}`);
      person.instance = await instanceOf(person, site);
    }
    const spread = {};
    for (const person of people) spread[person.instance] = (spread[person.instance] || 0) + 1;
    console.log(`spread: ${JSON.stringify(spread)}`);
    check(spread.web1 === 4 && spread.web2 === 4 && spread.web3 === 4, 'the twelve are spread over the three instances, four each');
    for (const name of ['web1', 'web2', 'web3']) {
      await screenshot(people.find((p) => p.instance === name).page, `signed-in-on-${name}`);
    }

    // Each refreshes, on the instance that holds the login.
    const refreshed = await Promise.all(people.map((person) => refresh(person, 1)));
    people.forEach((person, i) => check(refreshed[i], `${person.user} refreshed once on ${person.instance}`));
    await screenshot(people[0].page, 'refreshed');

    // The node service confirms one person of each instance, with the node configuration that
    // the person's instance hands it.
    const confirmed = ['web1', 'web2', 'web3'].map((name) => people.find((p) => p.instance === name));
    for (const person of confirmed) {
      if (person === confirmed[0]) {
        await openNodePage(person, site);
        await screenshot(person.page, 'node-page');
      }
      check(await confirmAtNode(person, site), `the node service confirms ${person.user} (${person.instance})`);
      const html = await person.page.content();
      check(!/access_token|userinfo_uri/.test(html), `the node configuration of ${person.user} does not reach the browser`);
      await screenshot(person.page, `node-confirmed-${person.instance}`);
      await person.page.goto(site);
    }

    // One instance dies, as a crash would end it, while one of its people is signing in again
    // and is at the provider's page (the provider asks to confirm the earlier authorization).
    const dead = 'web2';
    const survivors = people.filter((p) => p.instance !== dead);
    const midway = people.filter((p) => p.instance === dead).pop();
    const orphans = people.filter((p) => p.instance === dead && p !== midway);
    await Promise.all([midway.page.waitForNavigation(), midway.page.click('#logout')]);
    await startSignIn(midway.page);
    check(!midway.page.url().startsWith(site), `${midway.user} is at the provider, signing in through ${dead}`,
      await text(midway.page));
    await screenshot(midway.page, 'at-the-provider');
    process.kill(pids[dead], 'SIGKILL');
    console.log(`killed ${dead} (pid ${pids[dead]})`);

    // Back from the provider, the pending sign-in is gone with its instance: a live one says so,
    // and the person starts again.
    await finishAtProvider(midway.page, site, midway.user);
    const expired = await text(midway.page);
    check(/Sign-in failed/.test(expired) && /expired/.test(expired),
      `${midway.user}, back from the provider, is told that the sign-in expired`, expired);
    await screenshot(midway.page, 'dead-instance-sign-in-expired');
    await midway.page.goto(site);

    // Its people press "Refresh" on the page they still have: another instance, which does not
    // know them, answers with the sign-in page, and nobody sees a server error.
    await Promise.all(orphans.map(async (person) => {
      await Promise.all([person.page.waitForNavigation(), person.page.click('#refresh')]);
    }));
    for (const person of orphans) {
      const shown = await text(person.page);
      check(!/Signed in as/.test(shown) && (await person.page.$$('button[name="option"]')).length === 1,
        `${person.user} of the dead instance lands on the sign-in page`);
    }
    await screenshot(orphans[0].page, 'dead-instance-user-at-sign-in');
    check(serverErrors.length === 0, `no server error reached a browser (${serverErrors.join('; ')})`);

    // The people on the other two refresh and are confirmed as before.
    const again = await Promise.all(survivors.map((person) => refresh(person, 2)));
    survivors.forEach((person, i) => check(again[i], `${person.user} still refreshes on ${person.instance}`));
    await screenshot(survivors[0].page, 'survivor-refreshed');
    for (const person of confirmed.filter((p) => p.instance !== dead)) {
      check(await confirmAtNode(person, site), `the node service still confirms ${person.user} (${person.instance})`);
    }
    await screenshot(confirmed[0].page, 'survivor-node-confirmed');

    // The dead instance's people sign in again, now on a live instance.
    orphans.push(midway);
    await Promise.all(orphans.map((person) => signInFromOptions(person.page, site, person.user)));
    for (const person of orphans) {
      check(new RegExp(`Signed in as ${person.user}\\b`).test(await text(person.page)), `${person.user} signed in again`);
      const now = await instanceOf(person, site);
      check(now === 'web1' || now === 'web3', `${person.user} is now on a live instance (${now})`);
    }
    await screenshot(orphans[0].page, 'dead-instance-user-signed-in-again');
    check(await refresh(orphans[0], 1), `${orphans[0].user} refreshes on the new instance`);
    check(await confirmAtNode(orphans[0], site), `the node service confirms ${orphans[0].user} after the new sign-in`);

    // HAProxy's health checks took the dead instance out.
    let status = {};
    for (let attempt = 0; attempt < 150; attempt += 1) {
      status = await statistics(statsUrl);
      if (/^DOWN/.test(status[dead] || '')) break;
      await new Promise((resolve) => setTimeout(resolve, 200));
    }
    check(/^DOWN/.test(status[dead]) && status.web1 === 'UP' && status.web3 === 'UP',
      `HAProxy's statistics show ${dead} down and the others up (${JSON.stringify(status)})`);
    await statsPage.reload();
    await screenshot(statsPage, 'haproxy-one-down');
    check(serverErrors.length === 0, `no server error reached any browser (${serverErrors.join('; ')})`);
    await Promise.all(people.map((person) => person.context.close()));
  } finally {
    await browser.close();
  }

  // Ctrl-C stops everything that cluster.sh started.
  const code = await new Promise((resolve) => {
    cluster.removeAllListeners('exit');
    cluster.on('exit', (exitCode, signal) => resolve(exitCode ?? signal));
    process.kill(cluster.pid, 'SIGINT');
  });
  check(code === 0, 'cluster.sh stops on Ctrl-C');
  const alive = Object.values(pids).filter((pid) => {
    try {
      process.kill(pid, 0);
      return true;
    } catch {
      return false;
    }
  });
  check(alive.length === 0, 'no instance outlives cluster.sh');
  // What the stopped programs said on their way out (in a sanitizer build: leaks, errors).
  for (const name of ['web1', 'web3', 'node-service']) {
    const said = readFileSync(path.join(shotsDir, 'logs', `${name}.err`), 'utf8');
    check(!/Sanitizer|runtime error/.test(said), `${name} stopped without a sanitizer report`, said);
  }
  cluster = null;
}

// However this program ends, cluster.sh and what it started end with it.
process.on('exit', () => {
  if (cluster && cluster.exitCode === null) {
    try {
      process.kill(-cluster.pid, 'SIGTERM');
    } catch {
      // already gone
    }
  }
});
run(main);
