#include "kelcore/Configuration.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>
#include <optional>
#include <vector>

#include "kelcore/KelException.h"
#include "kelcore/Logging.h"

namespace kelcore::config {

namespace {

struct Initializer {
  std::string name;
  std::uint32_t contextFlags;
  std::function<bool()> initialize;
};

struct ProcessState {
  std::mutex mutex;
  std::vector<ProcessBeginEndNotificationRegistrar::BeginCallback> beginCallbacks;
  std::vector<ProcessBeginEndNotificationRegistrar::EndCallback> endCallbacks;
  std::vector<Initializer> initializers;
  std::map<std::string, bool, std::less<>> initializerFailed;
  HostInformation host;
  bool begun = false;
  bool ended = false;
};

// Registrars run during static initialisation of other libraries, in an order nobody controls,
// so the state is built on first use; it is never destroyed because EndProcess may be called
// from a static destructor.
ProcessState& Process() {
  static auto* state = new ProcessState;
  return *state;
}

void LogFailure(logging::Level level, std::string message, std::string_view name, std::string detail = {}) {
  logging::Record record;
  record.level = level;
  record.category = "kelcore";
  record.message = std::move(message);
  record.fields = {{"name", std::string(name)}};
  if (!detail.empty()) record.fields.emplace_back("error", std::move(detail));
  logging::Log(std::move(record));
}

std::string_view Trim(std::string_view text) {
  const auto isSpace = [](char c) { return std::isspace(static_cast<unsigned char>(c)) != 0; };
  while (!text.empty() && isSpace(text.front())) text.remove_prefix(1);
  while (!text.empty() && isSpace(text.back())) text.remove_suffix(1);
  return text;
}

// Debug files are a few lines long; anything this big is not one, and reading it whole (a
// device, a log file named by mistake) would only cost memory.
constexpr std::size_t kMaxDebugFileSize = 1 << 20;

enum class FileStatus { kRead, kMissing, kUnusable };

// Reads a debug file whole. Only regular files are read: opening a FIFO or a terminal for reading
// would block the lookup (and the library's start-up with it) until someone writes to it.
FileStatus ReadDebugFile(const std::string& path, std::string& contents, std::string& reason) {
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) {
    reason = std::strerror(errno);
    return errno == ENOENT || errno == ENOTDIR ? FileStatus::kMissing : FileStatus::kUnusable;
  }
  struct stat info {};
  FileStatus status = FileStatus::kRead;
  if (::fstat(fd, &info) != 0) {
    reason = std::strerror(errno);
    status = FileStatus::kUnusable;
  } else if (S_ISCHR(info.st_mode) && info.st_rdev == makedev(1, 3)) {
    // The null device: "OSTRIOLIB_DEBUG_DB=/dev/null" is the usual way to say "no entries".
  } else if (!S_ISREG(info.st_mode)) {
    reason = "not a regular file";
    status = FileStatus::kUnusable;
  } else if (static_cast<std::uint64_t>(info.st_size) > kMaxDebugFileSize) {
    reason = "larger than 1 MB";
    status = FileStatus::kUnusable;
  } else {
    contents.resize(static_cast<std::size_t>(info.st_size));
    std::size_t done = 0;
    while (done < contents.size()) {
      const ssize_t got = ::read(fd, contents.data() + done, contents.size() - done);
      if (got > 0) {
        done += static_cast<std::size_t>(got);
      } else if (got < 0 && errno == EINTR) {
        continue;
      } else if (got < 0) {
        reason = std::strerror(errno);
        status = FileStatus::kUnusable;
        break;
      } else {
        break;  // shrank under us: what was read is what there is
      }
    }
    contents.resize(done);
  }
  ::close(fd);
  return status;
}

void WarnAboutFile(const std::string& path, std::string_view problem, const std::string& reason) {
  logging::LogWarning("kelcore", "Debug database file ignored",
                      {{"path", path}, {"problem", std::string(problem)}, {"error", reason}});
}

// The value of the key's last occurrence in a "key=value" file. A file that cannot be used
// gives nothing (and a warning), so a stale path in the environment never breaks the library;
// `required` says whether a missing file is worth a warning too.
std::optional<std::string> LookUpInFile(const std::string& path, std::string_view key, bool required) {
  std::string contents;
  std::string reason;
  switch (ReadDebugFile(path, contents, reason)) {
    case FileStatus::kRead:
      break;
    case FileStatus::kMissing:
      if (required) WarnAboutFile(path, "missing", reason);
      return std::nullopt;
    case FileStatus::kUnusable:
      WarnAboutFile(path, "unreadable", reason);
      return std::nullopt;
  }
  std::string_view rest(contents);
  if (rest.substr(0, 3) == "\xEF\xBB\xBF") rest.remove_prefix(3);  // editors on Windows add a BOM
  std::optional<std::string> found;
  while (!rest.empty()) {
    const auto newline = rest.find('\n');
    std::string_view text = rest.substr(0, newline);
    rest.remove_prefix(newline == std::string_view::npos ? rest.size() : newline + 1);
    text = Trim(text);  // also drops the '\r' of CRLF files
    if (text.empty() || text.front() == '#') continue;
    const auto equals = text.find('=');
    if (equals == std::string_view::npos) continue;
    if (Trim(text.substr(0, equals)) == key) found = std::string(Trim(text.substr(equals + 1)));
  }
  return found;
}

std::string EnvironmentOrEmpty(const char* name) {
  const char* value = std::getenv(name);
  return value ? value : "";
}

}  // namespace

ProcessBeginEndNotificationRegistrar::ProcessBeginEndNotificationRegistrar(BeginCallback onBegin, EndCallback onEnd) {
  auto& state = Process();
  std::lock_guard lock(state.mutex);
  if (state.begun) {
    LogFailure(logging::Level::Warning, "Process notification registered after process begin", "");
  }
  state.beginCallbacks.push_back(std::move(onBegin));
  state.endCallbacks.push_back(std::move(onEnd));
}

InitializerRegistrar::InitializerRegistrar(const char* name, std::uint32_t contextFlags,
                                           std::function<bool()> initialize) {
  auto& state = Process();
  std::lock_guard lock(state.mutex);
  if (state.begun) LogFailure(logging::Level::Warning, "Initializer registered after process begin", name ? name : "");
  state.initializers.push_back(Initializer{name ? name : "", contextFlags, std::move(initialize)});
}

bool BeginProcess(const HostInformation& host, const detail::Parameter* parameters, std::size_t count) {
  auto& state = Process();
  std::vector<ProcessBeginEndNotificationRegistrar::BeginCallback> beginCallbacks;
  std::vector<Initializer> initializers;
  {
    std::lock_guard lock(state.mutex);
    if (state.begun) return false;
    state.begun = true;
    state.host = host;
    beginCallbacks = state.beginCallbacks;
    initializers = state.initializers;
  }
  // Callbacks run without the lock: they read host information and may register more.
  for (const auto& onBegin : beginCallbacks) {
    if (!onBegin) continue;
    try {
      onBegin(parameters, count);
    } catch (...) {
      LogFailure(logging::Level::Error, "Process begin callback failed", "",
                 ExtractMessageFromException(std::current_exception()));
    }
  }
  for (const auto& initializer : initializers) {
    bool succeeded = false;
    std::string error;
    try {
      succeeded = initializer.initialize && initializer.initialize();
    } catch (...) {
      error = ExtractMessageFromException(std::current_exception());
    }
    if (!succeeded) LogFailure(logging::Level::Error, "Initializer failed", initializer.name, error);
    std::lock_guard lock(state.mutex);
    state.initializerFailed[initializer.name] = !succeeded;
  }
  return true;
}

void EndProcess() {
  auto& state = Process();
  std::vector<ProcessBeginEndNotificationRegistrar::EndCallback> endCallbacks;
  {
    std::lock_guard lock(state.mutex);
    // Nothing was set up for a process that never began, so there is nothing to end.
    if (!state.begun || state.ended) return;
    state.ended = true;
    endCallbacks = state.endCallbacks;
  }
  for (auto it = endCallbacks.rbegin(); it != endCallbacks.rend(); ++it) {
    if (!*it) continue;
    try {
      (*it)();
    } catch (...) {
      LogFailure(logging::Level::Error, "Process end callback failed", "",
                 ExtractMessageFromException(std::current_exception()));
    }
  }
}

bool ProcessBegun() noexcept {
  auto& state = Process();
  std::lock_guard lock(state.mutex);
  return state.begun;
}

bool InitializerFailed(std::string_view name) {
  auto& state = Process();
  std::lock_guard lock(state.mutex);
  auto found = state.initializerFailed.find(name);
  return found != state.initializerFailed.end() && found->second;
}

ImmutableString GetCompanyName() {
  auto& state = Process();
  std::lock_guard lock(state.mutex);
  return ImmutableString(state.host.companyName);
}

ImmutableString GetClientVersion() {
  auto& state = Process();
  std::lock_guard lock(state.mutex);
  return ImmutableString(state.host.version);
}

ImmutableString GetClientBuildNumber() {
  auto& state = Process();
  std::lock_guard lock(state.mutex);
  return ImmutableString(state.host.buildNumber);
}

DebugDatabase& DebugDatabase::Instance() {
  static DebugDatabase instance;
  return instance;
}

ImmutableString DebugDatabase::GetEntry(std::string_view key, std::string_view fallback) const {
  // Nothing is cached: a developer edits the file or the environment and the next lookup sees it.
  // A variable that is set wins even when empty, so it can override a file entry with "".
  if (const char* value = std::getenv(EnvironmentNameForKey(key).c_str())) return ImmutableString(value);

  if (const auto file = EnvironmentOrEmpty("OSTRIOLIB_DEBUG_DB"); !file.empty()) {
    if (auto value = LookUpInFile(file, key, true)) return ImmutableString(*value);
  }

  std::string configHome = EnvironmentOrEmpty("XDG_CONFIG_HOME");
  if (configHome.empty() || configHome.front() != '/') {
    // The XDG rule: a relative XDG_CONFIG_HOME is invalid and the default applies.
    const auto home = EnvironmentOrEmpty("HOME");
    configHome = home.empty() ? std::string() : home + "/.config";
  }
  if (!configHome.empty()) {
    if (auto value = LookUpInFile(configHome + "/ostriolib/debug.conf", key, false)) return ImmutableString(*value);
  }
  return ImmutableString(fallback);
}

std::string DebugDatabase::EnvironmentNameForKey(std::string_view key) {
  std::string name;
  name.reserve(key.size());
  for (char c : key) name += c == '.' ? '_' : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return name;
}

}  // namespace kelcore::config
