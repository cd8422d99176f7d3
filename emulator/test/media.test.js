'use strict';

const assert = require('node:assert/strict');
const { describe, it, before, after } = require('node:test');
const { startEmulator } = require('../harness');
const { expectedBytes } = require('../lib/media');

describe('media', { timeout: 60000 }, () => {
  let emu, video;
  before(async () => {
    emu = await startEmulator();
    video = (await emu.data()).videoAsset;
  });
  after(() => emu && emu.stop());

  const get = (target, headers = {}, method = 'GET') => emu.request('media', method, target, { headers });
  const local = (url) => { const u = new URL(url); return u.pathname + u.search; };
  const signed = async (path, lifetime) => {
    const res = await emu.control('POST', '/sign', lifetime === undefined ? { path } : { path, lifetime });
    assert.equal(res.status, 200, JSON.stringify(res.json));
    return local(res.json.url);
  };

  it('serves exact byte ranges of a video', async () => {
    const url = local(video.downloadUrl);
    const full = await get(url);
    assert.equal(full.status, 200);
    assert.equal(full.headers['content-type'], 'video/mp4');
    assert.equal(full.headers['accept-ranges'], 'bytes');
    assert.equal(full.headers['content-length'], String(video.size));
    assert.match(full.headers.etag, /^"[^"]+"$/);
    assert.ok(full.body.equals(expectedBytes(video.size, video.seed)));

    const size = video.size;
    const cases = [
      ['bytes=0-0', 0, 0],
      ['bytes=1000-66535', 1000, 66535],
      ['bytes=65530-65545', 65530, 65545],
      [`bytes=${size - 10}-`, size - 10, size - 1],
      [`bytes=${size - 10}-${size + 1000}`, size - 10, size - 1],
      ['bytes=-300', size - 300, size - 1],
      [`bytes=-${size + 5}`, 0, size - 1],
    ];
    for (const [range, start, end] of cases) {
      const res = await get(url, { range });
      assert.equal(res.status, 206, range);
      assert.equal(res.headers['content-range'], `bytes ${start}-${end}/${size}`, range);
      assert.equal(res.headers['content-length'], String(end - start + 1), range);
      assert.ok(res.body.equals(full.body.subarray(start, end + 1)), range);
    }
    for (const range of [`bytes=${size}-`, `bytes=${size + 1}-${size + 9}`, 'bytes=-0']) {
      const res = await get(url, { range });
      assert.equal(res.status, 416, range);
      assert.equal(res.headers['content-range'], `bytes */${size}`);
    }
    // Ranges we do not serve as ranges (several, malformed, backwards) get the whole resource.
    for (const range of ['bytes=0-1,5-6', 'items=0-5', 'bytes=9-3']) {
      const res = await get(url, { range });
      assert.equal(res.status, 200, range);
      assert.equal(res.body.length, size, range);
    }

    assert.equal((await get(url, { range: 'bytes=10-19', 'if-range': full.headers.etag })).status, 206);
    const stale = await get(url, { range: 'bytes=10-19', 'if-range': '"something-else"' });
    assert.equal(stale.status, 200);
    assert.equal(stale.body.length, size);

    const head = await get(url, { range: 'bytes=5-9' }, 'HEAD');
    assert.equal(head.status, 206);
    assert.equal(head.headers['content-length'], '5');
    assert.equal(head.body.length, 0);
    assert.equal((await get(url, {}, 'HEAD')).headers.etag, full.headers.etag);
  });

  it('serves thumbnails, avatars and synthetic resources, each with its own pattern and tag', async () => {
    const thumb = await get(local(video.thumbnailUrl));
    assert.equal(thumb.headers['content-type'], 'image/jpeg');
    assert.ok(thumb.body.equals(expectedBytes(video.thumbnailSize, video.thumbnailSeed)));
    const syn = await emu.request('api', 'GET', '/media/synthetic/1000');
    assert.equal(syn.headers['content-type'], 'application/octet-stream');
    assert.ok(syn.body.equals(expectedBytes(1000, 0)));
    assert.equal((await emu.request('api', 'GET', '/media/synthetic/0')).body.length, 0);
    const avatar = await get(await signed(`/media/${(await emu.data()).user.id}/avatar.jpg`));
    assert.equal(avatar.headers['content-type'], 'image/jpeg');
    const tags = new Set([thumb.headers.etag, syn.headers.etag, avatar.headers.etag, (await get(local(video.downloadUrl), {}, 'HEAD')).headers.etag]);
    assert.equal(tags.size, 4);
    for (const target of [await signed(`/media/${video.id}/original.mov`), await signed('/media/00000000-0000-0000-0000-000000000000/original.mp4'), '/media/synthetic/12x', '/media/synthetic/']) {
      assert.equal((await get(target)).status, 404, target);
    }
    assert.equal((await emu.request('media', 'POST', local(video.downloadUrl))).status, 405);
  });

  it('refuses media links that are unsigned, stale or altered, and links sent with a token', async () => {
    const good = local(video.downloadUrl);
    const [path, query] = good.split('?');
    const params = new URLSearchParams(query);
    const expires = params.get('expires');
    const signature = params.get('signature');
    const flipped = signature.slice(0, -1) + (signature.endsWith('0') ? '1' : '0');
    const thumbPath = `/media/${video.id}/thumbnail.jpg`;
    const cases = [
      [path, {}, 403],
      ['/media/00000000-0000-0000-0000-000000000000/original.mp4', {}, 403],
      [`${path}?expires=${expires}&signature=${flipped}`, {}, 403],
      [`${path}?expires=${Number(expires) + 1}&signature=${signature}`, {}, 403],
      [`${path}?expires=${expires}`, {}, 403],
      [`${path}?expires=${expires}&signature=${signature.toUpperCase()}`, {}, 403],
      [`${good}&download=1`, {}, 403],
      [`${good}&signature=${signature}`, {}, 403],
      [`${thumbPath}?${query}`, {}, 403],
      [`/media/${video.id}/%6Friginal.mp4?${query}`, {}, 403],
      [await signed(path, -60), {}, 403],
      [good, { authorization: 'Bearer abc' }, 400],
      [path, { authorization: 'Bearer abc' }, 400],
      [`/media/${video.id}/original.mp4?signature=${signature}&expires=${expires}`, { range: 'bytes=0-0' }, 206],
      [good, { range: 'bytes=0-0' }, 206],
    ];
    for (const method of ['GET', 'HEAD']) {
      for (const [target, headers, status] of cases) {
        const res = await get(target, headers, method);
        assert.equal(res.status, status, `${method} ${target} ${JSON.stringify(headers)}`);
        if (status >= 400) assert.match(res.headers['content-type'], /^application\/json/);
        if (status >= 400 && method === 'GET') assert.ok(JSON.parse(res.body).error);
      }
    }
    // The host is not part of what is signed; the lifetime is the configured one.
    assert.equal((await emu.request('api', 'GET', good, { headers: { range: 'bytes=0-0' } })).status, 206);
    assert.equal((await emu.control('POST', '/config', { urlLifetime: -60 })).json.urlLifetime, -60);
    try {
      assert.equal((await get(local((await emu.data()).videoAsset.downloadUrl))).status, 403);
    } finally {
      await emu.control('POST', '/config', { urlLifetime: 3600 });
    }
    for (const bad of [{}, { path: 'media/x' }, { path: '/media/x?y' }, { path: '/other/x' }, { path: '/media/x', lifetime: '1' }, { path: '/media/x', lifetime: 1e300 }]) {
      assert.equal((await emu.control('POST', '/sign', bad)).status, 400, JSON.stringify(bad));
    }
  });
});
