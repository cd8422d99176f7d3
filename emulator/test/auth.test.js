'use strict';

const assert = require('node:assert/strict');
const crypto = require('node:crypto');
const fs = require('node:fs');
const path = require('node:path');
const { describe, it, before, after } = require('node:test');
const { startEmulator } = require('../harness');
const { KNOWN_QUERIES: Q } = require('../lib/knownQueries');

const RECORD = /^expires=(\d+)&refreshToken=([^&=#]+)&token=Bearer%20([^&=#]+)&userId=([0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12})$/;
const UNAUTHENTICATED = { errors: [{ message: 'unauthenticated' }] };

describe('sign-in, tokens and refresh', { timeout: 60000 }, () => {
  let emu, data, secret;
  before(async () => {
    emu = await startEmulator([], { verbose: true });
    data = await emu.data();
    secret = Buffer.from(fs.readFileSync(path.join(emu.stateDir, 'jwt-secret'), 'utf8').trim(), 'hex');
  });
  after(() => emu && emu.stop());

  // Checks a redirect's credential record the way the library reads it, and the JWT inside it
  // the way a verifier would; returns its parts.
  function checkRedirect(res, callback) {
    assert.equal(res.status, 302);
    const location = res.headers.location;
    assert.ok(location.startsWith(`${callback}#`), location);
    const m = RECORD.exec(location.slice(callback.length + 1));
    assert.ok(m, location);
    const [, expires, refreshToken, token, userId] = m;
    const claims = verifyJwt(token);
    assert.equal(claims.sub, userId);
    assert.equal(String(claims.exp), expires);
    return { expires: Number(expires), refreshToken, token, userId, claims };
  }

  function verifyJwt(token) {
    const [h, p, s] = token.split('.');
    assert.equal(crypto.createHmac('sha256', secret).update(`${h}.${p}`).digest('base64url'), s);
    assert.deepEqual(JSON.parse(Buffer.from(h, 'base64url')), { alg: 'HS256', typ: 'JWT' });
    const claims = JSON.parse(Buffer.from(p, 'base64url'));
    assert.deepEqual(Object.keys(claims).sort(), ['_correlation_id', '_version', 'aud', 'exp', 'iat', 'iss', 'jti', 'nbf', 'sub', 'typ']);
    for (const k of ['_version', 'exp', 'iat', 'nbf']) assert.ok(Number.isInteger(claims[k]), k);
    for (const k of ['_correlation_id', 'aud', 'iss', 'jti']) assert.equal(typeof claims[k], 'string', k);
    assert.equal(claims.typ, 'access');
    return claims;
  }

  const welcome = (query) => emu.request('accounts', 'GET', `/welcome?${query}`);

  it('renders a form that signs the pre-filled demo user in without JavaScript', async () => {
    const callback = 'ostrio-cli://ostrio';
    const page = await welcome(`legacy_auth=false&auth_callback=${callback}`);
    assert.equal(page.status, 200);
    assert.match(page.headers['content-type'], /^text\/html/);
    const html = page.body.toString();
    assert.match(html, /<title>[^<]+<\/title>/);
    assert.match(html, /<form method="post" action="\/welcome">/);
    assert.match(html, /<button type="submit"[^>]*>Sign in<\/button>/);
    // Submit exactly what a browser would: every named input with its value.
    const fields = [...html.matchAll(/<input [^>]*name="([^"]+)"[^>]*value="([^"]*)"/g)].map(([, n, v]) => [n, v.replace(/&amp;/g, '&')]);
    assert.deepEqual(Object.fromEntries(fields), { auth_callback: callback, legacy_auth: 'false', email: data.user.email });
    const res = await emu.request('accounts', 'POST', '/welcome', {
      headers: { 'content-type': 'application/x-www-form-urlencoded' }, body: new URLSearchParams(fields).toString(),
    });
    const record = checkRedirect(res, callback);
    assert.equal(record.userId, data.user.id);
    const me = await emu.graphql(Q.CurrentUser, undefined, record.token);
    assert.equal(me.json.data.me.id, data.user.id);

    const stranger = await emu.request('accounts', 'POST', '/welcome', {
      headers: { 'content-type': 'application/x-www-form-urlencoded' }, body: `auth_callback=${encodeURIComponent(callback)}&email=nobody%40example.com`,
    });
    assert.equal(stranger.status, 401);
    assert.match(stranger.body.toString(), /<form method="post"/);
  });

  it('auto-approves and decodes the callback leniently', async () => {
    const sam = data.users.find((u) => u.email === 'sam@example.com');
    assert.equal(checkRedirect(await welcome('legacy_auth=false&auth_callback=ostrio-cli://ostrio&approve=1'), 'ostrio-cli://ostrio').userId, data.user.id);
    assert.equal(checkRedirect(await welcome('auth_callback=my%2Bapp://ostrio&approve=1&email=sam@example.com'), 'my+app://ostrio').userId, sam.id);
    for (const bad of ['legacy_auth=false', 'auth_callback=', 'auth_callback=no-scheme-here', 'auth_callback=%9://ostrio', 'auth_callback=a%9b://x&approve=1',
      'auth_callback=app://x%23frag&approve=1', 'auth_callback=%E9t%C3://x']) {
      const res = await welcome(bad);
      assert.equal(res.status, 400, bad);
      assert.match(res.headers['content-type'], /^text\/html/);
    }
  });

  it('rotates refresh tokens and keeps the old access token valid', async () => {
    const first = await emu.session();
    const refresh = (rt, headers = { 'x-ostrio-client': 'ostrio-cli/test/1.0', 'content-type': 'application/x-www-form-urlencoded' }) =>
      emu.request('api', 'POST', `/v2/auth/refresh_tokens/${rt}/apply`, { headers });

    assert.equal((await refresh(first.refreshToken, {})).status, 400);
    const r1 = await refresh(first.refreshToken);
    assert.equal(r1.status, 200);
    assert.deepEqual(JSON.parse(r1.body), {});
    const [, newToken] = /^Bearer (\S+)$/.exec(r1.headers.authorization);
    const newRefresh = r1.headers['x-refresh-token'];
    assert.ok(newRefresh && newRefresh !== first.refreshToken);
    assert.equal(verifyJwt(newToken).sub, first.userId);

    assert.equal((await refresh(first.refreshToken)).status, 401, 'a used refresh token is refused');
    assert.equal((await refresh('garbage')).status, 401);
    assert.equal((await refresh(`${newRefresh[0] === 'A' ? 'B' : 'A'}${newRefresh.slice(1)}`)).status, 401);
    assert.equal((await refresh(newRefresh)).status, 200);
    for (const t of [first.accessToken, newToken]) assert.equal((await emu.graphql(Q.CurrentUser, undefined, t)).json.data.me.id, first.userId);

    // Each refresh is reported on stderr, none with its token (the token is in the path).
    const lines = await emu.stderrLines(/POST \S+\/v2\/auth\/refresh_tokens\/\S+\/apply → \d{3}/, 6);
    assert.equal(lines.length, 6, lines.join('\n'));
    for (const t of [first.refreshToken, newRefresh, first.accessToken, newToken]) assert.ok(!emu.stderr.includes(t), 'a token reached stderr');
  });

  it('answers "unauthenticated" for missing, malformed, forged, expired and revoked tokens', async () => {
    const good = await emu.session();
    const expired = await emu.session({ lifetime: 0 });
    const revoked = await emu.session();
    assert.deepEqual((await emu.control('POST', '/revoke', { accessToken: revoked.accessToken })).json, { revoked: true });
    const [h, p] = good.accessToken.split('.');
    const forgedPayload = Buffer.from(JSON.stringify({ ...JSON.parse(Buffer.from(p, 'base64url')), sub: data.users[1].id })).toString('base64url');
    const cases = {
      missing: {},
      basic: { authorization: 'Basic ZGFuYTpwdw==' },
      malformed: { authorization: 'Bearer not.a.jwt' },
      'bad signature': { authorization: `Bearer ${h}.${p}.${'A'.repeat(43)}` },
      'changed payload': { authorization: `Bearer ${h}.${forgedPayload}.${good.accessToken.split('.')[2]}` },
      expired: { authorization: `Bearer ${expired.accessToken}` },
      revoked: { authorization: `Bearer ${revoked.accessToken}` },
    };
    for (const [name, headers] of Object.entries(cases)) {
      const res = await emu.graphql(Q.CurrentUser, undefined, null, headers);
      assert.equal(res.status, 200, name);
      assert.deepEqual(res.json, UNAUTHENTICATED, name);
    }
    assert.equal((await emu.graphql(Q.CurrentUser, undefined, good.accessToken)).json.data.me.id, data.user.id);

    const used = await emu.session();
    assert.deepEqual((await emu.control('POST', '/revoke', { refreshToken: used.refreshToken })).json, { revoked: true });
    const res = await emu.request('api', 'POST', `/v2/auth/refresh_tokens/${used.refreshToken}/apply`, { headers: { 'x-ostrio-client': 'c' } });
    assert.equal(res.status, 401);
  });

  it('issues tokens with the configured lifetime', async () => {
    assert.equal((await emu.control('POST', '/config', { tokenLifetime: 3601 })).json.tokenLifetime, 3601);
    const s = await emu.session();
    const left = s.expires - Math.floor(Date.now() / 1000);
    assert.ok(left === 3601 || left === 3600, String(left));
    assert.equal(s.record, `expires=${s.expires}&refreshToken=${s.refreshToken}&token=Bearer%20${s.accessToken}&userId=${s.userId}`);
    assert.equal((await emu.control('POST', '/config', { tokenLifetime: '1h' })).status, 400);
  });
});
