'use strict';

// refreshAccessToken against the emulator's refresh endpoint: one request for back-to-back calls,
// the empty token when the service refuses, and a script that lets go of the client mid-refresh.

const assert = require('node:assert/strict');
const { setImmediate: turn } = require('node:timers/promises');
const v8 = require('node:v8');
const vm = require('node:vm');
const { test } = require('node:test');
const { OBJECT_RELEASED, handOverSession, refreshRequests, withConfiguredLibrary } = require('./support.js');

v8.setFlagsFromString('--expose-gc');
const collectGarbage = vm.runInNewContext('gc');

const library = withConfiguredLibrary();

// An hour or less left: the auth manager refreshes. The emulator holds the answer back a while,
// so the refresh is surely still running when the script acts.
async function nearExpiry({ holdRefreshMs } = {}) {
  const session = await handOverSession(library.ostriolib, library.environment.emulator, 60);
  await library.environment.emulator.control('DELETE', '/requests');
  if (holdRefreshMs) await library.environment.emulator.control('POST', '/faults', { route: 'refresh', delayMs: holdRefreshMs });
  return session;
}

test('two calls back to back: one refresh; the second resolves at once with the token current then', async () => {
  const session = await nearExpiry({ holdRefreshMs: 1000 });
  const client = library.ostriolib.Ostriolib.OstrioClient.getInstance();
  const first = client.refreshAccessToken();
  const second = client.refreshAccessToken();
  assert.equal(await second, session.accessToken);
  const refreshed = await first;
  assert.notEqual(refreshed, session.accessToken);
  assert.equal(client.getAccessToken(), refreshed);
  assert.notEqual(client.getRefreshToken(), session.refreshToken);
  assert.equal((await refreshRequests(library.environment.emulator)).length, 1);
  // Once settled, a later call may refresh again: the pending marker is gone (and the fresh token
  // needs no request).
  assert.equal(await client.refreshAccessToken(), refreshed);
  assert.equal((await refreshRequests(library.environment.emulator)).length, 1);
});

test('a refused refresh resolves with the empty token and signs the user out', async () => {
  await nearExpiry();
  await library.environment.emulator.control('POST', '/faults', { route: 'refresh', status: 401 });
  const client = library.ostriolib.Ostriolib.OstrioClient.getInstance();
  assert.equal(await client.refreshAccessToken(), '');
  assert.equal((await refreshRequests(library.environment.emulator)).length, 1);
  assert.equal(client.isOstrioUserSignedIn(), false);
  assert.equal(client.getAccessToken(), '');
});

test('a client object released mid-refresh: the promise still settles, and nothing breaks', async () => {
  await nearExpiry({ holdRefreshMs: 500 });
  const pending = library.ostriolib.Ostriolib.OstrioClient.getInstance().refreshAccessToken();
  // The wrapper's finaliser runs on a later turn; collect twice around it.
  collectGarbage();
  await turn();
  collectGarbage();
  const outcome = await pending.then((token) => ({ token }), (error) => ({ error }));
  if (outcome.error) {
    assert.equal(outcome.error.message, OBJECT_RELEASED.message);
    assert.equal(outcome.error.code, OBJECT_RELEASED.code);
  } else {
    assert.equal(typeof outcome.token, 'string');
  }
  // The refresh itself went through for whoever asks next.
  const client = library.ostriolib.Ostriolib.OstrioClient.getInstance();
  assert.equal(client.isOstrioUserSignedIn(), true);
  assert.equal(await client.refreshAccessToken(), client.getAccessToken());
});
