#include "CliError.h"

#include <cstdint>
#include <cstdio>

#include "kelcore/KelException.h"

namespace ostrio {
namespace {

// Several of the library's failures carry no text of their own; the line still has to say what
// happened.
std::string FallbackMessage(kelcore::Result result) {
  switch (result) {
    case kelcore::kErrorNotSignedIn:
      return "not signed in (run `ostrio login`)";
    case kelcore::kErrorNoRefreshToken:
      return "the session has no refresh token; sign in again";
    case kelcore::kErrorRefreshRejected:
      return "the service refused to refresh the session; sign in again";
    case kelcore::kErrorUnauthenticated:
      return "the service no longer accepts this session; sign in again";
    case kelcore::kErrorServiceUnavailable:
      return "no service to send the request to (not signed in?)";
    case kelcore::kErrorPreconditionFailed:
      return "not signed in, or the client is shutting down";
    case kelcore::kErrorInvalidArgument:
      return "invalid argument";
    case kelcore::kErrorRequestFailed:
      return "the service refused the request";
    case kelcore::kErrorNoServerResponse:
    case kelcore::kErrorNoResponse:
      return "no answer from the service";
    case kelcore::kErrorNetwork:
      return "the connection to the service failed";
    default:
      return "failed";
  }
}

}  // namespace

CliError::CliError(kelcore::Result result, const std::string& message, ExitStatus status)
    : std::runtime_error(message.empty() ? FallbackMessage(result) : message), result_(result), status_(status) {}

CliError CliError::FromResult(kelcore::Result result, const std::string& message) {
  // The code also covers local failures (a write to disk); this text is the server's refusal.
  if (result == kelcore::kErrorOperationFailed && message == "Streaming GET failure") {
    return CliError(result, message, kExitNetwork);
  }
  return CliError(result, message, ExitStatusForResult(result));
}

CliError CliError::FromException(const std::exception_ptr& error) {
  try {
    if (error) std::rethrow_exception(error);
  } catch (const CliError& e) {
    return e;
  } catch (const kelcore::kel_exception& e) {
    return FromResult(e.GetResult(), e.Message());
  } catch (const std::exception& e) {
    return FromResult(kelcore::kErrorFailed, e.what());
  } catch (...) {
  }
  return FromResult(kelcore::kErrorFailed, {});
}

CliError CliError::Usage(const std::string& message) {
  return CliError(kelcore::kErrorInvalidArgument, message, kExitUsage);
}

std::string CliError::Line() const { return "ostrio: " + std::string(what()) + " (" + ResultHex(result_) + ")"; }

ExitStatus ExitStatusForResult(kelcore::Result result) {
  switch (result) {
    case kelcore::kErrorNotSignedIn:
    case kelcore::kErrorNoRefreshToken:
    case kelcore::kErrorRefreshRejected:
    case kelcore::kErrorBadCredentials:
    case kelcore::kErrorNoExpiry:
    case kelcore::kErrorUnauthenticated:
      return kExitNotSignedIn;
    case kelcore::kErrorNoServerResponse:
    case kelcore::kErrorNoResponse:
    case kelcore::kErrorRequestFailed:
    case kelcore::kErrorUnsupportedContentType:
    case kelcore::kErrorNetwork:
      return kExitNetwork;
    default:
      return result < 0 ? kExitFailure : kExitOK;
  }
}

std::string ResultHex(kelcore::Result result) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(static_cast<std::uint32_t>(result)));
  return text;
}

}  // namespace ostrio
