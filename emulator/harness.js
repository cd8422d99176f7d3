'use strict';

// Test harness, also for other suites that need a live emulator (integration, scripting).
// Starts an emulator on a free port with its own state folder and talks to it over real TLS,
// connecting to 127.0.0.1 with the right server name (Node does not resolve *.localhost).

const { spawn } = require('node:child_process');
const fs = require('node:fs');
const http = require('node:http');
const http2 = require('node:http2');
const https = require('node:https');
const os = require('node:os');
const path = require('node:path');
const tls = require('node:tls');

const SERVER = path.join(__dirname, 'server.js');
const START_TIMEOUT_MS = 20000;
const REQUEST_TIMEOUT_MS = 30000;

// Emulators still running when the test process ends (a failed before(), a forgotten stop())
// are killed with it rather than left listening.
const running = new Set();
process.on('exit', () => { for (const proc of running) proc.kill('SIGKILL'); });

// One HTTP/2 request on an open session. Resolves when the stream ends or is reset, with
// {status, received, body (unless onData consumes the bytes), rstCode}.
function h2Request(client, headers, { onData, timeoutMs = REQUEST_TIMEOUT_MS } = {}) {
  return new Promise((resolve, reject) => {
    const req = client.request(headers);
    const chunks = [];
    let status = null;
    let received = 0;
    const done = () => resolve({ status, received, body: onData ? null : Buffer.concat(chunks), rstCode: req.rstCode });
    req.setTimeout(timeoutMs, () => { req.close(); reject(new Error(`HTTP/2 request timed out after ${timeoutMs} ms`)); });
    req.on('response', (h) => { status = h[':status']; });
    req.on('data', (c) => {
      if (onData) onData(c, received);
      else chunks.push(c);
      received += c.length;
    });
    req.on('end', done);
    req.on('error', done);
    req.on('close', done);
    req.end();
  });
}

function tempDir() {
  return fs.mkdtempSync(path.join(os.tmpdir(), 'ostrio-emu-test-'));
}

function firstLine(proc) {
  return new Promise((resolve, reject) => {
    let out = '';
    let err = '';
    const timer = setTimeout(() => { proc.kill('SIGKILL'); reject(new Error(`no first line within ${START_TIMEOUT_MS} ms; stderr: ${err}`)); }, START_TIMEOUT_MS);
    proc.stderr.setEncoding('utf8');
    proc.stderr.on('data', (d) => { err += d; });
    proc.stdout.on('data', (d) => {
      out += d;
      const nl = out.indexOf('\n');
      if (nl >= 0) {
        clearTimeout(timer);
        resolve(out.slice(0, nl));
      }
    });
    proc.on('exit', (code) => { clearTimeout(timer); reject(new Error(`emulator exited with ${code} before its first line; stderr: ${err}`)); });
  });
}

function exited(proc, ms) {
  return new Promise((resolve, reject) => {
    if (proc.exitCode !== null || proc.signalCode !== null) return resolve(proc.exitCode);
    const timer = setTimeout(() => reject(new Error(`emulator did not exit within ${ms} ms`)), ms);
    proc.once('exit', (code) => { clearTimeout(timer); resolve(code); });
  });
}

class Emulator {
  constructor(proc, line, stateDir, ownsState) {
    this.ownsState = ownsState;
    this.proc = proc;
    this.line = line;
    this.info = JSON.parse(line);
    this.port = this.info.port;
    this.stateDir = stateDir;
    this.ca = fs.readFileSync(this.info.ca);
    // What the emulator printed to stderr from here on (only started with {verbose: true}).
    this.stderr = '';
    proc.stderr.on('data', (d) => { this.stderr += d; });
  }

  // Resolves with the lines of stderr matching `pattern` once there are at least `count` of them
  // (a line is written before the answer it describes is complete, but may be read here later).
  stderrLines(pattern, count = 1) {
    return new Promise((resolve) => {
      const look = () => {
        const lines = this.stderr.split('\n').filter((l) => pattern.test(l));
        if (lines.length < count) return false;
        this.proc.stderr.off('data', look);
        resolve(lines);
        return true;
      };
      if (!look()) this.proc.stderr.on('data', look);
    });
  }

  host(label) {
    return `${label}.ostrio.localhost:${this.port}`;
  }

  // One request on a fresh HTTP/1.1 connection. Resolves with {status, headers, body} or, when
  // the connection breaks mid-answer, with those so far plus {error}.
  request(label, method, target, { headers = {}, body, host } = {}) {
    return new Promise((resolve, reject) => {
      const servername = label.includes('.') || label === 'localhost' ? label : `${label}.ostrio.localhost`;
      const options = {
        host: '127.0.0.1', port: this.port, method, path: target, agent: false,
        headers: { host: host || `${servername}:${this.port}`, ...headers },
      };
      const mod = this.info.http ? http : https;
      if (!this.info.http) Object.assign(options, { ca: this.ca, servername: /^[\d.]+$/.test(servername) ? undefined : servername });
      const req = mod.request(options, (res) => {
        const chunks = [];
        const out = () => ({ status: res.statusCode, headers: res.headers, body: Buffer.concat(chunks) });
        res.on('data', (c) => chunks.push(c));
        res.on('end', () => resolve(out()));
        res.on('error', (error) => resolve({ ...out(), error }));
        res.on('aborted', () => resolve({ ...out(), error: new Error('aborted') }));
      });
      req.setTimeout(REQUEST_TIMEOUT_MS, () => req.destroy(new Error('request timed out')));
      req.on('error', reject);
      req.end(body);
    });
  }

  connectH2(label = 'api') {
    const servername = `${label}.ostrio.localhost`;
    return http2.connect(`https://${servername}:${this.port}`, {
      createConnection: () => tls.connect({ host: '127.0.0.1', port: this.port, servername, ca: this.ca, ALPNProtocols: ['h2'] }),
    });
  }

  async control(method, sub, input) {
    const res = await this.request('api', method, `/_emulator${sub}`, input === undefined ? {} : {
      headers: { 'content-type': 'application/json' }, body: JSON.stringify(input),
    });
    return { status: res.status, json: JSON.parse(res.body.toString('utf8')) };
  }

  async session(input = {}) {
    const { status, json } = await this.control('POST', '/session', input);
    if (status !== 200) throw new Error(`session: ${status} ${JSON.stringify(json)}`);
    return json;
  }

  async data() {
    return (await this.control('GET', '/data')).json;
  }

  async requests() {
    return (await this.control('GET', '/requests')).json.requests;
  }

  async graphql(query, variables, token, headers = {}) {
    const body = variables === undefined ? { query } : { query, variables };
    const res = await this.request('api', 'POST', '/graphql', {
      headers: { 'content-type': 'application/json; charset=utf-8', ...(token ? { authorization: `Bearer ${token}` } : {}), ...headers },
      body: JSON.stringify(body),
    });
    let json = null;
    try { json = JSON.parse(res.body.toString('utf8')); } catch { /* left null for the caller to see */ }
    return { ...res, json };
  }

  async stop() {
    let code = this.proc.exitCode;
    if (code === null && this.proc.signalCode === null) {
      this.proc.kill('SIGTERM');
      try {
        code = await exited(this.proc, 10000);
      } catch (err) {
        // A wedged emulator must not outlive the test run.
        this.proc.kill('SIGKILL');
        throw err;
      }
    }
    if (this.ownsState) fs.rmSync(this.stateDir, { recursive: true, force: true });
    return code;
  }
}

// Starts `server.js --port 0 --quiet` with the given extra arguments (without --quiet when
// verbose); without a state folder it uses a fresh temporary one and removes it on stop().
async function startEmulator(args = [], { stateDir, verbose = false } = {}) {
  const dir = stateDir || tempDir();
  const proc = spawn(process.execPath, [SERVER, '--port', '0', '--state', dir, ...(verbose ? [] : ['--quiet']), ...args], { stdio: ['ignore', 'pipe', 'pipe'] });
  running.add(proc);
  proc.once('exit', () => running.delete(proc));
  try {
    return new Emulator(proc, await firstLine(proc), dir, !stateDir);
  } catch (err) {
    if (!stateDir) fs.rmSync(dir, { recursive: true, force: true });
    throw err;
  }
}

module.exports = { startEmulator, h2Request, tempDir, exited, SERVER };
