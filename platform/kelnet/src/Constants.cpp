#include "kelnet/Constants.h"

namespace kelnet {

const kelcore::ImmutableString kHEADER_CONTENT_TYPE("content-type");
const kelcore::ImmutableString kHEADER_AUTHORIZATION("authorization");
const kelcore::ImmutableString kHEADER_REFRESH_TOKEN("x-refresh-token");
const kelcore::ImmutableString kHEADER_RETRY_AFTER("retry-after");
const kelcore::ImmutableString kHEADER_RANGE("range");
const kelcore::ImmutableString kHEADER_CONTENT_RANGE("content-range");
const kelcore::ImmutableString kHEADER_ACCEPT_RANGES("accept-ranges");
const kelcore::ImmutableString kHEADER_CONTENT_LENGTH("content-length");
const kelcore::ImmutableString kHEADER_CONTENT_ENCODING("content-encoding");
const kelcore::ImmutableString kHEADER_ETAG("etag");
const kelcore::ImmutableString kHEADER_IF_RANGE("if-range");
const kelcore::ImmutableString kHEADER_LAST_MODIFIED("last-modified");

const kelcore::ImmutableString kHEADER_CONTENT_TYPE_APPLICATION_JSON("application/json");
const kelcore::ImmutableString kHEADER_CONTENT_TYPE_APPLICATION_JSON_UTF_8("application/json; charset=utf-8");
const kelcore::ImmutableString kHEADER_CONTENT_TYPE_APPLICATION_VND_API_JSON("application/vnd.api+json");
const kelcore::ImmutableString kHEADER_CONTENT_TYPE_APPLICATION_WWW_FORM_URLENCODED("application/x-www-form-urlencoded");

const kelcore::ImmutableString kBearerTokenPrefix("Bearer ");
const kelcore::ImmutableString kURI_SCHEME_SEPARATOR("://");

}  // namespace kelnet
