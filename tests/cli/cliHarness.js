'use strict';

// Runs the real ostrio binary against an emulator, the way a person's shell would: every setting
// through the environment, a private state folder and XDG folders per emulator.

const { spawn } = require('node:child_process');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { startEmulator } = require('../../emulator/harness');

const OSTRIO = process.env.OSTRIO_BIN;
const APPROVE = path.resolve(__dirname, '..', '..', 'tools', 'ostrio', 'approve-signin');
const RUN_LIMIT_MS = 120000;

if (!OSTRIO) throw new Error('OSTRIO_BIN must name the ostrio binary');

// Sanitizer builds: the binary runs with the options the test preset gives; the slow unwinder
// gives leak reports the whole stack, so lsan.supp can name a frame deep inside OpenSSL.
function sanitizerOptions() {
  const options = Object.fromEntries(Object.entries(process.env).filter(([name]) => /^(A|UB|L|T)SAN_OPTIONS$/.test(name)));
  if (options.ASAN_OPTIONS !== undefined) options.ASAN_OPTIONS += ':fast_unwind_on_malloc=0';
  return options;
}

// An emulator started with `args` and a private home for the CLI that talks to it: the library's
// state (file credential store) and the desktop files the scheme registration writes.
// stop() ends the emulator and removes the home.
async function startCli(args = [], extraEnv = {}) {
  const emulator = await startEmulator(args);
  const home = fs.mkdtempSync(path.join(os.tmpdir(), 'ostrio-cli-'));
  const env = {
    PATH: process.env.PATH,
    HOME: home,
    XDG_DATA_HOME: path.join(home, 'data'),
    XDG_CONFIG_HOME: path.join(home, 'config'),
    XDG_STATE_HOME: path.join(home, 'state'),
    OSTRIOLIB_ENVIRONMENT: '2',
    OSTRIOLIB_DOMAIN_DEVELOPMENT: emulator.info.suffix,
    OSTRIOLIB_CABUNDLE: emulator.info.ca,
    OSTRIOLIB_KEYCHAIN: 'file',
    OSTRIOLIB_BROWSER: `${APPROVE} %u`,
    OSTRIO_BIN: OSTRIO,
    ...sanitizerOptions(),
    ...extraEnv,
  };
  return {
    emulator, home, env,
    async stop() {
      await emulator.stop();
      fs.rmSync(home, { recursive: true, force: true });
    },
  };
}

// Starts `command args`; `exited` resolves with {code, stdout, stderr}, never rejects on a failing exit.
function launch(command, args, env) {
  const child = spawn(command, args, { env, stdio: ['ignore', 'pipe', 'pipe'] });
  const run = { child, stdout: '', stderr: '' };
  child.stdout.setEncoding('utf8').on('data', (d) => { run.stdout += d; });
  child.stderr.setEncoding('utf8').on('data', (d) => { run.stderr += d; });
  run.exited = new Promise((resolve, reject) => {
    const timer = setTimeout(() => { child.kill('SIGKILL'); reject(new Error(`${args.join(' ')} did not end; stderr: ${run.stderr}`)); }, RUN_LIMIT_MS);
    child.on('error', reject);
    child.on('close', (code) => { clearTimeout(timer); resolve({ code, stdout: run.stdout, stderr: run.stderr }); });
  });
  return run;
}

const ostrio = (env, args) => launch(OSTRIO, args, env).exited;

// As ostrio(), for a run that must succeed with one JSON document on stdout.
async function ostrioJson(env, args) {
  const run = await ostrio(env, ['--json', ...args]);
  if (run.code !== 0) throw new Error(`ostrio ${args.join(' ')} exited ${run.code}: ${run.stderr}`);
  return JSON.parse(run.stdout);
}

// `ostrio --json login --no-browser` in the background; `address` resolves with the sign-in page
// it prints.
function startLogin(env) {
  const login = launch(OSTRIO, ['--json', 'login', '--no-browser', '--timeout', '120'], env);
  login.address = new Promise((resolve, reject) => {
    login.child.stderr.on('data', () => {
      const found = login.stderr.match(/https:\/\/accounts\S+/);
      if (found) resolve(found[0]);
    });
    login.exited.then((run) => reject(new Error(`login ended before printing the address: ${run.stderr}`)), reject);
  });
  return login;
}

module.exports = { OSTRIO, startCli, launch, ostrio, ostrioJson, startLogin };
