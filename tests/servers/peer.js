// The peer of the login benchmark (bench/login.cpp): the npm package openid-client, an
// independent OpenID Connect client library, doing what a login costs any client: the
// authorization-code grant (with the PKCE verifier, state and issuer checks) and the userinfo
// call, for codes minted for it by the benchmark's scripted user.
//   node peer.js <issuer>
// Prints "READY" once discovery is done. Then, for each round on standard input:
//   RUN <parallel>
//   <redirect location with code, state and iss> <PKCE verifier> <state>   (one line a login)
//   END
// it runs the logins, `parallel` at a time, and prints one line "T <index> <ok|fail> <ms>"
// a login (its own clock, from the grant's start to the userinfo answer) and then
// "DONE <seconds of the whole round>". The process ends with its standard input.
import readline from 'node:readline';
import * as client from 'openid-client';
import inParallel from './parallel.js';

const [issuer] = process.argv.slice(2);
const config = await client.discovery(new URL(issuer), 'qxss-client', undefined, client.ClientSecretBasic('qxss-secret'), {
  execute: [client.allowInsecureRequests],
});

async function login(job) {
  const tokens = await client.authorizationCodeGrant(config, new URL(job.location), {
    pkceCodeVerifier: job.verifier,
    expectedState: job.state,
    idTokenExpected: true,
  });
  await client.fetchUserInfo(config, tokens.access_token, tokens.claims().sub);
}

async function run(jobs, parallel) {
  const started = performance.now();
  const lines = await inParallel(jobs, parallel, async (job, index) => {
    const begun = performance.now();
    let ok = 'ok';
    try {
      await login(job);
    } catch (e) {
      ok = 'fail';
      process.stderr.write(`peer: login ${index}: ${e}\n`);
    }
    return `T ${index} ${ok} ${(performance.now() - begun).toFixed(3)}\n`;
  });
  process.stdout.write(`${lines.join('')}DONE ${((performance.now() - started) / 1000).toFixed(6)}\n`);
}

let parallel = 0;
let jobs = null;
const input = readline.createInterface({ input: process.stdin });
process.stdout.write('READY\n');
for await (const line of input) {
  const words = line.split(' ');
  if (words[0] === 'RUN') {
    parallel = Number(words[1]);
    jobs = [];
  } else if (words[0] === 'END' && jobs) {
    await run(jobs, parallel);
    jobs = null;
  } else if (jobs && words.length === 3) {
    jobs.push({ location: words[0], verifier: words[1], state: words[2] });
  }
}
