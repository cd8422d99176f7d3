'use strict';

// A script's process and a pending refresh: the process may exit in the middle of it, and a
// script that just ends gets its answer first and then exits (nothing of ours holds it open).

const assert = require('node:assert/strict');
const { spawn } = require('node:child_process');
const path = require('node:path');
const { after, before, test } = require('node:test');
const { refreshRequests, startEnvironment } = require('./support.js');

const CHILD = path.join(__dirname, 'refresh-child.js');
// A child still running after this long is held open by something: that is the failure.
const CHILD_BOUND_MS = 60000;
let environment;

before(async () => { environment = await startEnvironment(); });
after(() => environment.stop());

function runChild(mode, record) {
  return new Promise((resolve, reject) => {
    const child = spawn(process.execPath, [CHILD, mode], {
      env: { ...process.env, OSTRIO_TEST_RECORD: record, OSTRIO_TEST_HANDLER: environment.schemeHandler },
      stdio: ['ignore', 'pipe', 'pipe'],
    });
    let stdout = '';
    let stderr = '';
    child.stdout.on('data', (d) => { stdout += d; });
    child.stderr.on('data', (d) => { stderr += d; });
    const bound = setTimeout(() => child.kill('SIGKILL'), CHILD_BOUND_MS);
    child.on('error', reject);
    child.on('close', (code, signal) => {
      clearTimeout(bound);
      resolve({ code, signal, stdout, stderr });
    });
  });
}

test('exiting while a refresh is in flight ends the process cleanly', async () => {
  const session = await environment.emulator.session({ lifetime: 60 });
  await environment.emulator.control('POST', '/faults', { route: 'refresh', delayMs: 2000 });
  const result = await runChild('exit', session.record);
  assert.deepEqual({ code: result.code, signal: result.signal }, { code: 0, signal: null }, result.stderr);
  await environment.emulator.control('DELETE', '/faults');
});

test('a script that ends with a refresh pending gets the token, then its process exits', async () => {
  const session = await environment.emulator.session({ lifetime: 60 });
  await environment.emulator.control('DELETE', '/requests');
  const result = await runChild('end', session.record);
  assert.deepEqual({ code: result.code, signal: result.signal, stdout: result.stdout },
    { code: 0, signal: null, stdout: 'token' }, result.stderr);
  assert.equal((await refreshRequests(environment.emulator)).length, 1);
});
