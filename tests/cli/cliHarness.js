'use strict';

// Runs the real ostrio binary against an emulator, the way a person's shell would: every setting
// through the environment, a private state folder and XDG folders per suite.

const { spawn } = require('node:child_process');
const crypto = require('node:crypto');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');

const OSTRIO = process.env.OSTRIO_BIN;
const SOURCE_DIR = path.resolve(__dirname, '..', '..');
const APPROVE = path.join(SOURCE_DIR, 'tools', 'ostrio', 'approve-signin');
const RUN_LIMIT_MS = 120000;

if (!OSTRIO) throw new Error('OSTRIO_BIN must name the ostrio binary');

// Sanitizer builds: the binary runs with the options the test preset gives; the slow unwinder
// gives leak reports the whole stack, so lsan.supp can name a frame deep inside OpenSSL.
function sanitizerOptions() {
  const options = Object.fromEntries(Object.entries(process.env).filter(([name]) => /^(A|UB|L|T)SAN_OPTIONS$/.test(name)));
  if (options.ASAN_OPTIONS !== undefined) options.ASAN_OPTIONS += ':fast_unwind_on_malloc=0';
  return options;
}

// A private home for one suite: the library's state (file credential store), the desktop files
// the scheme registration writes, and the emulator it talks to.
function cliEnvironment(emulator, extra = {}) {
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
    ...extra,
  };
  return { home, env };
}

// Resolves with {code, stdout, stderr}; never rejects on a failing exit.
function ostrio(env, args, { limitMs = RUN_LIMIT_MS } = {}) {
  return new Promise((resolve, reject) => {
    const child = spawn(OSTRIO, args, { env, stdio: ['ignore', 'pipe', 'pipe'] });
    let stdout = '';
    let stderr = '';
    child.stdout.setEncoding('utf8').on('data', (d) => { stdout += d; });
    child.stderr.setEncoding('utf8').on('data', (d) => { stderr += d; });
    const timer = setTimeout(() => { child.kill('SIGKILL'); reject(new Error(`ostrio ${args.join(' ')} did not end; stderr: ${stderr}`)); }, limitMs);
    child.on('error', reject);
    child.on('close', (code) => { clearTimeout(timer); resolve({ code, stdout, stderr }); });
  });
}

// As ostrio(), for a run that must succeed with one JSON document on stdout.
async function ostrioJson(env, args) {
  const run = await ostrio(env, ['--json', ...args]);
  if (run.code !== 0) throw new Error(`ostrio ${args.join(' ')} exited ${run.code}: ${run.stderr}`);
  return JSON.parse(run.stdout);
}

// The emulator's media: byte i of a resource is (i + seed) % 251.
function mediaDigest(size, seed) {
  const hash = crypto.createHash('sha256');
  const chunk = Buffer.alloc(Math.min(size, 1 << 20));
  for (let done = 0; done < size; done += chunk.length) {
    const n = Math.min(chunk.length, size - done);
    for (let i = 0; i < n; i++) chunk[i] = (done + i + seed) % 251;
    hash.update(chunk.subarray(0, n));
  }
  return hash.digest('hex');
}

function fileDigest(file) {
  return crypto.createHash('sha256').update(fs.readFileSync(file)).digest('hex');
}

module.exports = { OSTRIO, APPROVE, SOURCE_DIR, cliEnvironment, ostrio, ostrioJson, mediaDigest, fileDigest };
