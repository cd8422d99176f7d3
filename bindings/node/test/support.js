'use strict';

// Shared set-up of the addon's tests: a live emulator, the library pointed at it through its
// debug-database variables, XDG folders of its own and a browser command that records the URLs
// it is asked to open. Each test file is its own process, and so gets one library of its own.

const assert = require('node:assert/strict');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { after, before } = require('node:test');
const { startEmulator } = require('../../../emulator/harness.js');

const SCHEME = 'ostriolib-node-test';
const OBJECT_RELEASED = { code: 0xA00F000D | 0, message: 'OstrioClientObject no longer valid' };

// Starts the emulator and sets this process's environment for the library; call before
// configure(). The returned env is what a child process needs as well.
async function startEnvironment(emulatorArgs = []) {
  const emulator = await startEmulator(emulatorArgs);
  const dir = fs.mkdtempSync(path.join(os.tmpdir(), 'ostriolib-node-test-'));
  const urls = path.join(dir, 'browsed-urls');
  const browser = path.join(dir, 'browser');
  fs.writeFileSync(browser, `#!/bin/sh\nprintf '%s\\n' "$1" >> '${urls}'\n`, { mode: 0o755 });
  const env = {
    OSTRIOLIB_ENVIRONMENT: '2',
    OSTRIOLIB_DOMAIN_DEVELOPMENT: emulator.info.suffix,
    OSTRIOLIB_CABUNDLE: emulator.info.ca,
    OSTRIOLIB_KEYCHAIN: 'memory',
    // Through env: under a sanitizer preset LD_PRELOAD carries its runtime, which the shell
    // cannot start with.
    OSTRIOLIB_BROWSER: `/usr/bin/env -u LD_PRELOAD ${browser}`,
    OSTRIOLIB_STATEDIR: path.join(dir, 'state'),
    OSTRIOLIB_DEBUG_DB: '/dev/null',
  };
  for (const name of ['XDG_DATA_HOME', 'XDG_CONFIG_HOME', 'XDG_STATE_HOME', 'XDG_CACHE_HOME']) {
    env[name] = path.join(dir, name);
  }
  Object.assign(process.env, env);
  return {
    emulator,
    dir,
    env,
    schemeHandler: path.join(dir, 'scheme-handler'),
    browsedUrls: () => (fs.existsSync(urls) ? fs.readFileSync(urls, 'utf8').split('\n').filter(Boolean) : []),
    async stop() {
      await emulator.stop();
      fs.rmSync(dir, { recursive: true, force: true });
    },
  };
}

function configure(ostriolib, environment) {
  ostriolib.configure({
    clientName: 'NodeTest', redirectUri: SCHEME, companyName: 'Corvane', version: '1.0', buildNumber: '7',
    schemeHandler: environment.schemeHandler,
  });
}

// Hooks for a test file: before its tests an environment and the library configured for it,
// both reachable through the returned object once they run.
function withConfiguredLibrary() {
  const context = {};
  before(async () => {
    context.environment = await startEnvironment();
    context.ostriolib = require('..');
    configure(context.ostriolib, context.environment);
  });
  after(() => context.environment.stop());
  return context;
}

// A session whose access token has `lifetime` seconds left, handed over as the sign-in redirect
// would hand it.
async function handOverSession(ostriolib, emulator, lifetime) {
  const session = await emulator.session({ lifetime });
  assert.equal(ostriolib.handleCallbackUrl(`${SCHEME}://ostrio#${session.record}`), 0);
  return session;
}

async function refreshRequests(emulator) {
  return (await emulator.requests()).filter((r) => r.path.startsWith('/v2/auth/refresh_tokens/'));
}

// Every OstrioAuthEventObject event in arrival order; next() waits for the next unseen one.
function recordAuthEvents(Events) {
  const seen = [];
  const waiting = [];
  let read = 0;
  const listener = (event) => {
    seen.push(event);
    while (waiting.length && read < seen.length) waiting.shift()(seen[read++]);
  };
  Events.addEventListener(Events.SIGNED_IN, listener);
  Events.addEventListener(Events.SIGNED_OUT, listener);
  return {
    seen,
    next: () => new Promise((resolve) => {
      if (read < seen.length) resolve(seen[read++]);
      else waiting.push(resolve);
    }),
  };
}

module.exports = {
  SCHEME, OBJECT_RELEASED, startEnvironment, withConfiguredLibrary, handOverSession, refreshRequests, recordAuthEvents,
};
