'use strict';

const { isUtf8 } = require('node:buffer');

// Every request the emulator answers, in arrival order, so tests can assert what crossed the
// wire. Entries are appended when a request arrives and completed when its answer ends, so a
// download still running shows up with status set and no duration yet.

const CAP = 20000;
// Bodies can be up to 16 MiB each; the oldest entries go once the kept bodies pass this, so a
// run that uploads a lot still keeps a bounded log.
const BODY_BUDGET = 256 * 1024 * 1024;
// Bookkeeping kept on entries without showing up in their JSON.
const SIZE = Symbol('body size');
const GONE = Symbol('dropped');

class RequestLog {
  constructor({ enabled = true, cap = CAP, bodyBudget = BODY_BUDGET } = {}) {
    this.enabled = enabled;
    this.cap = cap;
    this.bodyBudget = bodyBudget;
    this.bodyBytes = 0;
    this.entries = [];
    this.seq = 0;
  }

  begin(fields) {
    const entry = {
      seq: ++this.seq,
      method: fields.method,
      url: fields.url,
      host: fields.host,
      path: fields.path,
      httpVersion: fields.httpVersion,
      headers: fields.headers,
      body: '',
      status: null,
      startedAt: fields.startedAt,
      durationMs: null,
      graphql: null,
    };
    if (!this.enabled) return entry;
    this.entries.push(entry);
    // Trim in batches: one splice per thousand requests instead of a shift per request.
    if (this.entries.length > this.cap + 1000) this.drop(this.entries.length - this.cap);
    return entry;
  }

  setBody(entry, buf) {
    entry.body = buf.toString('utf8');
    if (!isUtf8(buf)) entry.bodyBase64 = buf.toString('base64');
    if (!this.enabled || entry[GONE]) return;
    entry[SIZE] = buf.length;
    this.bodyBytes += buf.length;
    let n = 0;
    let bytes = this.bodyBytes;
    while (bytes > this.bodyBudget && n < this.entries.length - 1) bytes -= this.entries[n++][SIZE] || 0;
    if (n) this.drop(n);
  }

  drop(n) {
    for (const e of this.entries.splice(0, n)) {
      e[GONE] = true;
      this.bodyBytes -= e[SIZE] || 0;
    }
  }

  list() {
    return this.entries.length > this.cap ? this.entries.slice(-this.cap) : this.entries;
  }

  clear() {
    for (const e of this.entries) e[GONE] = true;
    this.entries = [];
    this.bodyBytes = 0;
  }
}

module.exports = { RequestLog, CAP };
