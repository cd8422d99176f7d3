'use strict';

const assert = require('node:assert/strict');
const http2 = require('node:http2');
const { describe, it, before, after, beforeEach } = require('node:test');
const { startEmulator, h2Request } = require('../harness');
const { KNOWN_QUERIES: Q } = require('../lib/knownQueries');
const { expectedBytes } = require('../lib/media');

const RECORD = /^expires=(\d+)&refreshToken=([^&=#]+)&token=Bearer%20([^&=#]+)&userId=([0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12})$/;

describe('GraphQL API, sign-in, media, request log and faults', { timeout: 90000 }, () => {
  let emu, token, data, video, url;
  before(async () => {
    emu = await startEmulator([], { verbose: true });
    token = (await emu.session()).accessToken;
    data = await emu.data();
    video = data.videoAsset;
    url = local(video.downloadUrl);
  });
  after(() => emu && emu.stop());
  beforeEach(() => emu.control('DELETE', '/faults'));

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

  // A sign-in redirect's credential record, read the way the library reads it; returns the user id
  // once the service has said that the record's token is that user's.
  async function redirectedUser(res, callback) {
    const { location } = res.headers;
    const m = RECORD.exec(location.slice(callback.length + 1));
    assert.ok(res.status === 302 && location.startsWith(`${callback}#`) && m, location);
    assert.equal((await ok(Q.CurrentUser, undefined, m[3])).me.id, m[4]);
    return m[4];
  }

  it('answers bad documents and variables with GraphQL errors', async () => {
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
      const res = await emu.graphql(query, variables, token);
      assert.equal(res.status, 200, JSON.stringify(variables));
      assert.match(res.json.errors[0].message, message, JSON.stringify(variables));
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
    assert.equal(await redirectedUser(await welcome('legacy_auth=false&auth_callback=ostrio-cli://ostrio&approve=1'), 'ostrio-cli://ostrio'), data.user.id);
    assert.equal(await redirectedUser(await welcome('auth_callback=my%2Bapp://ostrio&approve=1&email=sam@example.com'), 'my+app://ostrio'), data.users.find((u) => u.email === 'sam@example.com').id);
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
    for (const [target, headers, status] of cases) {
      const res = await get(target, headers);
      assert.equal(res.status, status, `${target} ${JSON.stringify(headers)}`);
      if (status >= 400) assert.match(res.headers['content-type'], /^application\/json/);
    }
    // The host is not part of what is signed.
    assert.equal((await emu.request('api', 'GET', url, { headers: { range: 'bytes=0-0' } })).status, 206);
    for (const bad of [{}, { path: 'media/x' }, { path: '/media/x?y' }, { path: '/other/x' }, { path: '/media/x', lifetime: '1' }, { path: '/media/x', lifetime: 1e300 }]) {
      assert.equal((await emu.control('POST', '/sign', bad)).status, 400, JSON.stringify(bad));
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

  it('logs what crossed the wire, in order, except its own control traffic, and names how a drifted text differs', async () => {
    await emu.control('DELETE', '/requests');
    await emu.graphql(Q.CurrentUser, undefined, token, { 'X-Custom-Header': 'One' });
    const binary = Buffer.from([0xff, 0xfe, 0x00, 0x41]);
    await emu.request('api', 'POST', '/graphql', { headers: { 'content-type': 'application/json' }, body: binary });
    const client = emu.connectH2('accounts');
    assert.equal((await h2Request(client, { ':path': '/welcome?auth_callback=x://y&legacy_auth=false' })).status, 200);
    client.close();
    // One blank more, deep inside one of the library's texts that shares its start with another.
    const at = Q.WorkspacesByAccountID.indexOf('pageInfo');
    await emu.graphql(`${Q.WorkspacesByAccountID.slice(0, at)} ${Q.WorkspacesByAccountID.slice(at)}`, { accountID: data.accountIds[0], page: { first: 1 } }, token);
    const log = await emu.requests();
    assert.deepEqual(log.map((e) => [e.method, e.path, e.status]), [['POST', '/graphql', 200], ['POST', '/graphql', 400], ['GET', '/welcome', 200], ['POST', '/graphql', 200]]);
    const [first, second, third, drifted] = log;
    assert.deepEqual(first.headers.find(([n]) => n === 'x-custom-header'), ['x-custom-header', 'One']);
    assert.deepEqual([first.body, first.bodyBase64, first.httpVersion], [JSON.stringify({ query: Q.CurrentUser }), undefined, '1.1']);
    assert.deepEqual(first.graphql, { operationName: null, known: 'CurrentUser', firstDifference: null, closest: 'CurrentUser' });
    assert.deepEqual([second.bodyBase64, second.graphql], [binary.toString('base64'), null]);
    assert.deepEqual([third.httpVersion, third.url], ['2.0', `https://accounts.ostrio.localhost:${emu.port}/welcome?auth_callback=x://y&legacy_auth=false`]);
    assert.deepEqual(drifted.graphql, { operationName: 'WorkspacesByAccountID', known: null, firstDifference: at, closest: 'WorkspacesByAccountID' });
  });

  // No media link in it: a signed link's expiry moves with the clock, and answers are compared.
  const me = () => emu.graphql('{ me { id name email } }', undefined, token);
  const arm = async (fault) => assert.equal((await emu.control('POST', '/faults', fault)).status, 200, JSON.stringify(fault));
  const synthetic = (size) => emu.request('media', 'GET', `/media/synthetic/${size}`);

  it('fires each fault for exactly its count, oldest first, on its route only', async () => {
    await arm({ route: 'graphql', status: 503, count: 2 });
    await arm({ route: 'graphql', status: 504 });
    assert.equal((await synthetic(10)).status, 200, 'a media request is not a graphql answer');
    for (const expected of [503, 503, 504, 200]) assert.equal((await me()).status, expected);

    await arm({ route: '*', status: 500, count: 3 });
    assert.equal((await me()).status, 500);
    assert.equal((await synthetic(10)).status, 500);
    assert.equal((await emu.request('accounts', 'GET', '/welcome?auth_callback=x://y')).status, 500);
    assert.equal((await me()).status, 200);

    // A refresh answered by a fault leaves its refresh token unspent.
    const { refreshToken } = await emu.session();
    await arm({ route: 'refresh', status: 503 });
    assert.equal((await refresh(refreshToken)).status, 503);
    assert.equal((await refresh(refreshToken)).status, 200);
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
