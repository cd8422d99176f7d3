'use strict';

// A real browser signs in: headless Chromium (Debian's /usr/bin/chromium, never a downloaded
// one) opens the sign-in address that `ostrio login --no-browser` prints, a person's click on
// "Sign in" is made, the redirect to the ostrio-cli scheme is taken from the browser's own answer
// and handed to `ostrio callback`, as the desktop's scheme handler would, and login ends signed in.
// Screenshots of the page before and after the click are kept as artefacts.

const { test, before, after } = require('node:test');
const assert = require('node:assert/strict');
const { spawn } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { chromium } = require('playwright-core');
const { startEmulator } = require('../../emulator/harness');
const { cliEnvironment, ostrio, ostrioJson } = require('../cli/cliHarness');

const CHROMIUM = '/usr/bin/chromium';
const ARTIFACTS = process.env.OSTRIO_E2E_ARTIFACTS || path.join(os.tmpdir(), 'ostrio-e2e-artifacts');

let emulator;
let env;
let home;
let browser;
let loginChild;

before(async () => {
  emulator = await startEmulator();
  ({ env, home } = cliEnvironment(emulator));
  fs.mkdirSync(ARTIFACTS, { recursive: true });
  browser = await chromium.launch({
    executablePath: CHROMIUM,
    headless: true,
    args: ['--no-sandbox', '--disable-gpu', '--disable-background-networking', '--disable-dev-shm-usage'],
  });
});

after(async () => {
  if (loginChild && loginChild.exitCode === null) loginChild.kill('SIGKILL');
  if (browser) await browser.close();
  if (emulator) await emulator.stop();
  if (home) fs.rmSync(home, { recursive: true, force: true });
});

// Starts `ostrio --json login --no-browser` and resolves with the child and the address it prints.
function startLogin() {
  const child = spawn(process.env.OSTRIO_BIN, ['--json', 'login', '--no-browser', '--timeout', '120'], { env });
  let stdout = '';
  let stderr = '';
  child.stdout.setEncoding('utf8').on('data', (d) => { stdout += d; });
  const exited = new Promise((resolve) => child.on('close', (code) => resolve({ code, stdout, stderr })));
  const address = new Promise((resolve, reject) => {
    child.stderr.setEncoding('utf8').on('data', (d) => {
      stderr += d;
      const found = stderr.match(/https:\/\/accounts\S+/);
      if (found) resolve(found[0]);
    });
    exited.then((run) => reject(new Error(`login ended before printing the address: ${run.stderr}`)));
  });
  return { child, address, exited };
}

test('a person signs in in Chromium and the scheme redirect signs ostrio in', async () => {
  const login = startLogin();
  loginChild = login.child;
  const address = await login.address;
  assert.match(address, /auth_callback=ostrio-cli(:\/\/|%3A%2F%2F)ostrio$/);

  const context = await browser.newContext({ ignoreHTTPSErrors: true });
  const page = await context.newPage();
  const redirect = new Promise((resolve) => page.on('response', (response) => {
    if (response.request().method() === 'POST' && response.status() === 302) resolve(response.headers().location);
  }));
  await page.goto(address);
  await page.screenshot({ path: path.join(ARTIFACTS, 'signin-page.png') });
  await page.getByRole('button', { name: 'Sign in' }).click();
  const location = await redirect;
  assert.match(location, /^ostrio-cli:\/\/ostrio#/);
  await page.screenshot({ path: path.join(ARTIFACTS, 'signin-after-click.png') });
  await context.close();

  const handed = await ostrio(env, ['callback', location]);
  assert.equal(handed.code, 0, handed.stderr);
  const run = await login.exited;
  assert.equal(run.code, 0, run.stderr);
  const seed = await emulator.data();
  const me = JSON.parse(run.stdout);
  assert.deepEqual([me.id, me.email], [seed.user.id, seed.user.email]);
  assert.deepEqual(await ostrioJson(env, ['status']), { signedIn: true });
});
