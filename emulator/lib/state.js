'use strict';

const crypto = require('node:crypto');
const fs = require('node:fs');
const os = require('node:os');
const path = require('node:path');
const { execFileSync } = require('node:child_process');

// The state folder holds what must survive restarts: the local CA (so a client that trusted it
// once keeps trusting it), the server certificate, the JWT secret, the token ledger and the
// secret that signs media links (a link handed out before a restart still works after it).
// Several emulators may start at once on the same folder (parallel test runs, a demo and a
// benchmark), so everything that creates files runs under a directory lock, and each file is
// written to a temporary name and renamed into place.

const BASE_NAMES = [
  'api.ostrio.localhost', 'accounts.ostrio.localhost', 'media.ostrio.localhost',
  'localhost', '*.ostrio.localhost', '127.0.0.1',
];

const LOCK_STALE_MS = 60000;
const LOCK_WAIT_MS = 90000;

function defaultStateDir() {
  const base = process.env.XDG_STATE_HOME || path.join(os.homedir(), '.local', 'state');
  return path.join(base, 'ostrio-emulator');
}

function sleepSync(ms) {
  Atomics.wait(new Int32Array(new SharedArrayBuffer(4)), 0, 0, ms);
}

function withLock(dir, fn) {
  const lock = path.join(dir, '.lock');
  const deadline = Date.now() + LOCK_WAIT_MS;
  for (;;) {
    try {
      fs.mkdirSync(lock);
      break;
    } catch (err) {
      if (err.code !== 'EEXIST') throw err;
      let age = 0;
      try { age = Date.now() - fs.statSync(lock).mtimeMs; } catch { continue; }
      // A holder that died mid-generation leaves the lock behind; generation takes well under
      // a second, so an old lock is abandoned.
      if (age > LOCK_STALE_MS) {
        try { fs.rmdirSync(lock); } catch { /* someone else cleaned up */ }
        continue;
      }
      if (Date.now() > deadline) throw new Error(`state folder ${dir} stays locked (${lock})`);
      sleepSync(25);
    }
  }
  try {
    return fn();
  } finally {
    fs.rmdirSync(lock);
  }
}

function writeAtomic(file, data, mode = 0o644) {
  const tmp = `${file}.${process.pid}.${crypto.randomBytes(4).toString('hex')}.tmp`;
  fs.writeFileSync(tmp, data, { mode });
  fs.renameSync(tmp, file);
}

function openssl(args, cwd) {
  execFileSync('openssl', args, { cwd, stdio: ['ignore', 'ignore', 'pipe'] });
}

function sanFor(name) {
  return /^\d{1,3}(\.\d{1,3}){3}$/.test(name) || name.includes(':') ? `IP:${name}` : `DNS:${name}`;
}

function generateCa(dir, work) {
  openssl(['req', '-x509', '-newkey', 'ec', '-pkeyopt', 'ec_paramgen_curve:prime256v1', '-nodes',
    '-keyout', 'ca.key', '-out', 'ca.pem', '-days', '3650', '-sha256',
    '-subj', '/O=Ostrio Emulator/CN=Ostrio Emulator Local CA',
    '-addext', 'basicConstraints=critical,CA:TRUE,pathlen:0',
    '-addext', 'keyUsage=critical,keyCertSign,cRLSign'], work);
  fs.chmodSync(path.join(work, 'ca.key'), 0o600);
  // Key first: a crash between the renames leaves no ca.pem, which makes the next start
  // regenerate both instead of pairing a new certificate with an old key.
  fs.renameSync(path.join(work, 'ca.key'), path.join(dir, 'ca.key'));
  fs.renameSync(path.join(work, 'ca.pem'), path.join(dir, 'ca.pem'));
}

function generateServer(dir, work, names) {
  const ext = [
    'basicConstraints=critical,CA:FALSE',
    'keyUsage=critical,digitalSignature,keyEncipherment',
    'extendedKeyUsage=serverAuth',
    `subjectAltName=${names.map(sanFor).join(',')}`,
    'subjectKeyIdentifier=hash',
    'authorityKeyIdentifier=keyid,issuer',
  ].join('\n');
  fs.writeFileSync(path.join(work, 'server.ext'), `${ext}\n`);
  openssl(['req', '-new', '-newkey', 'ec', '-pkeyopt', 'ec_paramgen_curve:prime256v1', '-nodes',
    '-keyout', 'server.key', '-out', 'server.csr', '-subj', '/O=Ostrio Emulator/CN=api.ostrio.localhost'], work);
  // A fresh random serial every time: browsers refuse a second certificate with the serial
  // of an earlier one from the same issuer.
  openssl(['x509', '-req', '-in', 'server.csr', '-CA', path.join(dir, 'ca.pem'), '-CAkey', path.join(dir, 'ca.key'),
    '-set_serial', `0x${crypto.randomBytes(16).toString('hex').replace(/^[89a-f]/, '1')}`,
    '-days', '825', '-sha256', '-extfile', 'server.ext', '-out', 'server.pem'], work);
  fs.chmodSync(path.join(work, 'server.key'), 0o600);
  fs.renameSync(path.join(work, 'server.key'), path.join(dir, 'server.key'));
  fs.renameSync(path.join(work, 'server.pem'), path.join(dir, 'server.pem'));
}

function serverCertCurrent(dir, names, caFingerprint) {
  try {
    const meta = JSON.parse(fs.readFileSync(path.join(dir, 'server.json'), 'utf8'));
    if (meta.caFingerprint !== caFingerprint || JSON.stringify(meta.names) !== JSON.stringify(names)) return false;
    const cert = new crypto.X509Certificate(fs.readFileSync(path.join(dir, 'server.pem')));
    fs.accessSync(path.join(dir, 'server.key'));
    return Date.parse(cert.validTo) - Date.now() > 7 * 86400 * 1000;
  } catch {
    return false;
  }
}

// Creates (or reuses) CA, server certificate, JWT secret and media-link secret. Returns the paths and PEM texts.
function prepareState(dir, extraNames = []) {
  fs.mkdirSync(dir, { recursive: true, mode: 0o700 });
  const names = [...BASE_NAMES];
  for (const n of extraNames) if (!names.includes(n)) names.push(n);
  return withLock(dir, () => {
    const work = fs.mkdtempSync(path.join(dir, '.work-'));
    try {
      if (!fs.existsSync(path.join(dir, 'ca.pem')) || !fs.existsSync(path.join(dir, 'ca.key'))) generateCa(dir, work);
      const caPem = fs.readFileSync(path.join(dir, 'ca.pem'));
      const caFingerprint = new crypto.X509Certificate(caPem).fingerprint256;
      if (!serverCertCurrent(dir, names, caFingerprint)) {
        generateServer(dir, work, names);
        writeAtomic(path.join(dir, 'server.json'), `${JSON.stringify({ names, caFingerprint }, null, 2)}\n`);
      }
      for (const name of ['jwt-secret', 'url-secret']) {
        const secretPath = path.join(dir, name);
        if (!fs.existsSync(secretPath)) writeAtomic(secretPath, `${crypto.randomBytes(32).toString('hex')}\n`, 0o600);
      }
    } finally {
      fs.rmSync(work, { recursive: true, force: true });
    }
    return {
      dir,
      names,
      caPath: path.join(dir, 'ca.pem'),
      key: fs.readFileSync(path.join(dir, 'server.key')),
      cert: fs.readFileSync(path.join(dir, 'server.pem')),
    };
  });
}

module.exports = { prepareState, defaultStateDir, BASE_NAMES };
