'use strict';

const assert = require('node:assert/strict');
const { describe, it, before, after } = require('node:test');
const { startEmulator } = require('../harness');
const { expectedBytes } = require('../lib/media');

describe('large data set', { timeout: 120000 }, () => {
  let emu, data;
  before(async () => {
    emu = await startEmulator(['--dataset', 'large', '--no-log']);
    data = await emu.data();
  });
  after(() => emu && emu.stop());

  it('serves the multi-GB video without storing it', async () => {
    const v = data.largeVideo;
    assert.equal(v.size, 3 * 1024 ** 3);
    const { pathname, search } = new URL(v.downloadUrl);
    const head = await emu.request('media', 'HEAD', pathname + search);
    assert.equal(head.headers['content-length'], String(v.size));
    const tail = await emu.request('media', 'GET', pathname + search, { headers: { range: 'bytes=-4096' } });
    assert.equal(tail.status, 206);
    assert.equal(tail.headers['content-range'], `bytes ${v.size - 4096}-${v.size - 1}/${v.size}`);
    assert.deepEqual(tail.body, expectedBytes(4096, v.seed, v.size - 4096));
  });
});
