'use strict';

const assert = require('node:assert/strict');
const http2 = require('node:http2');
const { describe, it, before, after, beforeEach } = require('node:test');
const { startEmulator, h2Request } = require('../harness');
const { KNOWN_QUERIES: Q } = require('../lib/knownQueries');
const { expectedBytes } = require('../lib/media');

describe('fault injection', { timeout: 60000 }, () => {
  let emu, token;
  before(async () => {
    emu = await startEmulator();
    token = (await emu.session()).accessToken;
  });
  after(() => emu && emu.stop());
  beforeEach(() => emu.control('DELETE', '/faults'));

  // No media link in it: a signed link's expiry moves with the clock, and answers are compared.
  const me = () => emu.graphql('{ me { id name email } }', undefined, token);
  const arm = async (fault) => {
    const res = await emu.control('POST', '/faults', fault);
    assert.equal(res.status, 200, JSON.stringify(res.json));
    return res.json.id;
  };
  const synthetic = (size, headers) => emu.request('media', 'GET', `/media/synthetic/${size}`, { headers });

  it('arms faults given on the command line', async () => {
    const fresh = await startEmulator(['--fault', '{"route":"graphql","status":502}']);
    try {
      const t = (await fresh.session()).accessToken;
      assert.equal((await fresh.graphql(Q.CurrentUser, undefined, t)).status, 502);
      assert.equal((await fresh.graphql(Q.CurrentUser, undefined, t)).status, 200);
    } finally {
      await fresh.stop();
    }
  });

  it('fires each fault for exactly its count, oldest first, on its route only', async () => {
    await arm({ route: 'graphql', status: 503, retryAfter: '1', count: 2 });
    await arm({ route: 'graphql', status: 504 });
    assert.deepEqual((await emu.control('GET', '/faults')).json.faults.map((f) => [f.status, f.remaining]), [[503, 2], [504, 1]]);
    assert.equal((await synthetic(10)).status, 200, 'a media request is not a graphql answer');
    for (const expected of [503, 503, 504, 200]) {
      const res = await me();
      assert.equal(res.status, expected);
      assert.equal(res.headers['retry-after'], expected === 503 ? '1' : undefined);
    }
    assert.deepEqual((await emu.control('GET', '/faults')).json.faults, []);

    await arm({ route: '*', status: 500, count: 3 });
    assert.equal((await me()).status, 500);
    assert.equal((await synthetic(10)).status, 500);
    assert.equal((await emu.request('accounts', 'GET', '/welcome?auth_callback=x://y')).status, 500);
    assert.equal((await me()).status, 200);
  });

  it('leaves a refresh token unspent when the refresh answer is a fault', async () => {
    const s = await emu.session();
    await arm({ route: 'refresh', status: 503 });
    const refresh = () => emu.request('api', 'POST', `/v2/auth/refresh_tokens/${s.refreshToken}/apply`, { headers: { 'x-ostrio-client': 'c' } });
    assert.equal((await refresh()).status, 503);
    assert.equal((await refresh()).status, 200);
  });

  it('changes content type, truncates, garbles and replaces answers', async () => {
    const normal = await me();
    await arm({ route: 'graphql', contentType: 'text/html', count: 2 });
    for (let i = 0; i < 2; i++) {
      const res = await me();
      assert.equal(res.headers['content-type'], 'text/html');
      assert.deepEqual(res.json, normal.json);
    }
    assert.equal((await me()).headers['content-type'], 'application/json; charset=utf-8');

    await arm({ route: 'graphql', truncateBody: 10 });
    const cut = await me();
    assert.equal(cut.status, 200);
    assert.equal(cut.error, undefined);
    assert.equal(cut.headers['content-length'], undefined);
    assert.deepEqual(cut.body, normal.body.subarray(0, 10));

    await arm({ route: 'graphql', malformedBody: true });
    const garbled = await me();
    assert.equal(garbled.status, 200);
    assert.equal(garbled.json, null);
    assert.ok(garbled.body.length > 0);

    // Statuses that forbid a body end the HTTP/2 stream cleanly instead of breaking it.
    await arm({ route: 'media', status: 204 });
    const client = emu.connectH2('media');
    try {
      const empty = await h2Request(client, { ':path': '/media/synthetic/10' });
      assert.deepEqual([empty.status, empty.body.length, empty.rstCode], [204, 0, http2.constants.NGHTTP2_NO_ERROR]);
    } finally {
      client.close();
    }

    await arm({ route: 'graphql', graphqlError: 'boom' });
    assert.deepEqual((await me()).json, { errors: [{ message: 'boom' }], data: null });
    assert.deepEqual((await me()).json, normal.json);
    assert.deepEqual((await emu.control('GET', '/faults')).json.faults, []);
  });

  // Lower bounds only: the fault holds an answer back at least this long, never at most.
  it('delays and slows answers', async () => {
    await arm({ route: 'media', delayMs: 300 });
    let t0 = Date.now();
    assert.equal((await synthetic(10)).status, 200);
    assert.ok(Date.now() - t0 >= 290, 'delayed');

    await arm({ route: 'media', bytesPerSecond: 20000 });
    t0 = Date.now();
    const slow = await synthetic(10000);
    assert.ok(Date.now() - t0 >= 400, `10 000 bytes at 20 000 B/s took ${Date.now() - t0} ms`);
    assert.ok(slow.body.equals(expectedBytes(10000, 0)));
    assert.deepEqual((await emu.control('GET', '/faults')).json.faults, []);
  });

  it('resets HTTP/1.1 connections and HTTP/2 streams after K body bytes', async () => {
    for (const k of [0, 1000, 200000]) {
      await arm({ route: 'media', resetAfterBytes: k });
      const cut = await synthetic(1 << 20);
      assert.equal(cut.status, 200, 'headers go out before the reset');
      assert.equal(cut.headers['content-length'], String(1 << 20));
      assert.ok(cut.error, 'the answer must break off');
      assert.ok(cut.body.equals(expectedBytes(k, 0)), `${cut.body.length} bytes instead of ${k}`);
    }
    assert.equal((await synthetic(1 << 20)).body.length, 1 << 20);

    // Several streams at once: the reset of one must neither lose its own last bytes nor
    // touch the others.
    await arm({ route: 'media', resetAfterBytes: 300000, count: 3 });
    const client = emu.connectH2('media');
    try {
      const fetch = () => h2Request(client, { ':path': '/media/synthetic/1048576' }, { onData: () => {} });
      const results = await Promise.all([fetch(), fetch(), fetch(), fetch()]);
      const reset = results.filter((r) => r.rstCode === http2.constants.NGHTTP2_INTERNAL_ERROR);
      assert.equal(reset.length, 3);
      for (const r of reset) assert.deepEqual([r.status, r.received], [200, 300000]);
      assert.deepEqual(results.filter((r) => r.received === 1048576).length, 1, 'the fourth stream is untouched');
    } finally {
      client.close();
    }
  });

  it('rejects malformed fault descriptions', async () => {
    for (const bad of [{ route: 'nowhere', status: 500 }, { route: 'graphql' }, { route: 'graphql', status: 500, count: 0 }, { route: 'graphql', stauts: 500 }, [1],
      { route: 'media', status: 100 }]) {
      assert.equal((await emu.control('POST', '/faults', bad)).status, 400, JSON.stringify(bad));
    }
  });
});
