'use strict';

const { isUtf8 } = require('node:buffer');

// Every request the emulator answers, in arrival order, so tests can assert what crossed the
// wire. Entries are appended when a request arrives and completed when its answer ends, so a
// download still running shows up with status set and no duration yet.

const CAP = 20000;

class RequestLog {
  constructor({ enabled = true, cap = CAP } = {}) {
    this.enabled = enabled;
    this.cap = cap;
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
    if (this.entries.length > this.cap + 1000) this.entries.splice(0, this.entries.length - this.cap);
    return entry;
  }

  static setBody(entry, buf) {
    if (isUtf8(buf)) {
      entry.body = buf.toString('utf8');
    } else {
      entry.body = buf.toString('utf8');
      entry.bodyBase64 = buf.toString('base64');
    }
  }

  list() {
    return this.entries.length > this.cap ? this.entries.slice(-this.cap) : this.entries;
  }

  clear() {
    this.entries = [];
  }
}

module.exports = { RequestLog, CAP };
