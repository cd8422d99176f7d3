#!/usr/bin/env node
'use strict';

// Local Ostrio service for ostriolib's CLI demo, integration tests and benchmarks.
// Prints one JSON line describing where it listens, then serves until SIGTERM/SIGINT.

const http = require('node:http');
const https = require('node:https');
const http2 = require('node:http2');
const path = require('node:path');
const { prepareState, defaultStateDir } = require('./lib/state');
const { Emulator } = require('./lib/app');

const USAGE = `usage: node server.js [options]
  --port N               port on 127.0.0.1 (default 8443; 0 picks a free port)
  --state DIR            state folder: CA, server certificate, JWT secret
                         (default $XDG_STATE_HOME/ostrio-emulator or ~/.local/state/ostrio-emulator)
  --http                 plain HTTP/1.1 instead of HTTPS (debugging)
  --http1                HTTPS that offers HTTP/1.1 only (clients that must fall back)
  --name HOST            extra certificate name (repeatable)
  --token-lifetime S     access-token lifetime in seconds (default 7200)
  --url-lifetime S       lifetime of signed media links in seconds (default 3600)
  --dataset demo|large   seed to serve (default demo)
  --fault JSON           arm a fault at start (repeatable; same object as POST /_emulator/faults)
  --no-log               keep no request log (benchmarks)
  --quiet                no logging after the first line
  --exit-with-stdin      stop when stdin ends (a parent that dies leaves no emulator behind)
`;

function fail(message) {
  process.stderr.write(`ostrio-emulator: ${message}\n${USAGE}`);
  process.exit(2);
}

function parseArgs(argv) {
  const opts = { port: 8443, state: null, http: false, http1: false, names: [], tokenLifetime: 7200, urlLifetime: 3600, dataset: 'demo', faults: [], keepLog: true, quiet: false };
  for (let i = 0; i < argv.length; i++) {
    let arg = argv[i];
    let value;
    const eq = arg.indexOf('=');
    if (arg.startsWith('--') && eq > 0) {
      value = arg.slice(eq + 1);
      arg = arg.slice(0, eq);
    }
    const next = () => {
      if (value !== undefined) return value;
      if (i + 1 >= argv.length) fail(`${arg} needs a value`);
      return argv[++i];
    };
    switch (arg) {
      case '--port': {
        const v = next();
        if (!/^\d+$/.test(v) || Number(v) > 65535) fail(`bad port ${v}`);
        opts.port = Number(v);
        break;
      }
      case '--state': opts.state = path.resolve(next()); break;
      case '--http': opts.http = true; break;
      case '--http1': opts.http1 = true; break;
      case '--name': {
        const v = next().toLowerCase();
        if (!/^[a-z0-9*]([a-z0-9.-]*[a-z0-9])?$|^[0-9a-f:]+$/.test(v)) fail(`bad certificate name ${v}`);
        opts.names.push(v);
        break;
      }
      case '--token-lifetime': case '--url-lifetime': {
        const v = next();
        if (!/^-?\d{1,9}$/.test(v)) fail(`bad lifetime ${v} for ${arg}`);
        opts[arg === '--token-lifetime' ? 'tokenLifetime' : 'urlLifetime'] = Number(v);
        break;
      }
      case '--dataset': {
        const v = next();
        if (v !== 'demo' && v !== 'large') fail(`unknown dataset ${v}`);
        opts.dataset = v;
        break;
      }
      case '--fault': {
        const v = next();
        try { opts.faults.push(JSON.parse(v)); } catch { fail(`--fault is not JSON: ${v}`); }
        break;
      }
      case '--no-log': opts.keepLog = false; break;
      case '--quiet': opts.quiet = true; break;
      case '--exit-with-stdin': opts.exitWithStdin = true; break;
      case '--help': case '-h': process.stdout.write(USAGE); process.exit(0); break;
      default: fail(`unknown option ${arg}`);
    }
  }
  return opts;
}

function main() {
  const opts = parseArgs(process.argv.slice(2));
  const state = prepareState(opts.state || defaultStateDir(), opts.names);
  const scheme = opts.http ? 'http' : 'https';

  let emulator;
  try {
    emulator = new Emulator({
      state, scheme, datasetKind: opts.dataset, tokenLifetime: opts.tokenLifetime, urlLifetime: opts.urlLifetime,
      keepLog: opts.keepLog, quiet: opts.quiet, faults: opts.faults, names: opts.names,
    });
  } catch (err) {
    fail(err.message);
  }

  const sockets = new Set();
  const sessions = new Set();
  const handler = emulator.handler;
  const server = opts.http
    ? http.createServer(handler)
    : opts.http1
    ? https.createServer({ key: state.key, cert: state.cert, minVersion: 'TLSv1.2' }, handler)
    : http2.createSecureServer({
      key: state.key,
      cert: state.cert,
      allowHTTP1: true,
      minVersion: 'TLSv1.2',
      maxSessionMemory: 64,
      settings: { maxConcurrentStreams: 256 },
    }, handler);
  server.on('connection', (s) => { sockets.add(s); s.on('close', () => sockets.delete(s)); });
  server.on('session', (s) => { sessions.add(s); s.on('close', () => sessions.delete(s)); s.on('error', () => {}); });
  server.on('tlsClientError', () => {});
  // A request that does not parse as HTTP/1.1 still gets a plain answer saying so, unless the
  // peer is already gone.
  server.on('clientError', (err, socket) => {
    if (err.code === 'ECONNRESET' || !socket.writable || socket._httpMessage) {
      socket.destroy();
      return;
    }
    const status = err.code === 'HPE_HEADER_OVERFLOW' ? '431 Request Header Fields Too Large' : '400 Bad Request';
    const body = `${JSON.stringify({ error: 'malformed HTTP/1.1 request', code: err.code || null })}\n`;
    socket.end(`HTTP/1.1 ${status}\r\nContent-Type: application/json; charset=utf-8\r\nContent-Length: ${Buffer.byteLength(body)}\r\nConnection: close\r\n\r\n${body}`);
  });

  server.on('error', (err) => {
    process.stderr.write(`ostrio-emulator: cannot listen on 127.0.0.1:${opts.port}: ${err.message}\n`);
    process.exit(1);
  });

  server.listen(opts.port, '127.0.0.1', () => {
    emulator.bind(server.address().port);
    const port = emulator.port;
    const info = emulator.info();
    process.stdout.write(`${JSON.stringify({ port, suffix: info.suffix, ca: info.ca, control: info.control, http: info.http })}\n`);
    if (!opts.quiet) {
      process.stderr.write(`ostrio-emulator: serving ${opts.dataset} data at ${scheme}://api${info.suffix}/graphql (CA ${info.ca})\n`);
    }
  });

  // Stop at once even with open keep-alive connections, HTTP/2 sessions or running downloads:
  // test harnesses and CI wait on the exit code.
  let stopping = false;
  const stop = () => {
    if (stopping) return;
    stopping = true;
    server.close();
    for (const s of sessions) s.destroy();
    for (const s of sockets) s.destroy();
    process.exit(0);
  };
  process.on('SIGTERM', stop);
  process.on('SIGINT', stop);
  if (opts.exitWithStdin) {
    process.stdin.on('end', stop);
    process.stdin.on('error', stop);
    process.stdin.resume();
  }
}

main();
