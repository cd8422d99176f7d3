'use strict';

const crypto = require('node:crypto');
const fs = require('node:fs');
const path = require('node:path');
const { guidToBytes, bytesToGuid, randomGuid } = require('./ids');

// Access tokens are HS256 JWTs signed with a secret kept in the state folder, so a token issued
// before a restart still verifies after it (the CLI keeps its record across runs). Refresh
// tokens are opaque to clients but self-contained for us: user id and nonce plus a MAC, so no
// table of issued tokens is needed; only the used (rotated or revoked) ones are remembered,
// in an append-only file next to the secret.

const b64url = (buf) => Buffer.from(buf).toString('base64url');

function fromB64url(text) {
  if (typeof text !== 'string' || !/^[A-Za-z0-9_-]*$/.test(text)) return null;
  return Buffer.from(text, 'base64url');
}

const JWT_HEADER = b64url(JSON.stringify({ alg: 'HS256', typ: 'JWT' }));
const AUDIENCE = 'ostrio-api';
const ISSUER = 'https://accounts.ostrio.localhost';

class TokenAuthority {
  constructor({ stateDir, lifetime, userExists }) {
    this.lifetime = lifetime;
    this.userExists = userExists;
    this.secret = Buffer.from(fs.readFileSync(path.join(stateDir, 'jwt-secret'), 'utf8').trim(), 'hex');
    this.ledgerPath = path.join(stateDir, 'token-ledger');
    this.usedRefresh = new Set();
    this.revokedAccess = new Set();
    let ledger = '';
    try { ledger = fs.readFileSync(this.ledgerPath, 'utf8'); } catch { /* first run */ }
    for (const line of ledger.split('\n')) {
      const [kind, value] = line.split(' ');
      if (kind === 'refresh') this.usedRefresh.add(value);
      else if (kind === 'access') this.revokedAccess.add(value);
    }
  }

  record(kind, value) {
    (kind === 'refresh' ? this.usedRefresh : this.revokedAccess).add(value);
    fs.appendFileSync(this.ledgerPath, `${kind} ${value}\n`, { mode: 0o600 });
  }

  mac(data) {
    return crypto.createHmac('sha256', this.secret).update(data).digest();
  }

  now() {
    return Math.floor(Date.now() / 1000);
  }

  mintAccess(userId, lifetime = this.lifetime) {
    const iat = this.now();
    const claims = {
      _correlation_id: randomGuid(),
      _version: 1,
      aud: AUDIENCE,
      exp: iat + lifetime,
      iat,
      iss: ISSUER,
      jti: randomGuid(),
      nbf: iat,
      sub: userId,
      typ: 'access',
    };
    const unsigned = `${JWT_HEADER}.${b64url(JSON.stringify(claims))}`;
    return { token: `${unsigned}.${b64url(this.mac(unsigned))}`, claims };
  }

  // Returns {claims} for a usable access token, or {reason} saying why not (for the log and
  // stderr only: clients always just get "unauthenticated").
  verifyAccess(token) {
    if (typeof token !== 'string') return { reason: 'missing' };
    const parts = token.split('.');
    if (parts.length !== 3) return { reason: 'malformed' };
    const header = fromB64url(parts[0]);
    const payload = fromB64url(parts[1]);
    const signature = fromB64url(parts[2]);
    if (!header || !payload || !signature) return { reason: 'malformed' };
    let head, claims;
    try {
      head = JSON.parse(header.toString('utf8'));
      claims = JSON.parse(payload.toString('utf8'));
    } catch {
      return { reason: 'malformed' };
    }
    if (!head || head.alg !== 'HS256') return { reason: 'wrong algorithm' };
    const expected = this.mac(`${parts[0]}.${parts[1]}`);
    if (signature.length !== expected.length || !crypto.timingSafeEqual(signature, expected)) return { reason: 'bad signature' };
    if (!claims || claims.typ !== 'access') return { reason: 'not an access token' };
    const now = this.now();
    if (!Number.isInteger(claims.exp) || claims.exp <= now) return { reason: 'expired' };
    if (!Number.isInteger(claims.nbf) || claims.nbf > now) return { reason: 'not yet valid' };
    if (this.revokedAccess.has(claims.jti)) return { reason: 'revoked' };
    if (!this.userExists(claims.sub)) return { reason: 'unknown user' };
    return { claims };
  }

  mintRefresh(userId) {
    const body = Buffer.concat([guidToBytes(userId), crypto.randomBytes(16)]);
    return `${b64url(body)}.${b64url(this.mac(body).subarray(0, 16))}`;
  }

  // Checks a refresh token without using it up: {userId, nonce} or {reason}.
  inspectRefresh(token) {
    if (typeof token !== 'string') return { reason: 'missing' };
    const parts = token.split('.');
    if (parts.length !== 2) return { reason: 'unknown' };
    const body = fromB64url(parts[0]);
    const tag = fromB64url(parts[1]);
    if (!body || !tag || body.length !== 32 || tag.length !== 16) return { reason: 'unknown' };
    if (!crypto.timingSafeEqual(tag, this.mac(body).subarray(0, 16))) return { reason: 'unknown' };
    const nonce = body.subarray(16).toString('hex');
    if (this.usedRefresh.has(nonce)) return { reason: 'used' };
    const userId = bytesToGuid(body.subarray(0, 16));
    if (!this.userExists(userId)) return { reason: 'unknown user' };
    return { userId, nonce };
  }

  // Rotation: the presented refresh token is spent whatever happens next, and a new pair is
  // issued. The old access token stays valid until it expires, as on the real service.
  rotate(refreshToken) {
    const info = this.inspectRefresh(refreshToken);
    if (info.reason) return info;
    this.record('refresh', info.nonce);
    return this.session(info.userId);
  }

  session(userId, lifetime = this.lifetime) {
    const { token, claims } = this.mintAccess(userId, lifetime);
    const refreshToken = this.mintRefresh(userId);
    return {
      accessToken: token,
      refreshToken,
      expires: claims.exp,
      userId,
      record: `expires=${claims.exp}&refreshToken=${refreshToken}&token=Bearer%20${token}&userId=${userId}`,
    };
  }

  revokeAccess(token) {
    const bare = String(token).replace(/^Bearer\s+/i, '');
    const parts = bare.split('.');
    const payload = parts.length === 3 ? fromB64url(parts[1]) : null;
    const signature = parts.length === 3 ? fromB64url(parts[2]) : null;
    if (!payload || !signature) return false;
    const expected = this.mac(`${parts[0]}.${parts[1]}`);
    if (signature.length !== expected.length || !crypto.timingSafeEqual(signature, expected)) return false;
    let claims;
    try { claims = JSON.parse(payload.toString('utf8')); } catch { return false; }
    if (typeof claims.jti !== 'string') return false;
    this.record('access', claims.jti);
    return true;
  }

  revokeRefresh(token) {
    const info = this.inspectRefresh(token);
    if (info.reason === 'used') return true;
    if (info.reason) return false;
    this.record('refresh', info.nonce);
    return true;
  }
}

module.exports = { TokenAuthority, AUDIENCE, ISSUER };
