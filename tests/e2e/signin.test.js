'use strict';

// A real browser signs in: headless Chromium (Debian's /usr/bin/chromium, never a downloaded
// one) opens the sign-in address that `ostrio login --no-browser` prints, a person's click on
// "Sign in" is made, the redirect to the ostrio-cli scheme is taken from the browser's own answer
// and handed to `ostrio callback`, as the desktop's scheme handler would, and login ends signed in.

const { test } = require('node:test');
const assert = require('node:assert/strict');
const { chromium } = require('playwright-core');
const { startCli, ostrio, startLogin } = require('../cli/cliHarness');

test('a person signs in in Chromium and the scheme redirect signs ostrio in', async (t) => {
  const cli = await startCli();
  t.after(() => cli.stop());
  const browser = await chromium.launch({
    executablePath: '/usr/bin/chromium',
    args: ['--no-sandbox', '--disable-gpu', '--disable-background-networking', '--disable-dev-shm-usage'],
  });
  t.after(() => browser.close());
  const login = startLogin(cli.env);
  t.after(() => login.child.exitCode === null && login.child.kill('SIGKILL'));

  const page = await (await browser.newContext({ ignoreHTTPSErrors: true })).newPage();
  const redirect = new Promise((resolve) => page.on('response', (response) => {
    if (response.request().method() === 'POST' && response.status() === 302) resolve(response.headers().location);
  }));
  await page.goto(await login.address);
  await page.getByRole('button', { name: 'Sign in' }).click();
  const location = await redirect;

  const handed = await ostrio(cli.env, ['callback', location]);
  assert.equal(handed.code, 0, handed.stderr);
  const run = await login.exited;
  assert.equal(run.code, 0, run.stderr);
  assert.equal(JSON.parse(run.stdout).id, (await cli.emulator.data()).user.id);
});
