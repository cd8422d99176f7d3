#pragma once
// How HttpStreamingGet fetches a large resource.
//
// The first request asks for bytes [0, probeBytes). A server that ignores ranges answers 200 and
// that one answer is the download. A 206 tells the size; when it exceeds segmentThreshold and the
// answer carries a validator (a strong ETag or Last-Modified), the rest is fetched by up to
// maxSegments concurrent range requests of at most pieceBytes each, every one guarded by If-Range
// so that a resource that changes mid-way fails the download instead of mixing two versions.
// Otherwise the rest comes as one more range request. A range that breaks off resumes from its
// last delivered byte, at most maxResumes times in a row without progress.

#include <cstdint>

namespace kelappsupport::cloudservice {

struct DownloadPolicy {
  std::uint64_t probeBytes = 4ull << 20;
  std::uint64_t segmentThreshold = 32ull << 20;
  int maxSegments = 8;  // 1: never more than one range request at a time
  std::uint64_t pieceBytes = 32ull << 20;
  int maxResumes = 5;
  // Every range request, the probe included, goes over a connection of its own (kelnet streams
  // over HTTP/1.1 only, decision 044): ranges really run in parallel, and a paused one holds its
  // queue and the socket's buffer.
};

}  // namespace kelappsupport::cloudservice
