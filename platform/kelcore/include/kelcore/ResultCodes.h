#pragma once
// Result codes: 32-bit signed integers, negative means failure.

#include <cstdint>

namespace kelcore {

using Result = std::int32_t;

constexpr Result kResultOK = 0;

constexpr Result kErrorFailed = static_cast<Result>(0xA00F0001u);
constexpr Result kErrorPreconditionFailed = static_cast<Result>(0xA00F000Du);
constexpr Result kErrorInvalidArgument = static_cast<Result>(0xA00F000Eu);
constexpr Result kErrorNoServerResponse = static_cast<Result>(0xA00F000Fu);
constexpr Result kErrorServiceUnavailable = static_cast<Result>(0xA0CB000Cu);
constexpr Result kErrorNoResponse = static_cast<Result>(0xA0CB0015u);
constexpr Result kErrorRequestFailed = static_cast<Result>(0xA0CB0016u);
constexpr Result kErrorUnsupportedContentType = static_cast<Result>(0xA0CB0017u);
constexpr Result kResultAlreadySignedIn = static_cast<Result>(0xBB590001u);
constexpr Result kErrorNotSignedIn = static_cast<Result>(0xBB590002u);
constexpr Result kErrorNoRefreshToken = static_cast<Result>(0xBB590003u);
constexpr Result kErrorRefreshRejected = static_cast<Result>(0xBB590004u);
constexpr Result kErrorBadCredentials = static_cast<Result>(0xBB590005u);
constexpr Result kErrorNoExpiry = static_cast<Result>(0xBB590006u);
constexpr Result kErrorUnauthenticated = static_cast<Result>(0xBB590008u);
constexpr Result kErrorOperationFailed = static_cast<Result>(0xF865001Eu);
// Cancelled by shutdown of the transport (not one of the service's own codes).
constexpr Result kErrorCancelled = static_cast<Result>(0xA00F0010u);
// The request timed out or the connection failed before an answer arrived.
constexpr Result kErrorNetwork = static_cast<Result>(0xA00F0011u);

constexpr bool ResultFailed(Result r) noexcept { return r < 0; }
constexpr bool ResultSucceeded(Result r) noexcept { return r >= 0; }

}  // namespace kelcore
