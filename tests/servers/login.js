// The user's side of a login at the local provider, over HTTP:
//   node login.js <authorization URL> [user]
// Follows the provider's pages (login form, any further interaction) and prints one JSON line
// {"code": ..., "state": ..., "location": ...} from the final redirect, without calling the
// redirect URI; or {"error": ...}.
//   node login.js --batch [user] [parallel]
// The same for every authorization URL on standard input (one a line), `parallel` (default 16)
// sign-ins at a time, each with a cookie jar of its own: one JSON line per URL, in the order of
// the input, with its line number as "index". For benchmarks that mint hundreds of codes.
import inParallel from './parallel.js';

function remember(jar, response) {
  // Older Node versions lack getSetCookie: split the joined header at each new cookie.
  const lines = response.headers.getSetCookie
    ? response.headers.getSetCookie()
    : (response.headers.get('set-cookie') || '').split(/,(?=\s*[^;=\s]+=)/).filter(Boolean);
  for (const line of lines) {
    const [pair] = line.split(';');
    const eq = pair.indexOf('=');
    jar.set(pair.slice(0, eq).trim(), pair.slice(eq + 1));
  }
}

function cookieHeader(jar) {
  return [...jar].map(([k, v]) => `${k}=${v}`).join('; ');
}

async function signIn(authUrl, user) {
  const jar = new Map();
  const request = async (url, options = {}) => {
    const response = await fetch(url, { ...options, redirect: 'manual', headers: { ...(options.headers || {}), cookie: cookieHeader(jar) } });
    remember(jar, response);
    return response;
  };
  let url = authUrl;
  const origin = new URL(authUrl).origin;
  for (let step = 0; step < 12; step += 1) {
    const response = await request(url);
    if (response.status >= 300 && response.status < 400) {
      const location = new URL(response.headers.get('location'), url);
      if (location.origin !== origin) {
        const out = { location: location.toString(), code: location.searchParams.get('code'), state: location.searchParams.get('state') };
        if (location.searchParams.get('error')) out.error = `${location.searchParams.get('error')}: ${location.searchParams.get('error_description')}`;
        return out;
      }
      url = location.toString();
      continue;
    }
    const html = await response.text();
    const action = /action="([^"]+)"/.exec(html);
    if (response.status !== 200 || !action) return { error: `unexpected page ${response.status}: ${html.slice(0, 300)}` };
    const prompt = /name="prompt" value="([^"]+)"/.exec(html)?.[1] || 'login';
    const form = new URLSearchParams({ prompt });
    if (prompt === 'login') {
      form.set('login', user);
      form.set('password', 'any');
    }
    const submitted = await request(new URL(action[1], url).toString(), {
      method: 'POST',
      headers: { 'content-type': 'application/x-www-form-urlencoded' },
      body: form.toString(),
    });
    if (submitted.status < 300 || submitted.status >= 400) return { error: `form refused ${submitted.status}: ${(await submitted.text()).slice(0, 300)}` };
    url = new URL(submitted.headers.get('location'), url).toString();
  }
  return { error: 'too many steps' };
}

async function signInSafely(authUrl, user) {
  try {
    return await signIn(authUrl, user);
  } catch (e) {
    return { error: String(e) };
  }
}

async function batch(user, parallel) {
  let input = '';
  for await (const chunk of process.stdin) input += chunk;
  const urls = input.split('\n').filter((line) => line.length > 0);
  const results = await inParallel(urls, parallel, async (url, index) => ({ index, ...(await signInSafely(url, user)) }));
  process.stdout.write(results.map((out) => `${JSON.stringify(out)}\n`).join(''));
}

const args = process.argv.slice(2);
if (args[0] === '--batch') {
  await batch(args[1] || 'alice', Number(args[2] || 16));
} else {
  const out = await signInSafely(args[0], args[1] || 'alice');
  process.stdout.write(`${JSON.stringify(out)}\n`);
}
