'use strict';

// The addon from a script's side, against a live emulator: the library pointed at it through its
// debug-database variables, XDG folders of its own and a browser command that records the URLs
// it is asked to open. One process, so one library, configured once; the exit tests run scripts
// in child processes.

const assert = require('node:assert/strict');
const { spawnSync } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { setImmediate: turn } = require('node:timers/promises');
const v8 = require('node:v8');
const vm = require('node:vm');
const { after, before, test } = require('node:test');
const { startEmulator } = require('../../../emulator/harness.js');

const SCHEME = 'ostriolib-node-test';
v8.setFlagsFromString('--expose-gc');
const collectGarbage = vm.runInNewContext('gc');

let emulator, dir, ostriolib, client, Events;
const schemeHandler = () => path.join(dir, 'scheme-handler');
const browsedUrls = () => fs.readFileSync(path.join(dir, 'browsed-urls'), 'utf8').split('\n').filter(Boolean);
const refreshRequests = async () => (await emulator.requests()).filter((r) => r.path.startsWith('/v2/auth/refresh_tokens/'));

before(async () => {
  emulator = await startEmulator();
  dir = fs.mkdtempSync(path.join(os.tmpdir(), 'ostriolib-node-test-'));
  fs.writeFileSync(path.join(dir, 'browser'), `#!/bin/sh\nprintf '%s\\n' "$1" >> '${dir}/browsed-urls'\n`, { mode: 0o755 });
  Object.assign(process.env, {
    OSTRIOLIB_ENVIRONMENT: '2',
    OSTRIOLIB_DOMAIN_DEVELOPMENT: emulator.info.suffix,
    OSTRIOLIB_CABUNDLE: emulator.info.ca,
    OSTRIOLIB_KEYCHAIN: 'memory',
    // Through env: under a sanitizer preset LD_PRELOAD carries its runtime, which the shell
    // cannot start with.
    OSTRIOLIB_BROWSER: `/usr/bin/env -u LD_PRELOAD ${dir}/browser`,
    OSTRIOLIB_STATEDIR: path.join(dir, 'state'),
    OSTRIOLIB_DEBUG_DB: '/dev/null',
    OSTRIO_TEST_HANDLER: schemeHandler(),
  });
  for (const name of ['XDG_DATA_HOME', 'XDG_CONFIG_HOME', 'XDG_STATE_HOME', 'XDG_CACHE_HOME']) process.env[name] = path.join(dir, name);
  ostriolib = require('..');
  ostriolib.configure({ clientName: 'NodeTest', redirectUri: SCHEME, companyName: 'Corvane', version: '1.0', buildNumber: '7', schemeHandler: schemeHandler() });
  client = ostriolib.Ostriolib.OstrioClient.getInstance();
  Events = ostriolib.Ostriolib.OstrioAuthEventObject;
});
after(async () => {
  await emulator.stop();
  fs.rmSync(dir, { recursive: true, force: true });
});

// A session whose access token has a minute left (the auth manager refreshes under an hour),
// handed over as the sign-in redirect would hand it unless `handOver` is false; the request log
// starts empty, and the emulator holds the next refresh back `holdRefreshMs`.
async function nearExpiry({ holdRefreshMs, handOver = true } = {}) {
  const session = await emulator.session({ lifetime: 60 });
  if (handOver) assert.equal(ostriolib.handleCallbackUrl(`${SCHEME}://ostrio#${session.record}`), 0);
  await emulator.control('DELETE', '/requests');
  await emulator.control('DELETE', '/faults');
  if (holdRefreshMs) await emulator.control('POST', '/faults', { route: 'refresh', delayMs: holdRefreshMs });
  return session;
}

test('configure registers the host\'s scheme handler, once; malformed input gets a clear error', () => {
  const entry = fs.readFileSync(path.join(dir, 'XDG_DATA_HOME', 'applications', `${SCHEME}-url-handler.desktop`), 'utf8');
  assert.match(entry, new RegExp(`^Exec="${schemeHandler()}" %u$`, 'm'));
  assert.throws(() => ostriolib.configure({ clientName: 'Again', redirectUri: SCHEME }), /already configured/);
  assert.throws(() => ostriolib.configure({ clientName: 'x', redirectUri: 'not a scheme' }), TypeError);
  const { OstrioClient } = ostriolib.Ostriolib;
  assert.throws(() => new OstrioClient(), TypeError);
  assert.throws(() => OstrioClient.prototype.getAccessToken.call({}), TypeError);
  assert.throws(() => Events.addEventListener('SignedUp', () => {}), TypeError);
  assert.throws(() => ostriolib.handleCallbackUrl(42), TypeError);
  assert.throws(() => ostriolib.handleCallbackUrl(`${SCHEME}://ostrio#${'x'.repeat(70000)}`), RangeError);
  assert.ok(ostriolib.handleCallbackUrl('https://elsewhere.example/#token=x') < 0);
});

test('sign-in through the redirect, then sign-out: SIGNED_IN then SIGNED_OUT, each reflecting the state', { timeout: 60000 }, async () => {
  const signedOut = () => {
    assert.deepEqual([client.isOstrioUserSignedIn(), client.getAccessToken(), client.getRefreshToken(), client.signOutOstrioUser()], [false, '', '', false]);
    return assert.rejects(client.refreshAccessToken(), (reason) => reason === false);
  };
  await signedOut();
  // Each event with the state the listener sees when it is delivered.
  const seen = [];
  const listener = (event) => seen.push([event.type, event instanceof Events, client.isOstrioUserSignedIn()]);
  // Twice: a listener added again is still called once per event.
  for (const type of [Events.SIGNED_IN, Events.SIGNED_OUT, Events.SIGNED_IN]) Events.addEventListener(type, listener);

  assert.equal(client.signInOstrioUser(), true);
  const page = new URL(browsedUrls()[0]);
  const approved = await emulator.request('accounts', 'GET', `${page.pathname}${page.search}&approve=1`);
  assert.equal(ostriolib.handleCallbackUrl(approved.headers.location), 0);
  const token = client.getAccessToken();
  assert.ok(token && approved.headers.location.includes(`&token=Bearer%20${token}&`));
  assert.notEqual(client.getRefreshToken(), '');
  // An event carries the state when it is delivered: sign out only once the sign-in was heard.
  while (seen.length < 1) await turn();

  assert.equal(client.signOutOstrioUser(), true);
  await signedOut();
  while (seen.length < 2) await turn();
  assert.deepEqual(seen, [[Events.SIGNED_IN, true, true], [Events.SIGNED_OUT, true, false]]);
});

test('two refreshes back to back: one request, the second resolving at once with the token current then; a refused one signs out', async () => {
  const session = await nearExpiry({ holdRefreshMs: 1000 });
  const first = client.refreshAccessToken();
  assert.equal(await client.refreshAccessToken(), session.accessToken);
  const refreshed = await first;
  assert.notEqual(refreshed, session.accessToken);
  assert.deepEqual([client.getAccessToken(), (await refreshRequests()).length], [refreshed, 1]);
  assert.notEqual(client.getRefreshToken(), session.refreshToken);
  // Once settled, the fresh token (hours to live) is handed back as it is, without asking the service.
  assert.equal(await client.refreshAccessToken(), refreshed);
  assert.equal((await refreshRequests()).length, 1);

  // A refused refresh resolves with the empty token and signs the user out.
  await nearExpiry();
  await emulator.control('POST', '/faults', { route: 'refresh', status: 401 });
  assert.equal(await client.refreshAccessToken(), '');
  assert.deepEqual([(await refreshRequests()).length, client.isOstrioUserSignedIn(), client.getAccessToken()], [1, false, '']);
});

test('a client object released mid-refresh: the promise still settles, and the refresh goes through', async () => {
  await nearExpiry({ holdRefreshMs: 500 });
  const pending = ostriolib.Ostriolib.OstrioClient.getInstance().refreshAccessToken();
  // The wrapper's finaliser runs on a later turn; collect twice around it.
  collectGarbage();
  await turn();
  collectGarbage();
  await pending.then((token) => assert.equal(typeof token, 'string'),
    (error) => assert.deepEqual([error.message, error.code], ['OstrioClientObject no longer valid', 0xA00F000D | 0]));
  const again = ostriolib.Ostriolib.OstrioClient.getInstance();
  assert.equal(again.isOstrioUserSignedIn(), true);
  assert.equal(await again.refreshAccessToken(), again.getAccessToken());
});

// A script that starts a refresh and then exits on the spot ("exit") or simply ends ("end"). One
// still running after a minute is held open by something: that is the failure. Only the emulator
// answers it, so this process may wait for it without turning its event loop.
const runChild = (mode, record) => spawnSync(process.execPath, [path.join(__dirname, 'refresh-child.js'), mode], {
  env: { ...process.env, OSTRIO_TEST_REDIRECT: `${SCHEME}://ostrio#${record}` }, timeout: 60000, killSignal: 'SIGKILL', encoding: 'utf8' });

test('a script may exit in the middle of a refresh; one that ends with a refresh pending gets the token, then exits', async () => {
  const exiting = runChild('exit', (await nearExpiry({ holdRefreshMs: 2000, handOver: false })).record);
  assert.deepEqual([exiting.status, exiting.signal], [0, null], exiting.stderr);
  const ending = runChild('end', (await nearExpiry({ handOver: false })).record);
  assert.deepEqual([ending.status, ending.signal, ending.stdout], [0, null, 'token'], ending.stderr);
  assert.equal((await refreshRequests()).length, 1);
});
