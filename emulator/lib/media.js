'use strict';

// Media resources are generated, never stored: the byte at offset i of a resource is
// (i + seed) % 251, where seed is a small per-resource integer (0 for /media/synthetic/N).
// 251 is prime, so the pattern does not line up with any power-of-two chunk size and a chunk
// written at the wrong offset, dropped or duplicated shows up in the client's digest.

const PATTERN_MODULUS = 251;
const CHUNK = 64 * 1024;
const MAX_SYNTHETIC = 2 ** 50;

// One shared buffer from which every chunk of every resource is a slice: a chunk starting at
// resource offset i with seed s starts at (i + s) % 251 in here. Sending is then a slice and a
// write, with no per-chunk allocation or fill.
const PATTERN = Buffer.alloc(CHUNK + PATTERN_MODULUS);
for (let j = 0; j < PATTERN.length; j++) PATTERN[j] = j % PATTERN_MODULUS;

function patternSource(size, seed) {
  return {
    length: size,
    chunkAt(pos, max) {
      const n = Math.min(max, CHUNK, size - pos);
      const start = (pos + seed) % PATTERN_MODULUS;
      return PATTERN.subarray(start, start + n);
    },
  };
}

// What a test uses to check downloaded bytes.
function expectedBytes(size, seed, offset = 0) {
  const out = Buffer.alloc(size);
  for (let i = 0; i < size; i++) out[i] = (offset + i + seed) % PATTERN_MODULUS;
  return out;
}

// Parses a Range header against a resource size. Returns null when the header is to be
// ignored (absent, malformed, several ranges: a full 200 answer is then correct), or
// {unsatisfiable:true}, or {start, end} with end inclusive.
function parseRange(header, size) {
  if (typeof header !== 'string') return null;
  const m = /^\s*bytes\s*=\s*(\d*)\s*-\s*(\d*)\s*$/i.exec(header);
  if (!m) return null;
  const [, a, b] = m;
  if (a === '' && b === '') return null;
  if (a === '') {
    const n = Number(b);
    if (n === 0 || size === 0) return { unsatisfiable: true };
    return { start: Math.max(0, size - n), end: size - 1 };
  }
  const start = Number(a);
  if (b !== '' && Number(b) < start) return null;
  if (start >= size) return { unsatisfiable: true };
  const end = b === '' ? size - 1 : Math.min(Number(b), size - 1);
  return { start, end };
}

const CONTENT_TYPES = { 'original.mp4': 'video/mp4', 'thumbnail.jpg': 'image/jpeg', 'avatar.jpg': 'image/jpeg' };

// Maps a media path to {size, seed, contentType, etag}, or null when there is no such resource.
function resolveMedia(dataset, segments) {
  if (segments.length === 2 && segments[0] === 'synthetic') {
    if (!/^\d{1,16}$/.test(segments[1])) return null;
    const size = Number(segments[1]);
    if (size > MAX_SYNTHETIC) return null;
    return { size, seed: 0, contentType: 'application/octet-stream', etag: `"synthetic-${size}"` };
  }
  if (segments.length !== 2) return null;
  const [id, rendition] = segments;
  const contentType = CONTENT_TYPES[rendition];
  if (!contentType) return null;
  if (rendition === 'avatar.jpg') {
    const user = dataset.users.get(id);
    if (!user) return null;
    return { size: user.avatarSize, seed: user.avatarSeed, contentType, etag: `"avatar-${id}-${user.avatarSize}"` };
  }
  const asset = dataset.assets.get(id);
  if (!asset || asset.__typename !== 'VideoAsset') return null;
  if (rendition === 'original.mp4') {
    return { size: asset.size, seed: asset.seed, contentType, etag: `"original-${id}-${asset.size}"` };
  }
  return { size: asset.thumbnailSize, seed: asset.thumbnailSeed, contentType, etag: `"thumbnail-${id}-${asset.thumbnailSize}"` };
}

// Builds the answer plan for GET/HEAD of one media resource.
function mediaPlan(resource, req) {
  const headers = {
    'accept-ranges': 'bytes',
    'content-type': resource.contentType,
    etag: resource.etag,
    'cache-control': 'private, max-age=3600',
  };
  let range = parseRange(req.headers.range, resource.size);
  const ifRange = req.headers['if-range'];
  // A Range guarded by If-Range only applies while the client's copy is the one we serve; a
  // weak or stale validator means "send me the whole thing".
  if (range && ifRange !== undefined && ifRange !== resource.etag) range = null;
  if (range && range.unsatisfiable) {
    return { status: 416, headers: { ...headers, 'content-range': `bytes */${resource.size}`, 'content-type': 'application/json; charset=utf-8' },
      body: Buffer.from(JSON.stringify({ error: 'range not satisfiable', size: resource.size })) };
  }
  const source = patternSource(resource.size, resource.seed);
  if (!range) return { status: 200, headers, body: source };
  const length = range.end - range.start + 1;
  return {
    status: 206,
    headers: { ...headers, 'content-range': `bytes ${range.start}-${range.end}/${resource.size}` },
    body: {
      length,
      chunkAt(pos, max) { return source.chunkAt(range.start + pos, max); },
    },
  };
}

module.exports = { PATTERN_MODULUS, CHUNK, patternSource, expectedBytes, parseRange, resolveMedia, mediaPlan };
