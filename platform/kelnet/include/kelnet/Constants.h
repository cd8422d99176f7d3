#pragma once
// Header names, content types and URL pieces. Header names are lower-case: the transport
// lower-cases every response header name (HTTP/2 sends them so anyway), so an exact-name
// lookup with these constants works for HTTP/1.1 and HTTP/2 alike.

#include "kelcore/ImmutableString.h"

namespace kelnet {

extern const kelcore::ImmutableString kHEADER_CONTENT_TYPE;          // "content-type"
extern const kelcore::ImmutableString kHEADER_AUTHORIZATION;         // "authorization"
extern const kelcore::ImmutableString kHEADER_REFRESH_TOKEN;         // "x-refresh-token"
extern const kelcore::ImmutableString kHEADER_RETRY_AFTER;           // "retry-after"
extern const kelcore::ImmutableString kHEADER_RANGE;                 // "range"
extern const kelcore::ImmutableString kHEADER_CONTENT_RANGE;         // "content-range"
extern const kelcore::ImmutableString kHEADER_ACCEPT_RANGES;         // "accept-ranges"
extern const kelcore::ImmutableString kHEADER_CONTENT_LENGTH;        // "content-length"
extern const kelcore::ImmutableString kHEADER_CONTENT_ENCODING;      // "content-encoding"
extern const kelcore::ImmutableString kHEADER_ETAG;                  // "etag"
extern const kelcore::ImmutableString kHEADER_IF_RANGE;              // "if-range"
extern const kelcore::ImmutableString kHEADER_LAST_MODIFIED;         // "last-modified"

extern const kelcore::ImmutableString kHEADER_CONTENT_TYPE_APPLICATION_JSON;          // "application/json"
extern const kelcore::ImmutableString kHEADER_CONTENT_TYPE_APPLICATION_JSON_UTF_8;    // "application/json; charset=utf-8"
extern const kelcore::ImmutableString kHEADER_CONTENT_TYPE_APPLICATION_VND_API_JSON;  // "application/vnd.api+json"
extern const kelcore::ImmutableString kHEADER_CONTENT_TYPE_APPLICATION_WWW_FORM_URLENCODED;  // "application/x-www-form-urlencoded"

extern const kelcore::ImmutableString kBearerTokenPrefix;      // "Bearer "
extern const kelcore::ImmutableString kURI_SCHEME_SEPARATOR;   // "://"

}  // namespace kelnet
