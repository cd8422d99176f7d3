'use strict';

const assert = require('node:assert/strict');
const crypto = require('node:crypto');
const fs = require('node:fs');
const path = require('node:path');
const http2 = require('node:http2');
const { describe, it, before, after, beforeEach } = require('node:test');
const { startEmulator, h2Request, tempDir, exited } = require('../harness');
const { KNOWN_QUERIES: Q } = require('../lib/knownQueries');
const { expectedBytes } = require('../lib/media');
const { RequestLog } = require('../lib/requestLog');

describe('server and fault injection', { timeout: 90000 }, () => {
  let emu, token;
  before(async () => {
    emu = await startEmulator();
    token = (await emu.session()).accessToken;
  });
  after(() => emu && emu.stop());
  beforeEach(() => emu.control('DELETE', '/faults'));

  it('shares one CA and server certificate between emulators starting at once on a fresh state folder', async () => {
    const dir = tempDir();
    const all = await Promise.all([1, 2, 3].map(() => startEmulator([], { stateDir: dir })));
    try {
      const read = (name) => new crypto.X509Certificate(fs.readFileSync(path.join(dir, name)));
      const ca = read('ca.pem');
      const cert = read('server.pem');
      assert.deepEqual([ca.ca, cert.ca, cert.verify(ca.publicKey), cert.keyUsage], [true, false, true, ['1.3.6.1.5.5.7.3.1']]);
      // The service names are checked by every client; these by the benchmarks' tools.
      assert.deepEqual([cert.checkHost('localhost'), cert.checkIP('127.0.0.1'), cert.checkHost('ostrio.example.com')], ['localhost', '127.0.0.1', undefined]);
      // A later start with a new name keeps the CA and re-issues the server certificate.
      all.push(await startEmulator(['--name', 'bench.test'], { stateDir: dir }));
      assert.equal(read('server.pem').checkHost('bench.test'), 'bench.test');
      assert.equal((await all[3].request('bench.test', 'GET', '/media/synthetic/1')).status, 200);
      for (const e of all) {
        assert.equal(new crypto.X509Certificate(e.ca).fingerprint256, ca.fingerprint256);
        assert.equal((await e.request('api', 'GET', '/media/synthetic/1')).status, 200, 'the key matches the certificate');
      }
      const ids = await Promise.all([...all, emu].map(async (e) => (await e.data()).videoAsset.id));
      assert.equal(new Set(ids).size, 1, 'ids are the same on every run');
    } finally {
      await Promise.all(all.map((e) => e.stop()));
      fs.rmSync(dir, { recursive: true, force: true });
    }
  });

  it('routes by host label and answers unknown places in JSON', async () => {
    for (const [label, target] of [['accounts', '/graphql'], ['api', '/welcome'], ['media', '/graphql'], ['accounts', '/_emulator/requests'],
      ['api', '/v2/auth/refresh_tokens//apply']]) {
      const res = await emu.request(label, 'POST', target);
      assert.equal(res.status, 404, `${label} ${target}`);
      assert.match(res.headers['content-type'], /^application\/json/);
    }
  });

  it('logs what crossed the wire, in order, except its own control traffic', async () => {
    await emu.control('DELETE', '/requests');
    await emu.graphql(Q.CurrentUser, undefined, token, { 'X-Custom-Header': 'One' });
    const binary = Buffer.from([0xff, 0xfe, 0x00, 0x41]);
    await emu.request('api', 'POST', '/graphql', { headers: { 'content-type': 'application/json' }, body: binary });
    const client = emu.connectH2('accounts');
    assert.equal((await h2Request(client, { ':path': '/welcome?auth_callback=x://y&legacy_auth=false' })).status, 200);
    client.close();
    const log = await emu.requests();
    assert.deepEqual(log.map((e) => [e.method, e.path, e.status]), [['POST', '/graphql', 200], ['POST', '/graphql', 400], ['GET', '/welcome', 200]]);
    const [first, second, third] = log;
    assert.deepEqual(first.headers.find(([n]) => n === 'x-custom-header'), ['x-custom-header', 'One']);
    assert.deepEqual([first.body, first.bodyBase64, first.httpVersion], [JSON.stringify({ query: Q.CurrentUser }), undefined, '1.1']);
    assert.deepEqual(first.graphql, { operationName: null, known: 'CurrentUser', firstDifference: null, closest: 'CurrentUser' });
    assert.deepEqual([second.bodyBase64, second.graphql], [binary.toString('base64'), null]);
    assert.deepEqual([third.httpVersion, third.url], ['2.0', `https://accounts.ostrio.localhost:${emu.port}/welcome?auth_callback=x://y&legacy_auth=false`]);
  });

  it('exits 0 on SIGTERM with an HTTP/2 session and a slowed download open', async () => {
    const victim = await startEmulator(['--fault', '{"route":"media","bytesPerSecond":1000}']);
    const client = victim.connectH2('media');
    client.on('error', () => {});
    let firstBytes;
    const arrived = new Promise((resolve) => { firstBytes = resolve; });
    const download = h2Request(client, { ':path': '/media/synthetic/1000000' }, { onData: () => firstBytes() });
    await arrived;
    victim.proc.kill('SIGTERM');
    assert.equal(await exited(victim.proc, 5000), 0);
    assert.ok((await download).received < 1000000, 'the download was still running');
    client.destroy();
    await victim.stop();
  });

  // No media link in it: a signed link's expiry moves with the clock, and answers are compared.
  const me = () => emu.graphql('{ me { id name email } }', undefined, token);
  const arm = async (fault) => assert.equal((await emu.control('POST', '/faults', fault)).status, 200, JSON.stringify(fault));
  const synthetic = (size) => emu.request('media', 'GET', `/media/synthetic/${size}`);
  const faults = async () => (await emu.control('GET', '/faults')).json.faults;

  it('fires each fault for exactly its count, oldest first, on its route only', async () => {
    await arm({ route: 'graphql', status: 503, retryAfter: '1', count: 2 });
    await arm({ route: 'graphql', status: 504 });
    assert.deepEqual((await faults()).map((f) => [f.status, f.remaining]), [[503, 2], [504, 1]]);
    assert.equal((await synthetic(10)).status, 200, 'a media request is not a graphql answer');
    for (const expected of [503, 503, 504, 200]) {
      const res = await me();
      assert.deepEqual([res.status, res.headers['retry-after']], [expected, expected === 503 ? '1' : undefined]);
    }
    assert.deepEqual(await faults(), []);

    await arm({ route: '*', status: 500, count: 3 });
    assert.equal((await me()).status, 500);
    assert.equal((await synthetic(10)).status, 500);
    assert.equal((await emu.request('accounts', 'GET', '/welcome?auth_callback=x://y')).status, 500);
    assert.equal((await me()).status, 200);

    // A refresh answered by a fault leaves its refresh token unspent.
    const s = await emu.session();
    await arm({ route: 'refresh', status: 503 });
    const refresh = () => emu.request('api', 'POST', `/v2/auth/refresh_tokens/${s.refreshToken}/apply`, { headers: { 'x-ostrio-client': 'c' } });
    assert.equal((await refresh()).status, 503);
    assert.equal((await refresh()).status, 200);
  });

  it('changes content type, truncates, garbles and replaces answers', async () => {
    const normal = await me();
    await arm({ route: 'graphql', contentType: 'text/html' });
    const html = await me();
    assert.deepEqual([html.headers['content-type'], html.json], ['text/html', normal.json]);

    await arm({ route: 'graphql', truncateBody: 10 });
    const cut = await me();
    assert.deepEqual([cut.status, cut.error, cut.headers['content-length'], cut.body], [200, undefined, undefined, normal.body.subarray(0, 10)]);

    await arm({ route: 'graphql', malformedBody: true });
    const garbled = await me();
    assert.ok(garbled.status === 200 && garbled.json === null && garbled.body.length > 0, String(garbled.body));

    await arm({ route: 'graphql', graphqlError: 'boom' });
    assert.deepEqual((await me()).json, { errors: [{ message: 'boom' }], data: null });
    assert.deepEqual((await me()).json, normal.json);
  });

  it('holds a delayed answer back while a later request is answered', async () => {
    await emu.control('DELETE', '/requests');
    await arm({ route: 'media', delayMs: 5000 });
    let held = true;
    const delayed = synthetic(10).then(() => { held = false; });
    while ((await emu.requests()).length === 0) { /* until the delayed request has arrived */ }
    assert.equal((await synthetic(10)).status, 200);
    assert.ok(held, 'the delayed answer came first');
    await delayed;
  });

  it('resets HTTP/1.1 connections and HTTP/2 streams after exactly K body bytes', async () => {
    for (const k of [0, 1000, 200000]) {
      await arm({ route: 'media', resetAfterBytes: k });
      const cut = await synthetic(1 << 20);
      assert.deepEqual([cut.status, cut.headers['content-length']], [200, String(1 << 20)], 'headers go out before the reset');
      assert.ok(cut.error, 'the answer must break off');
      assert.ok(cut.body.equals(expectedBytes(k, 0)), `${cut.body.length} bytes instead of ${k}`);
    }
    // Several streams at once: the reset of one must neither lose its own last bytes nor touch the others.
    await arm({ route: 'media', resetAfterBytes: 300000, count: 3 });
    const client = emu.connectH2('media');
    try {
      const fetch = () => h2Request(client, { ':path': '/media/synthetic/1048576' }, { onData: () => {} });
      const results = await Promise.all([fetch(), fetch(), fetch(), fetch()]);
      const reset = results.filter((r) => r.rstCode === http2.constants.NGHTTP2_INTERNAL_ERROR);
      assert.deepEqual(reset.map((r) => [r.status, r.received]), [[200, 300000], [200, 300000], [200, 300000]]);
      assert.equal(results.filter((r) => r.received === 1048576).length, 1, 'the fourth stream is untouched');
    } finally {
      client.close();
    }
  });

  it('rejects malformed fault descriptions', async () => {
    for (const bad of [{ route: 'nowhere', status: 500 }, { route: 'graphql' }, { route: 'graphql', status: 500, count: 0 },
      { route: 'graphql', stauts: 500 }, [1], { route: 'media', status: 100 }]) {
      assert.equal((await emu.control('POST', '/faults', bad)).status, 400, JSON.stringify(bad));
    }
  });
});

describe('request log', () => {
  it('drops the oldest entries once the kept bodies pass the budget, and shows no bookkeeping', () => {
    const log = new RequestLog({ bodyBudget: 10 });
    for (const body of ['aaaa', 'bbbb', 'cccc', '']) log.setBody(log.begin({ method: 'POST' }), Buffer.from(body));
    assert.deepEqual(log.list().map((e) => [e.seq, e.body]), [[2, 'bbbb'], [3, 'cccc'], [4, '']]);
    assert.deepEqual(Object.keys(log.list()[0]), Object.keys(new RequestLog().begin({})));
    log.clear();
    for (const body of ['01234', '56789']) log.setBody(log.begin({}), Buffer.from(body));
    assert.equal(log.list().length, 2, 'clear() empties the budget too');
    log.setBody(log.begin({}), Buffer.alloc(11));
    assert.deepEqual(log.list().map((e) => e.seq), [7], 'the newest entry stays, even alone over the budget');
  });
});
