'use strict';

const crypto = require('node:crypto');

// Every id of the seed is derived from a path-like name, so ids are the same on every run and
// every machine: tests, fixtures and a developer's notes can all refer to the same objects.
function digest(name) {
  return crypto.createHash('sha256').update(`ostrio-emulator/${name}`).digest();
}

// Lower-case GUID text (8-4-4-4-12). Version and variant bits are set like a name-based UUID
// so that strict GUID parsers on the client side accept every id.
function guidFor(name) {
  const h = digest(name);
  h[6] = (h[6] & 0x0f) | 0x50;
  h[8] = (h[8] & 0x3f) | 0x80;
  const x = h.subarray(0, 16).toString('hex');
  return `${x.slice(0, 8)}-${x.slice(8, 12)}-${x.slice(12, 16)}-${x.slice(16, 20)}-${x.slice(20, 32)}`;
}

// A small stable integer per name (media pattern seeds, sizes).
function numberFor(name, modulo) {
  return digest(name).readUInt32BE(16) % modulo;
}

const GUID_RE = /^[0-9a-f]{8}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{4}-[0-9a-f]{12}$/;

function isGuid(text) {
  return typeof text === 'string' && GUID_RE.test(text);
}

function guidToBytes(guid) {
  return Buffer.from(guid.replace(/-/g, ''), 'hex');
}

function bytesToGuid(bytes) {
  const x = bytes.toString('hex');
  return `${x.slice(0, 8)}-${x.slice(8, 12)}-${x.slice(12, 16)}-${x.slice(16, 20)}-${x.slice(20, 32)}`;
}

function randomGuid() {
  return crypto.randomUUID();
}

module.exports = { guidFor, numberFor, isGuid, guidToBytes, bytesToGuid, randomGuid };
