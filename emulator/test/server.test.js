'use strict';

const assert = require('node:assert/strict');
const crypto = require('node:crypto');
const fs = require('node:fs');
const path = require('node:path');
const { describe, it } = require('node:test');
const { startEmulator, h2Request, tempDir, exited } = require('../harness');
const { RequestLog } = require('../lib/requestLog');

describe('server', { timeout: 90000 }, () => {
  it('shares one CA and server certificate between emulators starting at once on a fresh state folder; ends at once on SIGTERM', async () => {
    const dir = tempDir();
    const all = await Promise.all([1, 2, 3].map(() => startEmulator([], { stateDir: dir })));
    // Ids are the same in another state folder; SIGTERM ends this one while a download is slowed.
    const elsewhere = await startEmulator(['--fault', '{"route":"media","bytesPerSecond":1000}']);
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
      const ids = await Promise.all([...all, elsewhere].map(async (e) => (await e.data()).videoAsset.id));
      assert.equal(new Set(ids).size, 1, 'ids are the same on every run');
      const client = elsewhere.connectH2('media');
      client.on('error', () => {});
      let download;
      await new Promise((resolve) => { download = h2Request(client, { ':path': '/media/synthetic/1000000' }, { onData: resolve }); });
      elsewhere.proc.kill('SIGTERM');
      assert.equal(await exited(elsewhere.proc, 5000), 0, 'exit status with an HTTP/2 session and a download open');
      assert.ok((await download).received < 1000000, 'the download was still running');
      client.destroy();
    } finally {
      await Promise.all([...all, elsewhere].map((e) => e.stop()));
      fs.rmSync(dir, { recursive: true, force: true });
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
