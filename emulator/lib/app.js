'use strict';

const http2 = require('node:http2');
const { Dataset } = require('./dataset');
const { TokenAuthority } = require('./tokens');
const { GraphqlEndpoint, identifyQuery, json } = require('./graphql');
const { SignIn } = require('./signin');
const { FaultBoard, MALFORMED_BODY } = require('./faults');
const { RequestLog } = require('./requestLog');
const { resolveMedia, mediaPlan } = require('./media');
const { UrlSigner } = require('./urlSigner');

const MAX_BODY = 16 * 1024 * 1024;
const REFRESH_RE = /^\/v2\/auth\/refresh_tokens\/([^/]+)\/apply$/;
const THROTTLE_TICK_MS = 50;
// Lifetimes stay within what the --*-lifetime flags accept, so an expiry is always a plain
// integer number of seconds (never 1e+300).
const isLifetime = (v) => Number.isInteger(v) && Math.abs(v) <= 999999999;

function notFound(what) {
  return json(404, { error: 'not found', path: what });
}

function bufferSource(buf) {
  return { length: buf.length, chunkAt: (pos, max) => buf.subarray(pos, pos + max) };
}

// Refresh tokens travel in the request path. The request log keeps them (tests read it), but
// what goes to stderr ends up in terminals and CI logs, so there the token is blanked.
function printableTarget(target) {
  return target.replace(/^(\/v2\/auth\/refresh_tokens\/)[^/?]*/, '$1…');
}

// Answers that carry no body by definition: writing one (or a Content-Length for one) breaks
// the HTTP/2 stream.
const BODILESS = new Set([204, 205, 304]);

function safeDecode(segment) {
  try { return decodeURIComponent(segment); } catch { return segment; }
}

function waitFor(ctx, ms) {
  return new Promise((resolve) => {
    if (ctx.closed) return resolve();
    const timer = setTimeout(done, ms);
    function done() {
      clearTimeout(timer);
      ctx.res.off('close', done);
      resolve();
    }
    ctx.res.once('close', done);
  });
}

function drained(ctx) {
  return new Promise((resolve) => {
    const { res } = ctx;
    function done() {
      res.off('drain', done);
      res.off('close', done);
      resolve();
    }
    res.once('drain', done);
    res.once('close', done);
  });
}

// Host label → role. The *.ostrio.localhost names select by their first label; bare loopback
// names (and extra --name names that are not api./accounts./media.) act as the api host, so
// tools that cannot resolve *.localhost (h2load, aria2c) can still reach the API and media.
function roleOf(authority, extraNames) {
  if (!authority) return null;
  let host = authority.toLowerCase();
  host = host.startsWith('[') ? host.slice(0, host.indexOf(']') + 1) : host.replace(/:\d*$/, '');
  const label = host.split('.')[0];
  if (host.includes('.') && !/^[\d.]+$/.test(host) && (label === 'api' || label === 'accounts' || label === 'media')) return label;
  if (host === 'localhost' || host === '127.0.0.1' || host === '[::1]' || extraNames.includes(host)) return 'api';
  return null;
}

class Emulator {
  constructor({ state, scheme, datasetKind, tokenLifetime, urlLifetime = 3600, keepLog, quiet, faults = [], names = [] }) {
    this.scheme = scheme;
    this.state = state;
    this.quiet = quiet;
    this.extraNames = names.map((n) => n.toLowerCase());
    this.dataset = new Dataset(datasetKind);
    this.tokens = new TokenAuthority({ stateDir: state.dir, lifetime: tokenLifetime, userExists: (id) => this.dataset.users.has(id) });
    this.urls = new UrlSigner({ stateDir: state.dir, lifetime: urlLifetime });
    this.graphql = new GraphqlEndpoint({ dataset: this.dataset, tokens: this.tokens, mediaUrl: (p) => this.mediaUrl(p), log: (m) => this.note(m) });
    this.signIn = new SignIn({ dataset: this.dataset, tokens: this.tokens });
    this.faults = new FaultBoard();
    this.requests = new RequestLog({ enabled: keepLog });
    for (const f of faults) this.faults.add(f);
    this.handler = (req, res) => {
      // handle() answers its own failures; this only keeps a failure while answering a failure
      // from ending the process.
      this.handle(req, res).catch((err) => {
        this.note(`unanswered error: ${err.stack || err}`);
        this.reset({ req, res, h2: req.httpVersionMajor === 2 });
      });
    };
    this.bind(0);
  }

  // URLs in answers (media links) name the port, which is known only once listening.
  bind(port) {
    this.port = port;
    this.suffix = `.ostrio.localhost:${port}`;
    this.mediaBase = `${this.scheme}://media${this.suffix}`;
  }

  // A signed link to a media path on the media host, valid for the configured lifetime.
  mediaUrl(target, lifetime) {
    return `${this.mediaBase}${target}?${this.urls.sign(target, lifetime).query}`;
  }

  note(message) {
    if (!this.quiet) process.stderr.write(`ostrio-emulator: ${message}\n`);
  }

  info() {
    return {
      port: this.port,
      suffix: this.suffix,
      ca: this.state.caPath,
      control: `${this.scheme}://api${this.suffix}/_emulator`,
      http: this.scheme === 'http',
      dataset: this.dataset.kind,
      stateDir: this.state.dir,
      tokenLifetime: this.tokens.lifetime,
      urlLifetime: this.urls.lifetime,
      refreshTokenHeader: 'x-refresh-token',
      certificateNames: this.state.names,
    };
  }

  async handle(req, res) {
    const startedAt = Date.now();
    const h2 = req.httpVersionMajor === 2;
    const authority = (h2 ? req.headers[':authority'] || req.headers.host : req.headers.host) || '';
    const scheme = h2 ? req.headers[':scheme'] || this.scheme : this.scheme;
    const target = req.url || '/';
    const q = target.indexOf('?');
    const path = q < 0 ? target : target.slice(0, q);
    const search = q < 0 ? '' : target.slice(q);
    const role = roleOf(authority, this.extraNames);
    const ctx = { req, res, h2, closed: false, entry: null };
    res.on('close', () => {
      ctx.closed = true;
      if (ctx.entry) ctx.entry.durationMs = Date.now() - startedAt;
    });
    res.on('error', () => {});
    req.on('error', () => {});

    const control = role === 'api' && (path === '/_emulator' || path.startsWith('/_emulator/'));
    if (!control) {
      const headers = [];
      const raw = req.rawHeaders;
      for (let i = 0; i < raw.length; i += 2) {
        const name = raw[i].toLowerCase();
        if (name[0] !== ':') headers.push([name, raw[i + 1]]);
      }
      ctx.entry = this.requests.begin({
        method: req.method, url: `${scheme}://${authority}${target}`, host: authority || null, path,
        httpVersion: h2 ? '2.0' : '1.1', headers, startedAt,
      });
    }

    try {
      const body = await this.readBody(ctx);
      if (body === null) return;
      if (ctx.entry) this.requests.setBody(ctx.entry, body);
      if (control) return await this.send(ctx, this.control(req, path.slice('/_emulator'.length).replace(/\/$/, ''), body), null);

      const route = this.routeOf(role, req.method, path);
      const parsed = route === 'graphql' ? GraphqlEndpoint.parseBody(body) : undefined;
      if (route === 'graphql' && ctx.entry) this.describeGraphql(ctx.entry, parsed);
      const fault = route ? this.faults.take(route) : null;
      if (fault && fault.delayMs) await waitFor(ctx, fault.delayMs);
      if (ctx.closed) return;

      let plan;
      if (fault && fault.status !== undefined) {
        plan = json(fault.status, route === 'graphql'
          ? { errors: [{ message: `injected fault: status ${fault.status}` }] }
          : { error: 'injected fault', status: fault.status });
      } else if (fault && fault.graphqlError !== undefined) {
        plan = json(200, { errors: [{ message: fault.graphqlError }], data: null });
      } else {
        plan = this.answer(ctx, role, route, path, search, body, parsed);
      }
      await this.send(ctx, plan, fault);
    } catch (err) {
      this.note(`internal error on ${req.method} ${printableTarget(target)}: ${err.stack || err}`);
      if (!res.headersSent && !ctx.closed) {
        await this.send(ctx, json(500, { error: 'internal emulator error', message: String(err.message) }), null);
      } else {
        this.reset(ctx);
      }
    } finally {
      if (ctx.entry && !this.quiet) this.note(`${req.method} ${scheme}://${authority}${printableTarget(target)} → ${ctx.entry.status}`);
    }
  }

  readBody(ctx) {
    return new Promise((resolve) => {
      const chunks = [];
      let size = 0;
      ctx.req.on('data', (chunk) => {
        size += chunk.length;
        if (size > MAX_BODY) {
          ctx.req.removeAllListeners('data');
          this.send(ctx, json(413, { error: `request body larger than ${MAX_BODY} bytes` }), null)
            .catch(() => this.reset(ctx))
            .then(() => resolve(null));
          return;
        }
        chunks.push(chunk);
      });
      ctx.req.on('end', () => { if (size <= MAX_BODY) resolve(Buffer.concat(chunks)); });
      ctx.res.on('close', () => resolve(null));
    });
  }

  routeOf(role, method, path) {
    if (role === 'api') {
      if (path === '/graphql') return 'graphql';
      if (REFRESH_RE.test(path)) return 'refresh';
    }
    if ((role === 'api' || role === 'media') && path.startsWith('/media/')) return 'media';
    if (role === 'accounts' && path === '/welcome') return 'welcome';
    return null;
  }

  describeGraphql(entry, parsed) {
    if (!parsed || typeof parsed !== 'object' || typeof parsed.query !== 'string') return;
    entry.graphql = { operationName: this.graphql.operationName(parsed), ...identifyQuery(parsed.query) };
  }

  answer(ctx, role, route, path, search, body, parsed) {
    const { req } = ctx;
    if (!role) return json(404, { error: 'unknown host', host: ctx.entry && ctx.entry.host });
    switch (route) {
      case 'graphql':
        return this.graphql.handle(req, parsed);
      case 'refresh':
        return this.refresh(req, safeDecode(REFRESH_RE.exec(path)[1]));
      case 'media': {
        if (req.method !== 'GET' && req.method !== 'HEAD') return { ...json(405, { error: 'use GET or HEAD' }), headers: { 'content-type': 'application/json; charset=utf-8', allow: 'GET, HEAD' } };
        const segments = path.slice('/media/'.length).split('/').map(safeDecode);
        // Synthetic resources are the benchmarks' and transport tests' raw bytes, fetched by
        // reference tools that know nothing of signatures; everything the API links to is signed.
        if (segments[0] !== 'synthetic') {
          const refusal = this.mediaAccess(req, path, search);
          if (refusal) return refusal;
        }
        const resource = resolveMedia(this.dataset, segments);
        return resource ? mediaPlan(resource, req) : notFound(path);
      }
      case 'welcome':
        return this.signIn.handle(req, { pathname: path, search }, body);
      default:
        return notFound(path);
    }
  }

  // Like an object store, checked before the resource is looked up: an unsigned request learns
  // nothing about what exists. A bearer token next to the signature is two authentication
  // mechanisms at once, which stores refuse as a bad request (and it means the client leaked
  // its API token to the media host).
  mediaAccess(req, path, search) {
    const raw = req.rawHeaders;
    for (let i = 0; i < raw.length; i += 2) {
      if (raw[i].toLowerCase() === 'authorization') {
        return json(400, { error: 'only one authentication mechanism allowed: a signed media link takes no Authorization header' });
      }
    }
    const reason = this.urls.verify(path, search);
    return reason ? json(403, { error: 'forbidden', reason }) : null;
  }

  refresh(req, refreshToken) {
    if (req.method !== 'POST') return { ...json(405, { error: 'use POST' }), headers: { 'content-type': 'application/json; charset=utf-8', allow: 'POST' } };
    if (!req.headers['x-ostrio-client']) return json(400, { error: 'missing x-ostrio-client header' });
    const session = this.tokens.rotate(refreshToken);
    if (session.reason) {
      this.note(`refresh refused (${session.reason})`);
      return json(401, { error: 'invalid refresh token' });
    }
    return json(200, {}, { authorization: `Bearer ${session.accessToken}`, 'x-refresh-token': session.refreshToken });
  }

  // ---- control endpoint -------------------------------------------------------------------

  control(req, sub, body) {
    const m = req.method;
    let input = {};
    if (m === 'POST' || m === 'PUT') {
      if (body.length) {
        try { input = JSON.parse(body.toString('utf8')); } catch { return json(400, { error: 'body is not valid JSON' }); }
      }
      if (!input || typeof input !== 'object') return json(400, { error: 'body must be a JSON object' });
    }
    try {
      if (sub === '' && m === 'GET') return json(200, this.info());
      if (sub === '/requests' && m === 'GET') return json(200, { requests: this.requests.list() });
      if (sub === '/requests' && m === 'DELETE') {
        const cleared = this.requests.list().length;
        this.requests.clear();
        return json(200, { cleared });
      }
      if (sub === '/faults' && m === 'GET') return json(200, { faults: this.faults.list() });
      if (sub === '/faults' && m === 'POST') return json(200, { id: this.faults.add(input).id });
      if (sub === '/faults' && m === 'DELETE') return json(200, { cleared: this.faults.clear() });
      const fm = /^\/faults\/(\d+)$/.exec(sub);
      if (fm && m === 'DELETE') return this.faults.remove(Number(fm[1])) ? json(200, { removed: true }) : json(404, { error: 'no such fault' });
      if (sub === '/session' && m === 'POST') return this.mintSession(input);
      if (sub === '/revoke' && m === 'POST') return this.revoke(input);
      if (sub === '/config' && m === 'GET') return json(200, this.config());
      if (sub === '/config' && m === 'POST') {
        for (const key of ['tokenLifetime', 'urlLifetime']) {
          if (input[key] !== undefined && !isLifetime(input[key])) return json(400, { error: `${key} must be an integer number of seconds` });
        }
        if (input.tokenLifetime !== undefined) this.tokens.lifetime = input.tokenLifetime;
        if (input.urlLifetime !== undefined) this.urls.lifetime = input.urlLifetime;
        return json(200, this.config());
      }
      if (sub === '/sign' && m === 'POST') return this.sign(input);
      if (sub === '/data' && m === 'GET') return json(200, this.seedSummary());
    } catch (err) {
      return json(400, { error: err.message });
    }
    return json(404, { error: 'no such control endpoint', method: m, path: `/_emulator${sub}` });
  }

  config() {
    return { tokenLifetime: this.tokens.lifetime, urlLifetime: this.urls.lifetime };
  }

  // Signs any media path, existing or not, so tests can fetch what the API would link to, ask
  // for a missing resource with a valid link (404), or make a stale link with a negative lifetime.
  sign(input) {
    if (typeof input.path !== 'string' || !/^\/media\/[\x21-\x7e]+$/.test(input.path) || /[?#]/.test(input.path)) {
      return json(400, { error: '"path" must be a media path such as /media/<assetId>/original.mp4, without query' });
    }
    if (input.lifetime !== undefined && !isLifetime(input.lifetime)) return json(400, { error: 'lifetime must be an integer number of seconds' });
    const { expires, query } = this.urls.sign(input.path, input.lifetime ?? this.urls.lifetime);
    return json(200, { url: `${this.mediaBase}${input.path}?${query}`, query, expires });
  }

  mintSession(input) {
    const userId = input.userId ?? this.dataset.demoUser.id;
    if (!this.dataset.users.has(userId)) return json(400, { error: `unknown userId ${JSON.stringify(userId)}` });
    if (input.lifetime !== undefined && !isLifetime(input.lifetime)) return json(400, { error: 'lifetime must be an integer number of seconds' });
    return json(200, this.tokens.session(userId, input.lifetime ?? this.tokens.lifetime));
  }

  revoke(input) {
    if (typeof input.accessToken === 'string') {
      return this.tokens.revokeAccess(input.accessToken) ? json(200, { revoked: true }) : json(400, { error: 'not an access token issued here' });
    }
    if (typeof input.refreshToken === 'string') {
      return this.tokens.revokeRefresh(input.refreshToken) ? json(200, { revoked: true }) : json(400, { error: 'not a refresh token issued here' });
    }
    return json(400, { error: 'give "accessToken" or "refreshToken"' });
  }

  seedSummary() {
    const d = this.dataset;
    const user = d.demoUser;
    const accounts = user.accountIds.map((id) => d.accounts.get(id));
    const workspaces = accounts.flatMap((a) => a.workspaceIds.map((id) => d.workspaces.get(id)));
    const projects = workspaces.flatMap((w) => w.projectIds.map((id) => d.projects.get(id)));
    const largeProject = d.large ? d.large.projectId : null;
    const video = (v) => v && {
      id: v.id, name: v.name, folderId: v.parentId, size: v.size, seed: v.seed,
      thumbnailSize: v.thumbnailSize, thumbnailSeed: v.thumbnailSeed,
      downloadUrl: this.mediaUrl(`/media/${v.id}/original.mp4`), thumbnailUrl: this.mediaUrl(`/media/${v.id}/thumbnail.jpg`),
    };
    const folders = [];
    for (const a of d.assets.values()) {
      if (a.__typename !== 'FolderAsset') continue;
      if (a.projectId === largeProject && a.parentId) continue;
      folders.push({ id: a.id, name: a.name, parentId: a.parentId, projectId: a.projectId, folderCount: a.folderIds.length, fileCount: a.fileIds.length });
    }
    const firstRoot = d.assets.get(projects[0].rootAssetId);
    const large = d.large && d.assets.get(d.large.folderId);
    return {
      dataset: d.kind,
      user: { id: user.id, name: user.name, email: user.email },
      users: [...d.users.values()].map((u) => ({ id: u.id, name: u.name, email: u.email, accountIds: u.accountIds })),
      accounts: accounts.map((a) => ({
        id: a.id, displayName: a.displayName, version: a.version,
        workspaces: a.workspaceIds.map((wid) => {
          const w = d.workspaces.get(wid);
          return { id: w.id, name: w.name, projects: w.projectIds.map((pid) => { const p = d.projects.get(pid); return { id: p.id, name: p.name, rootAssetId: p.rootAssetId }; }) };
        }),
      })),
      accountIds: accounts.map((a) => a.id),
      workspaceIds: workspaces.map((w) => w.id),
      projectIds: projects.map((p) => p.id),
      rootFolderIds: projects.map((p) => p.rootAssetId),
      folders,
      videoAsset: video(d.assets.get(firstRoot.fileIds[0])),
      largeFolderId: large ? large.id : null,
      largeFolder: large ? { id: large.id, fileCount: large.fileIds.length, folderCount: large.folderIds.length } : null,
      largeVideo: d.large ? video(d.assets.get(d.large.videoId)) : null,
    };
  }

  // ---- sending ----------------------------------------------------------------------------

  reset(ctx) {
    if (ctx.h2) {
      if (!ctx.res.stream.destroyed) ctx.res.stream.close(http2.constants.NGHTTP2_INTERNAL_ERROR);
    } else {
      if (ctx.req.socket) ctx.req.socket.destroy();
    }
  }

  // Writes a plan {status, headers, body: Buffer|source, head} with the fault's effects on the
  // wire: changed headers, replaced or shortened body, a reset after some bytes, a slow body.
  async send(ctx, plan, fault) {
    const { res } = ctx;
    if (ctx.closed) return;
    if (fault && fault.refuseStream) {
      // Not taken up at all: HTTP/2 says so (the client may send it again), HTTP/1.1 can only hang up.
      if (ctx.h2 && !res.stream.destroyed) res.stream.close(http2.constants.NGHTTP2_REFUSED_STREAM);
      else this.reset(ctx);
      return;
    }
    const headers = { ...plan.headers };
    let source = plan.body == null ? bufferSource(Buffer.alloc(0)) : Buffer.isBuffer(plan.body) ? bufferSource(plan.body) : plan.body;
    let end = source.length;
    let resetAt = null;
    let bytesPerSecond = 0;
    if (fault) {
      if (fault.retryAfter !== undefined) headers['retry-after'] = fault.retryAfter;
      if (fault.contentType !== undefined) headers['content-type'] = fault.contentType;
      if (fault.malformedBody) {
        source = bufferSource(MALFORMED_BODY);
        end = source.length;
      }
      if (fault.bytesPerSecond) bytesPerSecond = fault.bytesPerSecond;
    }
    // A truncated body ends cleanly but early and announces no length: the client gets a
    // well-framed short answer it must judge by content (half a JSON document, a short file).
    if (BODILESS.has(plan.status)) end = 0;
    else if (fault && fault.truncateBody !== undefined) end = Math.min(end, fault.truncateBody);
    else headers['content-length'] = String(end);
    if (fault && fault.resetAfterBytes !== undefined) resetAt = Math.min(fault.resetAfterBytes, end);
    if (ctx.req.method === 'HEAD') end = 0;
    if (ctx.entry) {
      ctx.entry.status = plan.status;
      headers['x-emulator-seq'] = String(ctx.entry.seq);
    }
    res.writeHead(plan.status, headers);
    const stop = resetAt === null ? end : Math.min(resetAt, end);
    await this.pump(ctx, source, stop, bytesPerSecond, resetAt !== null);
    if (ctx.closed) return;
    if (resetAt !== null) {
      // HTTP/1.1 sends the status line with the first body byte; with nothing written yet,
      // push the headers out before dropping the connection.
      if (!ctx.h2 && stop === 0) {
        res.flushHeaders();
        await new Promise((resolve) => ctx.req.socket.write('', resolve));
      }
      this.reset(ctx);
      return;
    }
    res.end();
    // This answer is the session's last: the client takes its next requests to a new connection.
    if (fault && fault.goaway && ctx.h2 && !res.stream.session.destroyed) {
      res.stream.session.goaway(http2.constants.NGHTTP2_NO_ERROR, res.stream.id);
    }
  }

  // Writes bytes [0, end) of source with backpressure (and pacing when bytesPerSecond is set).
  // With flush set, it returns only once the last write has left (the K bytes before a reset
  // must reach the client, or "reset after K bytes" would be "after at most K").
  async pump(ctx, source, end, bytesPerSecond, flush) {
    const { res } = ctx;
    let pos = 0;
    let last = Promise.resolve();
    const t0 = Date.now();
    const slice = bytesPerSecond ? Math.max(1, Math.floor((bytesPerSecond * THROTTLE_TICK_MS) / 1000)) : Infinity;
    while (pos < end) {
      if (ctx.closed) return;
      const chunk = source.chunkAt(pos, Math.min(end - pos, slice));
      if (!chunk.length) throw new Error(`body source yielded nothing at ${pos} of ${end}`);
      pos += chunk.length;
      let ok;
      if (flush) last = new Promise((resolve) => { ok = res.write(chunk, () => resolve()); });
      else ok = res.write(chunk);
      if (bytesPerSecond) {
        // Pace against the start time rather than sleeping a fixed tick, so timer lateness
        // does not accumulate into a slower rate than asked.
        const due = t0 + (pos / bytesPerSecond) * 1000;
        const wait = due - Date.now();
        if (wait > 0) await waitFor(ctx, wait);
        if (!ok && !ctx.closed) await drained(ctx);
      } else if (!ok) {
        await drained(ctx);
      }
    }
    if (flush) await last;
  }
}

module.exports = { Emulator, roleOf };
