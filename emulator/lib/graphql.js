'use strict';

const { isUtf8 } = require('node:buffer');
const { parse, validate, execute, specifiedRules, GraphQLError } = require('graphql');
const { createSchema } = require('./schema');
const { KNOWN_QUERIES } = require('./knownQueries');

const KNOWN = Object.entries(KNOWN_QUERIES).map(([name, text]) => ({ name, bytes: Buffer.from(text, 'utf8') }));

// Which of the library's texts a document is. Byte comparison, because the library's texts
// are fixed bytes: a document that differs only in one blank is still "drifted".
function identifyQuery(query) {
  if (typeof query !== 'string') return { known: null, firstDifference: null, closest: null };
  const bytes = Buffer.from(query, 'utf8');
  let best = null;
  let bestPrefix = -1;
  for (const k of KNOWN) {
    if (bytes.equals(k.bytes)) return { known: k.name, firstDifference: null, closest: k.name };
    const n = Math.min(bytes.length, k.bytes.length);
    let i = 0;
    while (i < n && bytes[i] === k.bytes[i]) i++;
    if (i > bestPrefix) { bestPrefix = i; best = k.name; }
  }
  return { known: null, firstDifference: bestPrefix, closest: best };
}

function json(status, value, extraHeaders = {}) {
  return {
    status,
    headers: { 'content-type': 'application/json; charset=utf-8', 'cache-control': 'no-store', ...extraHeaders },
    body: Buffer.from(JSON.stringify(value)),
  };
}

// The body must be JSON by its declared type, not by a name that looks like it: the media type
// exactly application/json (any letter case), parameters well-formed, and JSON is UTF-8, so a
// charset parameter can only say that.
const TOKEN = "[!#$%&'*+.^_`|~0-9A-Za-z-]+";
const JSON_CONTENT_TYPE = new RegExp(`^application/json[ \\t]*((;[ \\t]*${TOKEN}=(${TOKEN}|"(?:[^"\\\\]|\\\\.)*")[ \\t]*)*)$`, 'i');
const PARAMETER = new RegExp(`(${TOKEN})=(${TOKEN}|"(?:[^"\\\\]|\\\\.)*")`, 'g');

function isJsonContentType(value) {
  const m = JSON_CONTENT_TYPE.exec(value);
  if (!m) return false;
  for (const [, name, raw] of m[1].matchAll(PARAMETER)) {
    const v = raw.startsWith('"') ? raw.slice(1, -1).replace(/\\(.)/g, '$1') : raw;
    if (name.toLowerCase() === 'charset' && v.toLowerCase() !== 'utf-8') return false;
  }
  return true;
}

const UNAUTHENTICATED = { errors: [{ message: 'unauthenticated' }] };
const DOC_CACHE_LIMIT = 2000;
// The library's documents are a few hundred bytes; caching only small ones keeps a client that
// posts many large distinct documents from filling memory with them.
const DOC_CACHE_MAX_LENGTH = 64 * 1024;

class GraphqlEndpoint {
  constructor({ dataset, tokens, mediaUrl, log }) {
    this.schema = createSchema();
    this.dataset = dataset;
    this.tokens = tokens;
    this.mediaUrl = mediaUrl;
    this.log = log;
    // Parsing and validating the same few texts again and again is most of the cost of a
    // request under load; a document's validity does not change, so keep the verdict.
    this.documents = new Map();
  }

  prepared(query) {
    let entry = this.documents.get(query);
    if (entry) return entry;
    try {
      const document = parse(query);
      const errors = validate(this.schema, document, specifiedRules);
      entry = { document, errors };
    } catch (err) {
      entry = { document: null, errors: [err instanceof GraphQLError ? err : new GraphQLError(String(err.message))] };
    }
    if (query.length > DOC_CACHE_MAX_LENGTH) return entry;
    if (this.documents.size >= DOC_CACHE_LIMIT) this.documents.clear();
    this.documents.set(query, entry);
    return entry;
  }

  operationName(body) {
    if (typeof body.operationName === 'string') return body.operationName;
    const { document } = this.prepared(body.query);
    const op = document && document.definitions.find((d) => d.kind === 'OperationDefinition');
    return op && op.name ? op.name.value : null;
  }

  // The request body as JSON, or undefined when it is not JSON. Bytes that are not UTF-8 would
  // decode to replacement characters and slip through, so they make the body invalid.
  static parseBody(rawBody) {
    if (!isUtf8(rawBody)) return undefined;
    try {
      return JSON.parse(rawBody.toString('utf8'));
    } catch {
      return undefined;
    }
  }

  // Returns the answer plan. `body` is the result of parseBody, computed once by the caller,
  // who also logs it.
  handle(req, body) {
    if (req.method !== 'POST') return json(405, { errors: [{ message: 'use POST' }] }, { allow: 'POST' });
    const type = String(req.headers['content-type'] || '');
    if (!isJsonContentType(type)) {
      return json(415, { errors: [{ message: `content-type must be application/json, got ${JSON.stringify(type)}` }] });
    }
    if (body === undefined) return json(400, { errors: [{ message: 'request body is not valid JSON' }] });
    if (!body || typeof body !== 'object' || Array.isArray(body)) {
      return json(400, { errors: [{ message: 'request body must be a JSON object' }] });
    }
    if (typeof body.query !== 'string') return json(400, { errors: [{ message: '"query" must be a string' }] });
    if (body.variables != null && (typeof body.variables !== 'object' || Array.isArray(body.variables))) {
      return json(400, { errors: [{ message: '"variables" must be an object' }] });
    }
    if (body.operationName != null && typeof body.operationName !== 'string') {
      return json(400, { errors: [{ message: '"operationName" must be a string' }] });
    }

    const user = this.authenticate(req);
    if (!user) return json(200, UNAUTHENTICATED);

    const { document, errors } = this.prepared(body.query);
    if (errors.length) return json(200, { errors: errors.map((e) => e.toJSON()) });
    const result = execute({
      schema: this.schema,
      document,
      variableValues: body.variables || {},
      operationName: body.operationName || undefined,
      contextValue: { dataset: this.dataset, user, mediaUrl: this.mediaUrl },
    });
    const out = {};
    if (result.errors) out.errors = result.errors.map((e) => e.toJSON());
    if ('data' in result) out.data = result.data;
    return json(200, out);
  }

  authenticate(req) {
    // Duplicated authorization headers are a client bug; answer them as unauthenticated rather
    // than guessing which one was meant.
    const values = [];
    const raw = req.rawHeaders;
    for (let i = 0; i < raw.length; i += 2) if (raw[i].toLowerCase() === 'authorization') values.push(raw[i + 1]);
    if (values.length !== 1) return null;
    const m = /^Bearer ([^\s]+)$/i.exec(values[0]);
    if (!m) return null;
    const verdict = this.tokens.verifyAccess(m[1]);
    if (!verdict.claims) {
      this.log(`graphql: token refused (${verdict.reason})`);
      return null;
    }
    return this.dataset.users.get(verdict.claims.sub) || null;
  }
}

module.exports = { GraphqlEndpoint, identifyQuery, isJsonContentType, json };
