#include "kelcore/Logging.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>

namespace kelcore::logging {

namespace {

struct LogState {
  std::mutex mutex;
  std::shared_ptr<const Sink> sink;
  // The highest level the sink wants, 0 when there is no sink: read without the lock, so the
  // common "logging is off" check costs one atomic load.
  std::atomic<int> maxLevel{0};
  std::once_flag environmentRead;
};

LogState& State() {
  // Never destroyed: threads still running while statics are torn down may log.
  static auto* state = new LogState;
  return *state;
}

const char* LevelName(Level level) {
  switch (level) {
    case Level::Error:
      return "error";
    case Level::Warning:
      return "warning";
    case Level::Info:
      return "info";
    case Level::Debug:
      return "debug";
    case Level::Trace:
      return "trace";
  }
  return "?";
}

int LevelFromName(std::string_view name) {
  std::string lower;
  for (char c : name) lower += static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  if (lower == "error") return static_cast<int>(Level::Error);
  if (lower == "warning" || lower == "warn") return static_cast<int>(Level::Warning);
  if (lower == "info") return static_cast<int>(Level::Info);
  if (lower == "debug") return static_cast<int>(Level::Debug);
  if (lower == "trace") return static_cast<int>(Level::Trace);
  return 0;
}

// JSON's string escapes: in a stderr line they keep one record on one line, whatever a value holds.
void AppendEscaped(std::string& out, std::string_view text) {
  for (char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\b':
        out += "\\b";
        break;
      case '\f':
        out += "\\f";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\r':
        out += "\\r";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (byte < 0x20) {
          char escaped[8];
          std::snprintf(escaped, sizeof escaped, "\\u%04x", static_cast<unsigned>(byte));
          out += escaped;
        } else {
          out += c;
        }
    }
  }
}

void WriteToStderr(const Record& record) {
  std::string line = LevelName(record.level);
  line += ' ';
  line += record.category.empty() ? "-" : record.category;
  line += ": ";
  AppendEscaped(line, record.message);
  for (const auto& [key, value] : record.fields) {
    line += ' ';
    line += key;
    line += "=\"";
    AppendEscaped(line, value);
    line += '"';
  }
  line += '\n';
  // One write per record, so lines from several threads do not interleave.
  static std::mutex writeMutex;
  std::lock_guard lock(writeMutex);
  std::fwrite(line.data(), 1, line.size(), stderr);
}

void Install(LogState& state, Sink sink, int maxLevel) {
  std::shared_ptr<const Sink> previous;
  {
    std::lock_guard lock(state.mutex);
    previous = std::exchange(state.sink, sink ? std::make_shared<const Sink>(std::move(sink)) : nullptr);
    state.maxLevel.store(state.sink ? maxLevel : 0);
  }
  // previous is released outside the lock, in case its captures log on destruction.
}

LogState& Initialized() {
  auto& state = State();
  // The environment is consulted once, before anything else can install a sink, so a host's
  // own SetSink always wins over OSTRIOLIB_LOG.
  std::call_once(state.environmentRead, [&] {
    const char* requested = std::getenv("OSTRIOLIB_LOG");
    const int level = requested ? LevelFromName(requested) : 0;
    if (level > 0) Install(state, WriteToStderr, level);
  });
  return state;
}

}  // namespace

void SetSink(Sink sink, Level maxLevel) { Install(Initialized(), std::move(sink), static_cast<int>(maxLevel)); }

bool IsLoggingEnabled(Level level) { return Initialized().maxLevel.load() >= static_cast<int>(level); }

void Log(Record record) {
  auto& state = Initialized();
  if (state.maxLevel.load() < static_cast<int>(record.level)) return;
  std::shared_ptr<const Sink> sink;
  {
    std::lock_guard lock(state.mutex);
    sink = state.sink;
  }
  // Called outside the lock: a sink that logs, or swaps the sink, must not deadlock.
  if (sink) (*sink)(record);
}

void LogWarning(std::string_view category, std::string message,
                std::vector<std::pair<std::string, std::string>> fields) {
  if (!IsLoggingEnabled(Level::Warning)) return;
  Record record;
  record.level = Level::Warning;
  record.category = std::string(category);
  record.message = std::move(message);
  record.fields = std::move(fields);
  Log(std::move(record));
}

bool IsTraceEnabled(std::string_view /*category*/, int level) {
  const int wanted = Initialized().maxLevel.load();
  return wanted > 0 && wanted >= level;
}

void Trace(std::string_view category, int level, std::string_view text) {
  if (!IsTraceEnabled(category, level)) return;
  Record record;
  record.level = static_cast<Level>(std::clamp(level, static_cast<int>(Level::Error), static_cast<int>(Level::Trace)));
  record.category = std::string(category);
  record.message = std::string(text);
  record.isTrace = true;
  Log(std::move(record));
}

std::string QuoteJSON(std::string_view text) {
  std::string out;
  out.reserve(text.size() + 2);
  out += '"';
  AppendEscaped(out, text);
  out += '"';
  return out;
}

}  // namespace kelcore::logging
