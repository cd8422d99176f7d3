'use strict';

const assert = require('node:assert/strict');
const crypto = require('node:crypto');
const fs = require('node:fs');
const path = require('node:path');
const { describe, it, before, after } = require('node:test');
const { startEmulator } = require('../harness');
const { KNOWN_QUERIES: Q } = require('../lib/knownQueries');
const { expectedBytes } = require('../lib/media');

const RECORD = /^expires=(\d+)&refreshToken=([^&=#]+)&token=Bearer%20([^&=#]+)&userId=([0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12})$/;

describe('GraphQL API, sign-in and media', { timeout: 60000 }, () => {
  let emu, token, data, secret, video, url;
  before(async () => {
    emu = await startEmulator([], { verbose: true });
    token = (await emu.session()).accessToken;
    data = await emu.data();
    secret = Buffer.from(fs.readFileSync(path.join(emu.stateDir, 'jwt-secret'), 'utf8').trim(), 'hex');
    video = data.videoAsset;
    url = local(video.downloadUrl);
  });
  after(() => emu && emu.stop());

  const ok = async (query, variables, t = token) => {
    const res = await emu.graphql(query, variables, t);
    assert.deepEqual([res.status, res.headers['content-type'], res.json.errors], [200, 'application/json; charset=utf-8', undefined]);
    return res.json.data;
  };
  const post = (body, type) => emu.request('api', 'POST', '/graphql', {
    headers: { ...(type === null ? {} : { 'content-type': type }), authorization: `Bearer ${token}` }, body,
  });
  const get = (target, headers = {}, method = 'GET') => emu.request('media', method, target, { headers });
  function local(link) { const u = new URL(link); return u.pathname + u.search; }
  const signed = async (p, lifetime) => local((await emu.control('POST', '/sign', { path: p, lifetime })).json.url);
  const welcome = (query) => emu.request('accounts', 'GET', `/welcome?${query}`);
  const refresh = (rt, headers = { 'x-ostrio-client': 'ostrio-cli/test/1.0' }) => emu.request('api', 'POST', `/v2/auth/refresh_tokens/${rt}/apply`, { headers });

  // The access token's signature checked the way a verifier would; returns its claims.
  function verifyJwt(jwt) {
    const [h, p, s] = jwt.split('.');
    assert.equal(crypto.createHmac('sha256', secret).update(`${h}.${p}`).digest('base64url'), s);
    const claims = JSON.parse(Buffer.from(p, 'base64url'));
    assert.deepEqual([JSON.parse(Buffer.from(h, 'base64url')), claims.typ], [{ alg: 'HS256', typ: 'JWT' }, 'access']);
    return claims;
  }

  // A sign-in redirect's credential record, read the way the library reads it; returns the user id.
  function redirectedUser(res, callback) {
    const { location } = res.headers;
    const m = RECORD.exec(location.slice(callback.length + 1));
    assert.ok(res.status === 302 && location.startsWith(`${callback}#`) && m, location);
    const claims = verifyJwt(m[3]);
    assert.deepEqual([claims.sub, String(claims.exp)], [m[4], m[1]]);
    return m[4];
  }

  it('names the offset and closest text of a drifted document', async () => {
    await emu.control('DELETE', '/requests');
    const at = Q.WorkspacesByAccountID.indexOf('pageInfo');
    await ok(`${Q.WorkspacesByAccountID.slice(0, at)} ${Q.WorkspacesByAccountID.slice(at)}`, { accountID: data.accountIds[0], page: { first: 1 } });
    await ok(Q.GetDownloadURL.replace('GetDownloadURL', 'GetDownloadUrl'), { assetID: data.videoAsset.id });
    assert.deepEqual((await emu.requests()).map((e) => e.graphql), [
      { operationName: 'WorkspacesByAccountID', known: null, firstDifference: at, closest: 'WorkspacesByAccountID' },
      { operationName: 'GetDownloadUrl', known: null, firstDifference: Q.GetDownloadURL.indexOf('URL') + 1, closest: 'GetDownloadURL' }]);
  });

  it('answers bad documents and variables with GraphQL errors', async () => {
    // The first error of an answer that carries errors.
    const errorOf = async (query, variables) => {
      const res = await emu.graphql(query, variables, token);
      assert.equal(res.status, 200);
      return res.json.errors[0].message;
    };
    const pageOf = (page, accountID = data.accountIds[0]) => ({ accountID, page });
    const other = (await ok(Q.WorkspacesByAccountID, pageOf({ first: 1 }, data.accountIds[1]))).account.workspaces.pageInfo.endCursor;
    for (const [query, variables, message] of [
      ['{ me { id ', undefined, /Syntax Error/],
      [Q.WorkspaceCountByAccountID, pageOf({ first: '0' }), /Int cannot represent/],
      [Q.WorkspacesByAccountID, pageOf({ first: 1001 }), /first/],
      [Q.WorkspacesByAccountID, pageOf({ first: 1, after: 'garbage!' }), /invalid cursor/],
      [Q.WorkspacesByAccountID, pageOf({ first: 0, after: 'garbage!' }), /invalid cursor/],
      [Q.WorkspacesByAccountID, pageOf({ first: 1, after: other }), /invalid cursor/],
    ]) {
      assert.match(await errorOf(query, variables), message, JSON.stringify(variables));
    }
  });

  it('takes only a JSON object of a JSON content type', async () => {
    const good = JSON.stringify({ query: Q.CurrentUser });
    for (const [type, status, body = good] of [
      ['application/json', 200], ['application/json; charset=utf-8', 200], ['Application/JSON;Charset="UTF-8"', 200], ['application/json ; v=1', 200],
      ['application/jsonx', 415], ['application/json-patch+json', 415], ['text/json', 415], ['application/x-www-form-urlencoded', 415],
      ['text/plain', 415], ['application/json; charset=iso-8859-1', 415], ['application/json;', 415], ['application/json, text/plain', 415], [null, 415],
      ['application/json', 400, '{"query": '], ['application/json', 400, JSON.stringify({ query: Q.CurrentUser, variables: [1] })],
      // Valid JSON but for one Latin-1 byte in a string, which a substituting decoder would accept.
      ['application/json', 400, Buffer.from('{"query": "{ me { id } }", "x": "\xe9"}', 'latin1')],
    ]) {
      const res = await post(body, type);
      assert.equal(res.status, status, `${type} ${body}`);
      assert.ok(JSON.parse(res.body)[status === 200 ? 'data' : 'errors'], `${type} ${body}`);
    }
  });

  it('shows a user only the accounts they belong to, and a folder no video link', async () => {
    const sam = data.users.find((u) => u.email === 'sam@example.com');
    const samToken = (await emu.session({ userId: sam.id })).accessToken;
    assert.deepEqual((await ok(Q.Accounts, { page: { first: 100 } }, samToken)).me.accounts.nodes.map((n) => n.account.id), sam.accountIds);
    const foreign = data.accountIds.find((id) => !sam.accountIds.includes(id));
    assert.match((await emu.graphql(Q.WorkspaceCountByAccountID, { accountID: foreign, page: { first: 0 } }, samToken)).json.errors[0].message, /^not found/);
    // A folder is a valid asset, just not a video: the fragment selects nothing.
    assert.deepEqual((await ok(Q.GetDownloadURL, { assetID: video.folderId })).asset, {});
  });

  it('auto-approves, decodes the callback leniently and refuses callbacks it cannot redirect to', async () => {
    assert.equal(redirectedUser(await welcome('legacy_auth=false&auth_callback=ostrio-cli://ostrio&approve=1'), 'ostrio-cli://ostrio'), data.user.id);
    assert.equal(redirectedUser(await welcome('auth_callback=my%2Bapp://ostrio&approve=1&email=sam@example.com'), 'my+app://ostrio'), data.users.find((u) => u.email === 'sam@example.com').id);
    for (const bad of ['legacy_auth=false', 'auth_callback=', 'auth_callback=no-scheme-here', 'auth_callback=%9://ostrio', 'auth_callback=a%9b://x&approve=1',
      'auth_callback=app://x%23frag&approve=1', 'auth_callback=%E9t%C3://x']) {
      const res = await welcome(bad);
      assert.deepEqual([res.status, res.headers['content-type']], [400, 'text/html; charset=utf-8'], bad);
    }
  });

  it('rotates refresh tokens, keeps the old access token valid and logs no token', async () => {
    const first = await emu.session();
    assert.equal((await refresh(first.refreshToken, {})).status, 400);
    const r1 = await refresh(first.refreshToken);
    const [, newToken] = /^Bearer (\S+)$/.exec(r1.headers.authorization);
    const newRefresh = r1.headers['x-refresh-token'];
    assert.equal(verifyJwt(newToken).sub, first.userId);
    const tampered = `${newRefresh[0] === 'A' ? 'B' : 'A'}${newRefresh.slice(1)}`;
    for (const rt of [first.refreshToken, 'garbage', tampered]) assert.equal((await refresh(rt)).status, 401, rt);
    for (const t of [first.accessToken, newToken]) assert.equal((await ok(Q.CurrentUser, undefined, t)).me.id, first.userId);
    // Each refresh is reported on stderr, none with its token (the token is in the path).
    const lines = await emu.stderrLines(/POST \S+\/v2\/auth\/refresh_tokens\/\S+\/apply → \d{3}/, 5);
    assert.equal(lines.length, 5, lines.join('\n'));
    for (const t of [first.refreshToken, newRefresh, first.accessToken, newToken]) assert.ok(!emu.stderr.includes(t), 'a token reached stderr');
  });

  it('answers "unauthenticated" for missing, malformed, forged, expired and revoked tokens', async () => {
    const good = await emu.session();
    const expired = await emu.session({ lifetime: 0 });
    const revoked = await emu.session();
    assert.deepEqual((await emu.control('POST', '/revoke', { accessToken: revoked.accessToken })).json, { revoked: true });
    const [h, p, s] = good.accessToken.split('.');
    const forged = Buffer.from(JSON.stringify({ ...JSON.parse(Buffer.from(p, 'base64url')), sub: data.users[1].id })).toString('base64url');
    for (const authorization of [undefined, 'Basic ZGFuYTpwdw==', 'Bearer not.a.jwt', `Bearer ${h}.${p}.${'A'.repeat(43)}`, `Bearer ${h}.${forged}.${s}`,
      `Bearer ${expired.accessToken}`, `Bearer ${revoked.accessToken}`, [`Bearer ${good.accessToken}`, `Bearer ${good.accessToken}`]]) {
      const res = await emu.graphql(Q.CurrentUser, undefined, null, authorization ? { authorization } : {});
      assert.deepEqual([res.status, res.json], [200, { errors: [{ message: 'unauthenticated' }] }], String(authorization));
    }
    const used = await emu.session();
    assert.deepEqual((await emu.control('POST', '/revoke', { refreshToken: used.refreshToken })).json, { revoked: true });
    assert.equal((await refresh(used.refreshToken)).status, 401);
  });

  it('serves exact byte ranges of a video, and the whole of it for ranges it does not serve', async () => {
    const size = video.size;
    const full = await get(url);
    assert.deepEqual([full.status, full.headers['content-type'], full.headers['accept-ranges'], full.headers['content-length']], [200, 'video/mp4', 'bytes', String(size)]);
    assert.ok(full.body.equals(expectedBytes(size, video.seed)));
    for (const [range, start, end] of [['bytes=0-0', 0, 0], ['bytes=1000-66535', 1000, 66535], ['bytes=65530-65545', 65530, 65545],
      [`bytes=${size - 10}-`, size - 10, size - 1], [`bytes=${size - 10}-${size + 1000}`, size - 10, size - 1], ['bytes=-300', size - 300, size - 1], [`bytes=-${size + 5}`, 0, size - 1]]) {
      const res = await get(url, { range });
      assert.deepEqual([res.status, res.headers['content-range'], res.headers['content-length']], [206, `bytes ${start}-${end}/${size}`, String(end - start + 1)], range);
      assert.ok(res.body.equals(full.body.subarray(start, end + 1)), range);
    }
    for (const range of [`bytes=${size}-`, `bytes=${size + 1}-${size + 9}`, 'bytes=-0']) {
      const res = await get(url, { range });
      assert.deepEqual([res.status, res.headers['content-range']], [416, `bytes */${size}`], range);
    }
    // Several, malformed or backwards ranges, and a range whose If-Range is stale: the whole resource.
    for (const headers of [{ range: 'bytes=0-1,5-6' }, { range: 'items=0-5' }, { range: 'bytes=9-3' }, { range: 'bytes=10-19', 'if-range': '"something-else"' }]) {
      const res = await get(url, headers);
      assert.deepEqual([res.status, res.body.length], [200, size], JSON.stringify(headers));
    }
    assert.equal((await get(url, { range: 'bytes=10-19', 'if-range': full.headers.etag })).status, 206);
    const head = await get(url, { range: 'bytes=5-9' }, 'HEAD');
    assert.deepEqual([head.status, head.headers['content-length'], head.body.length, head.headers.etag], [206, '5', 0, full.headers.etag]);
  });

  it('serves thumbnails, avatars and synthetic resources, each with its own pattern and tag', async () => {
    const thumb = await get(local(video.thumbnailUrl));
    const syn = await emu.request('api', 'GET', '/media/synthetic/1000');
    const avatar = await get(await signed(`/media/${data.user.id}/avatar.jpg`));
    assert.deepEqual([thumb, syn, avatar].map((r) => r.headers['content-type']), ['image/jpeg', 'application/octet-stream', 'image/jpeg']);
    assert.ok(thumb.body.equals(expectedBytes(video.thumbnailSize, video.thumbnailSeed)) && syn.body.equals(expectedBytes(1000, 0)));
    assert.equal(new Set([thumb, syn, avatar, await get(url, {}, 'HEAD')].map((r) => r.headers.etag)).size, 4);
    for (const target of [await signed(`/media/${video.id}/original.mov`), await signed('/media/00000000-0000-0000-0000-000000000000/original.mp4'), '/media/synthetic/12x']) {
      assert.equal((await get(target)).status, 404, target);
    }
    assert.equal((await get(url, {}, 'POST')).status, 405);
  });

  it('refuses media links that are unsigned, stale or altered (403), and links sent with a token (400)', async () => {
    const [path, query] = url.split('?');
    const params = new URLSearchParams(query);
    const expires = params.get('expires');
    const signature = params.get('signature');
    const flipped = signature.slice(0, -1) + (signature.endsWith('0') ? '1' : '0');
    const forbidden = [path, '/media/00000000-0000-0000-0000-000000000000/original.mp4', `${path}?expires=${expires}&signature=${flipped}`,
      `${path}?expires=${Number(expires) + 1}&signature=${signature}`, `${path}?expires=${expires}`, `${path}?expires=${expires}&signature=${signature.toUpperCase()}`,
      `${url}&download=1`, `${url}&signature=${signature}`, `/media/${video.id}/thumbnail.jpg?${query}`, `/media/${video.id}/%6Friginal.mp4?${query}`,
      await signed(path, -60)];
    const cases = [...forbidden.map((target) => [target, {}, 403]), [url, { authorization: 'Bearer abc' }, 400], [path, { authorization: 'Bearer abc' }, 400],
      [`${path}?signature=${signature}&expires=${expires}`, { range: 'bytes=0-0' }, 206], [url, { range: 'bytes=0-0' }, 206]];
    for (const method of ['GET', 'HEAD']) {
      for (const [target, headers, status] of cases) {
        const res = await get(target, headers, method);
        assert.equal(res.status, status, `${method} ${target} ${JSON.stringify(headers)}`);
        if (status >= 400) assert.match(res.headers['content-type'], /^application\/json/);
      }
    }
    // The host is not part of what is signed.
    assert.equal((await emu.request('api', 'GET', url, { headers: { range: 'bytes=0-0' } })).status, 206);
    for (const bad of [{}, { path: 'media/x' }, { path: '/media/x?y' }, { path: '/other/x' }, { path: '/media/x', lifetime: '1' }, { path: '/media/x', lifetime: 1e300 }]) {
      assert.equal((await emu.control('POST', '/sign', bad)).status, 400, JSON.stringify(bad));
    }
  });
});
