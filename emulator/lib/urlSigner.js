'use strict';

const crypto = require('node:crypto');
const fs = require('node:fs');
const path = require('node:path');

// Media links the API hands out work the way an object store's pre-signed URLs do: the link
// itself is the credential, `?expires=<unix seconds>&signature=<hex>`, where the signature is
// HMAC-SHA256 over "<path>\n<expires>" with a secret kept in the state folder. The host is not
// signed, so one link works on the media and the api host alike; the path is signed as it
// appears on the wire, so a client that re-encodes or rebuilds the link is refused, as it would
// be by a real store. No other query parameter is accepted: the signature would not cover it.

const EXPIRES_RE = /^\d{1,12}$/;
const SIGNATURE_RE = /^[0-9a-f]{64}$/;

class UrlSigner {
  constructor({ stateDir, lifetime }) {
    this.lifetime = lifetime;
    this.secret = Buffer.from(fs.readFileSync(path.join(stateDir, 'url-secret'), 'utf8').trim(), 'hex');
  }

  now() {
    return Math.floor(Date.now() / 1000);
  }

  mac(target, expires) {
    return crypto.createHmac('sha256', this.secret).update(`${target}\n${expires}`).digest();
  }

  // The query string (without "?") that makes `target` fetchable until now + lifetime.
  sign(target, lifetime = this.lifetime) {
    const expires = Math.max(0, this.now() + lifetime);
    return { expires, query: `expires=${expires}&signature=${this.mac(target, expires).toString('hex')}` };
  }

  // Checks the query string of a request for `target`. Returns null when the link is good,
  // else the reason it is refused.
  verify(target, search) {
    const params = new Map();
    for (const part of (search.startsWith('?') ? search.slice(1) : search).split('&')) {
      if (!part) continue;
      const eq = part.indexOf('=');
      const name = eq < 0 ? part : part.slice(0, eq);
      if (name !== 'expires' && name !== 'signature') return `query parameter ${JSON.stringify(name)} is not covered by the signature`;
      if (params.has(name)) return `query parameter "${name}" given twice`;
      params.set(name, eq < 0 ? '' : part.slice(eq + 1));
    }
    const expires = params.get('expires');
    const signature = params.get('signature');
    if (expires === undefined || signature === undefined) return 'missing signature: the link needs "expires" and "signature"';
    if (!EXPIRES_RE.test(expires) || !SIGNATURE_RE.test(signature)) return 'malformed signature';
    if (!crypto.timingSafeEqual(Buffer.from(signature, 'hex'), this.mac(target, expires))) return 'signature does not match';
    if (Number(expires) <= this.now()) return 'link expired';
    return null;
  }
}

module.exports = { UrlSigner };
