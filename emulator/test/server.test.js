'use strict';

const assert = require('node:assert/strict');
const crypto = require('node:crypto');
const { execFileSync } = require('node:child_process');
const fs = require('node:fs');
const path = require('node:path');
const tls = require('node:tls');
const { describe, it, before, after } = require('node:test');
const { startEmulator, h2Request, tempDir, exited } = require('../harness');
const { KNOWN_QUERIES: Q } = require('../lib/knownQueries');
const { RequestLog } = require('../lib/requestLog');

describe('server', { timeout: 90000 }, () => {
  let emu;
  before(async () => { emu = await startEmulator(); });
  after(() => emu && emu.stop());

  it('announces itself in one JSON line and negotiates HTTP/2', async () => {
    const { port } = emu.info;
    assert.deepEqual(JSON.parse(emu.line), {
      port, suffix: `.ostrio.localhost:${port}`, ca: path.join(emu.stateDir, 'ca.pem'),
      control: `https://api.ostrio.localhost:${port}/_emulator`, http: false,
    });
    assert.ok(port > 0);
    const client = emu.connectH2('api');
    try {
      const answer = await h2Request(client, { ':path': '/media/synthetic/3', 'x-probe': 'h2' });
      assert.equal(client.alpnProtocol, 'h2');
      assert.deepEqual([...answer.body], [0, 1, 2]);
    } finally {
      client.close();
    }
    const entry = (await emu.requests()).find((e) => e.headers.some(([n, v]) => n === 'x-probe' && v === 'h2'));
    assert.equal(entry.httpVersion, '2.0');
    assert.equal(entry.url, `https://api.ostrio.localhost:${port}/media/synthetic/3`);
  });

  it('issues a CA and a server certificate valid for every service name, reused across starts', async () => {
    const ca = new crypto.X509Certificate(fs.readFileSync(path.join(emu.stateDir, 'ca.pem')));
    const cert = new crypto.X509Certificate(fs.readFileSync(path.join(emu.stateDir, 'server.pem')));
    assert.equal(ca.ca, true);
    assert.equal(cert.ca, false);
    assert.ok(cert.verify(ca.publicKey));
    for (const name of ['api.ostrio.localhost', 'accounts.ostrio.localhost', 'media.ostrio.localhost', 'localhost', 'other.ostrio.localhost']) {
      assert.ok(cert.checkHost(name), name);
    }
    assert.ok(cert.checkIP('127.0.0.1'));
    assert.equal(cert.checkHost('ostrio.example.com'), undefined);
    const text = execFileSync('openssl', ['x509', '-in', path.join(emu.stateDir, 'server.pem'), '-noout', '-ext', 'keyUsage,extendedKeyUsage']).toString();
    assert.match(text, /Digital Signature, Key Encipherment/);
    assert.match(text, /TLS Web Server Authentication/);
    for (const label of ['api', 'accounts', 'media', 'localhost', '127.0.0.1']) {
      assert.equal((await emu.request(label, 'GET', '/nowhere')).status, 404, label);
    }

    const again = await startEmulator(['--name', 'bench.test'], { stateDir: emu.stateDir });
    try {
      assert.equal(new crypto.X509Certificate(again.ca).fingerprint256, ca.fingerprint256, 'the CA is kept');
      const renewed = new crypto.X509Certificate(fs.readFileSync(path.join(emu.stateDir, 'server.pem')));
      assert.equal(renewed.checkHost('bench.test'), 'bench.test');
      assert.equal((await again.request('bench.test', 'GET', '/media/synthetic/1')).status, 200);
    } finally {
      await again.stop();
    }
  });

  it('survives several first starts on one state folder at once', async () => {
    const dir = tempDir();
    const all = await Promise.all([1, 2, 3, 4].map(() => startEmulator([], { stateDir: dir })));
    try {
      const ca = fs.readFileSync(path.join(dir, 'ca.pem'));
      for (const e of all) {
        e.ca = ca;
        assert.equal((await e.request('api', 'GET', '/media/synthetic/1')).status, 200);
      }
      const ids = await Promise.all(all.map(async (e) => (await e.data()).videoAsset.id));
      assert.equal(new Set([...ids, (await emu.data()).videoAsset.id]).size, 1, 'ids are the same on every run');
    } finally {
      await Promise.all(all.map((e) => e.stop()));
      fs.rmSync(dir, { recursive: true, force: true });
    }
  });

  it('routes by host label and answers unknown places and non-HTTP bytes clearly', async () => {
    for (const [label, target] of [['accounts', '/graphql'], ['api', '/welcome'], ['media', '/graphql'], ['accounts', '/_emulator/requests'], ['api', '/v2/auth/refresh_tokens//apply']]) {
      const res = await emu.request(label, 'POST', target);
      assert.equal(res.status, 404, `${label} ${target}`);
      assert.match(res.headers['content-type'], /^application\/json/);
    }
    assert.equal((await emu.request('api', 'GET', '/media/synthetic/1', { host: `elsewhere.ostrio.localhost:${emu.port}` })).status, 404);

    // Bytes that are not HTTP still get an answer saying so before the connection closes.
    const answer = await new Promise((resolve, reject) => {
      const socket = tls.connect({ host: '127.0.0.1', port: emu.port, servername: 'api.ostrio.localhost', ca: emu.ca, ALPNProtocols: ['http/1.1'] });
      let text = '';
      socket.setEncoding('utf8');
      socket.on('data', (d) => { text += d; });
      socket.on('close', () => resolve(text));
      socket.on('error', reject);
      socket.write('NOT HTTP AT ALL\r\n\r\n');
    });
    assert.match(answer, /^HTTP\/1\.1 400 Bad Request\r\n[^]*\r\n\r\n\{"error":"malformed HTTP\/1\.1 request"/);
  });

  it('logs what crossed the wire, in order, except its own control traffic', async () => {
    await emu.control('DELETE', '/requests');
    const token = (await emu.session()).accessToken;
    await emu.graphql(Q.CurrentUser, undefined, token, { 'X-Custom-Header': 'One', 'apollographql-client-name': 'ostrio-cli' });
    const binary = Buffer.from([0xff, 0xfe, 0x00, 0x41]);
    await emu.request('api', 'POST', '/graphql', { headers: { 'content-type': 'application/json' }, body: binary });
    await emu.request('accounts', 'GET', '/welcome?auth_callback=x://y&legacy_auth=false');
    const log = await emu.requests();
    assert.deepEqual(log.map((e) => [e.method, e.path, e.status]), [['POST', '/graphql', 200], ['POST', '/graphql', 400], ['GET', '/welcome', 200]]);
    const [first, second, third] = log;
    assert.ok(first.seq < second.seq && second.seq < third.seq);
    const names = first.headers.map(([n]) => n);
    assert.ok(names.indexOf('content-type') < names.indexOf('authorization') && names.indexOf('authorization') < names.indexOf('x-custom-header'), names.join());
    assert.deepEqual(first.headers.find(([n]) => n === 'x-custom-header'), ['x-custom-header', 'One']);
    assert.equal(first.body, JSON.stringify({ query: Q.CurrentUser }));
    assert.deepEqual(first.graphql, { operationName: null, known: 'CurrentUser', firstDifference: null, closest: 'CurrentUser' });
    assert.equal(first.httpVersion, '1.1');
    assert.ok(first.durationMs >= 0 && first.startedAt <= Date.now());
    assert.equal(second.bodyBase64, binary.toString('base64'));
    assert.equal(second.graphql, null);
    assert.equal(first.bodyBase64, undefined);
    assert.equal(third.url, `https://accounts.ostrio.localhost:${emu.port}/welcome?auth_callback=x://y&legacy_auth=false`);
  });

  it('serves plain HTTP and keeps no log on request', async () => {
    const plain = await startEmulator(['--http', '--no-log']);
    try {
      assert.equal(plain.info.http, true);
      assert.equal(plain.info.control, `http://api.ostrio.localhost:${plain.port}/_emulator`);
      const token = (await plain.session()).accessToken;
      const me = await plain.graphql(Q.CurrentUser, undefined, token);
      assert.match(me.json.data.me.profileImageUrl, /^http:\/\/media\.ostrio\.localhost:/);
      assert.deepEqual(await plain.requests(), []);
    } finally {
      await plain.stop();
    }
  });

  it('exits 0 on SIGTERM with an HTTP/2 session and a download open', async () => {
    const victim = await startEmulator(['--fault', '{"route":"media","bytesPerSecond":1000}']);
    const client = victim.connectH2('media');
    client.on('error', () => {});
    let firstBytes;
    const arrived = new Promise((resolve) => { firstBytes = resolve; });
    h2Request(client, { ':path': '/media/synthetic/1000000' }, { onData: () => firstBytes() }).catch(() => {});
    await arrived;
    victim.proc.kill('SIGTERM');
    assert.equal(await exited(victim.proc, 5000), 0);
    client.destroy();
    await victim.stop();
  });
});

describe('request log', () => {
  it('drops the oldest entries once the kept bodies pass the budget, and shows no bookkeeping', () => {
    const log = new RequestLog({ bodyBudget: 10 });
    for (const body of ['aaaa', 'bbbb', 'cccc', '']) log.setBody(log.begin({ method: 'POST' }), Buffer.from(body));
    assert.deepEqual(log.list().map((e) => [e.seq, e.body]), [[2, 'bbbb'], [3, 'cccc'], [4, '']]);
    assert.deepEqual(Object.keys(log.list()[0]), Object.keys(new RequestLog().begin({})));
    log.clear();
    log.setBody(log.begin({ method: 'POST' }), Buffer.from('0123456789'));
    assert.equal(log.list().length, 1);
  });
});
