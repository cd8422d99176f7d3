#include "kelcore/KelException.h"

#include <cstdio>

namespace kelcore {

namespace {

std::string DescribeResult(Result result) {
  char text[32];
  std::snprintf(text, sizeof text, "result 0x%08X", static_cast<unsigned>(result));
  return text;
}

}  // namespace

kel_exception::kel_exception(Result result, std::string message, std::string_view sourcePath, int line,
                             std::string_view function, std::string_view expression)
    : result_(result),
      message_(std::move(message)),
      sourcePath_(SourcePathWithoutExtension(sourcePath)),
      line_(line),
      function_(function),
      expression_(expression),
      what_(message_.empty() ? DescribeResult(result) : message_) {}

missing_key_exception::missing_key_exception(std::string_view key, std::string_view typeName)
    : kel_exception(kErrorInvalidArgument,
                    "Missing key \"" + std::string(key) + "\" of type " + std::string(typeName)),
      key_(key),
      typeName_(typeName) {}

null_pointer_exception::null_pointer_exception(std::string_view typeName, std::string_view sourcePath, int line,
                                               std::string_view function)
    : kel_exception(kErrorPreconditionFailed, "Null reference to " + std::string(typeName), sourcePath, line,
                    function) {}

Result ExtractResultFromException(const std::exception_ptr& error) noexcept {
  if (!error) return kResultOK;
  try {
    std::rethrow_exception(error);
  } catch (const kel_exception& e) {
    return e.GetResult();
  } catch (...) {
    // Anything else (std::bad_alloc, a library's own exception) still means the work failed;
    // callers compare codes, so it must never read as success.
    return kErrorFailed;
  }
}

std::string ExtractMessageFromException(const std::exception_ptr& error) {
  if (!error) return {};
  try {
    std::rethrow_exception(error);
  } catch (const std::exception& e) {
    return e.what();
  } catch (...) {
    return {};
  }
}

std::string SourcePathWithoutExtension(std::string_view file) {
  const auto slash = file.find_last_of("/\\");
  const auto nameStart = slash == std::string_view::npos ? 0 : slash + 1;
  const auto dot = file.rfind('.');
  // A dot that opens the file name (".clang-format") or sits in a folder name is not an extension.
  if (dot == std::string_view::npos || dot <= nameStart) return std::string(file);
  return std::string(file.substr(0, dot));
}

std::string ContinuationName(std::string_view function, int index) {
  return std::string(function) + "::<lambda_" + std::to_string(index) + ">::operator ()";
}

SourceSite ContinuationSite(std::string_view path, int line, std::string_view function, int index) {
  return SourceSite{path, line, ContinuationName(function, index)};
}

}  // namespace kelcore
