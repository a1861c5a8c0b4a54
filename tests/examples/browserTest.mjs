// What the browser tests of the examples share: puppeteer-core and Chromium (the run is skipped
// without them), checks that print what they checked, numbered screenshots, and the exit
// status of the whole run.
import { existsSync } from 'node:fs';
import { createRequire } from 'node:module';
import path from 'node:path';
import { fileURLToPath } from 'node:url';

const here = path.dirname(fileURLToPath(import.meta.url));
export const serversDir = path.resolve(here, '../servers');
export const chromium = '/usr/bin/chromium';

// Ends the run as skipped: exit status 77.
export function skip(why) {
  console.log(`SKIPPED: ${why}`);
  process.exit(77);
}

// `detail` (say, the page's text) is shown only when the check fails.
export function check(condition, what, detail = '') {
  if (!condition) throw new Error(`check failed: ${what}${detail ? `\n--- ${detail}` : ''}`);
  console.log(`ok - ${what}`);
}

// puppeteer-core as tests/servers installs it; skips the run when it or Chromium is missing.
export function loadPuppeteer() {
  let puppeteer;
  try {
    puppeteer = createRequire(path.join(serversDir, 'package.json'))('puppeteer-core');
  } catch {
    skip('puppeteer-core is not installed in tests/servers (scripts/install-test-deps.sh)');
  }
  if (!existsSync(chromium)) skip(`no ${chromium} (Debian package chromium)`);
  return puppeteer;
}

// A function that saves a page whole as "<number>-<name>.png" in `dir`, numbered in the order
// taken, so that the folder reads as the run went.
export function screenshots(dir) {
  let shot = 0;
  return async (page, name) => {
    shot += 1;
    const file = path.join(dir, `${String(shot).padStart(2, '0')}-${name}.png`);
    await page.screenshot({ path: file, fullPage: true });
  };
}

export async function text(page) {
  return page.evaluate(() => document.body.innerText);
}

// Runs `main` and ends the process: 0 when it resolves, 1 with the error on stderr when not.
export function run(main) {
  main().then(
    () => process.exit(0),
    (error) => {
      console.error(error);
      process.exit(1);
    },
  );
}
