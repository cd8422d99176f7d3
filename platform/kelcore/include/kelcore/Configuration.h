#pragma once
// Process configuration: the host's parameters at process begin, named initialisers, host
// information, and the debug database.

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "kelcore/ImmutableString.h"

namespace kelcore::config {

namespace detail {
// Type tags of a host parameter's value.
enum ParameterType : std::int32_t {
  kParameterTypeNone = 0,
  kParameterTypeInteger = 1,
  kParameterTypeString = 2,
  kParameterTypeBoolean = 3,
};
struct Parameter {
  const char* name = nullptr;
  std::int32_t type = kParameterTypeNone;
  const char* stringValue = nullptr;  // type kParameterTypeString (8-bit host text)
  std::int64_t integerValue = 0;      // type kParameterTypeInteger / kParameterTypeBoolean
};
}  // namespace detail

struct HostInformation {
  std::string companyName;
  std::string version;      // "25.1"
  std::string buildNumber;  // "77"
};

// Registered during static initialisation; begin callbacks run (in registration order) when
// the process begins, end callbacks in reverse order when it ends.
class ProcessBeginEndNotificationRegistrar {
 public:
  using BeginCallback = std::function<void(const detail::Parameter* parameters, std::size_t count)>;
  using EndCallback = std::function<void()>;
  ProcessBeginEndNotificationRegistrar(BeginCallback onBegin, EndCallback onEnd = {});
};

// A named initialiser, run once after the begin callbacks, in registration order. A false
// result or an exception marks it failed (see InitializerFailed) and is reported through logging.
class InitializerRegistrar {
 public:
  InitializerRegistrar(const char* name, std::uint32_t contextFlags, std::function<bool()> initialize);
};

// Starts the process: stores the host information, runs the begin callbacks with the
// parameters, then the initialisers. Later calls do nothing and return false.
bool BeginProcess(const HostInformation& host, const detail::Parameter* parameters, std::size_t count);
// Runs the end callbacks once.
void EndProcess();
bool ProcessBegun() noexcept;
// Whether the named initialiser ran and failed (false for unknown or not yet run).
bool InitializerFailed(std::string_view name);

ImmutableString GetCompanyName();
ImmutableString GetClientVersion();
ImmutableString GetClientBuildNumber();

// Key/value settings for developers, read afresh on every lookup: the environment variable named
// like the key upper-cased with dots as underscores ("ostriolib.environment" ->
// OSTRIOLIB_ENVIRONMENT) wins, then the file named by OSTRIOLIB_DEBUG_DB, then
// $XDG_CONFIG_HOME/ostriolib/debug.conf (or ~/.config/...). Files hold "key=value" lines;
// blank lines and lines starting with '#' are skipped; the last occurrence of a key wins. Only
// regular files up to 1 MB are read; one that cannot be (and a named file that is missing) is
// passed over with a warning through logging.
class DebugDatabase {
 public:
  static DebugDatabase& Instance();
  ImmutableString GetEntry(std::string_view key, std::string_view fallback) const;
  static std::string EnvironmentNameForKey(std::string_view key);
};

}  // namespace kelcore::config
