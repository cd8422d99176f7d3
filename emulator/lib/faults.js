'use strict';

// Fault injection. A fault is armed for a route and fires on the next `count` answers of that
// route, oldest fault first: arming "503" then "502" for graphql makes the next answer a 503
// and the one after a 502. One answer consumes at most one fault; combine effects inside one
// fault object (e.g. status 503 with retryAfter).

const ROUTES = ['graphql', 'refresh', 'media', 'welcome', '*'];

const FIELDS = {
  route: (v) => ROUTES.includes(v) || `route must be one of ${ROUTES.join(', ')}`,
  count: (v) => (Number.isInteger(v) && v >= 1) || 'count must be a positive integer',
  // An informational status is not an answer: the client would keep waiting for the real one.
  status: (v) => (Number.isInteger(v) && v >= 200 && v <= 599) || 'status must be an integer 200..599',
  delayMs: (v) => (Number.isInteger(v) && v >= 0 && v <= 600000) || 'delayMs must be an integer 0..600000',
  contentType: (v) => (typeof v === 'string' && /^[\x20-\x7e]*$/.test(v)) || 'contentType must be a printable string',
  truncateBody: (v) => (Number.isInteger(v) && v >= 0) || 'truncateBody must be a non-negative integer',
  malformedBody: (v) => typeof v === 'boolean' || 'malformedBody must be a boolean',
  graphqlError: (v) => typeof v === 'string' || 'graphqlError must be a string',
  resetAfterBytes: (v) => (Number.isInteger(v) && v >= 0) || 'resetAfterBytes must be a non-negative integer',
  refuseStream: (v) => typeof v === 'boolean' || 'refuseStream must be a boolean',
  goaway: (v) => typeof v === 'boolean' || 'goaway must be a boolean',
  bytesPerSecond: (v) => (Number.isInteger(v) && v >= 1) || 'bytesPerSecond must be a positive integer',
  retryAfter: (v) => ((typeof v === 'string' && /^[\x20-\x7e]+$/.test(v)) || (Number.isInteger(v) && v >= 0)) || 'retryAfter must be a string or a non-negative integer',
};

// Text that starts like a GraphQL answer and then stops making sense, so a client that only
// sniffs the first bytes still has to fail in its parser.
const MALFORMED_BODY = Buffer.from('{"data": {"me": {"id": "0000", "name": tru}, ]');

class FaultBoard {
  constructor() {
    this.faults = [];
    this.nextId = 1;
  }

  // Validates and arms one fault; throws an Error with a client-facing message when invalid.
  add(fault) {
    if (!fault || typeof fault !== 'object' || Array.isArray(fault)) throw new Error('a fault is a JSON object');
    for (const [key, value] of Object.entries(fault)) {
      const check = FIELDS[key];
      if (!check) throw new Error(`unknown fault field "${key}"`);
      const verdict = check(value);
      if (verdict !== true) throw new Error(verdict);
    }
    if (!fault.route) throw new Error('route is required');
    const effects = Object.keys(fault).filter((k) => k !== 'route' && k !== 'count');
    if (!effects.length) throw new Error('a fault needs at least one effect');
    const armed = { id: this.nextId++, count: 1, ...fault };
    if (typeof armed.retryAfter === 'number') armed.retryAfter = String(armed.retryAfter);
    armed.remaining = armed.count;
    this.faults.push(armed);
    return armed;
  }

  take(route) {
    const i = this.faults.findIndex((f) => f.route === route || f.route === '*');
    if (i < 0) return null;
    const fault = this.faults[i];
    fault.remaining -= 1;
    if (fault.remaining <= 0) this.faults.splice(i, 1);
    return fault;
  }

  list() {
    return this.faults.map((f) => ({ ...f }));
  }

  remove(id) {
    const i = this.faults.findIndex((f) => f.id === id);
    if (i < 0) return false;
    this.faults.splice(i, 1);
    return true;
  }

  clear() {
    const n = this.faults.length;
    this.faults = [];
    return n;
  }
}

module.exports = { FaultBoard, ROUTES, MALFORMED_BODY };
