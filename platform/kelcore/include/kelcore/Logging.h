#pragma once
// Logging with named fields, and tracing by category and level, to a host-installed sink.
// Off by default; OSTRIOLIB_LOG=error|warning|info|debug|trace sends both to stderr.
// Callers must never put a token into a message or a field.

#include <functional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace kelcore::logging {

enum class Level : int { Error = 1, Warning = 2, Info = 3, Debug = 4, Trace = 5 };

struct Record {
  Level level = Level::Info;
  std::string category;  // "ostriolib" for the library's own records
  std::string message;
  std::vector<std::pair<std::string, std::string>> fields;
  std::string sourcePath;
  int line = 0;
  std::string function;
  bool isTrace = false;
};

using Sink = std::function<void(const Record&)>;

// Installs the sink (an empty one turns logging off) and the highest level it wants.
void SetSink(Sink sink, Level maxLevel = Level::Trace);
bool IsLoggingEnabled(Level level = Level::Error);
void Log(Record record);

// One warning record of `category` with its named fields; nothing when warnings are off.
void LogWarning(std::string_view category, std::string message,
                std::vector<std::pair<std::string, std::string>> fields = {});

bool IsTraceEnabled(std::string_view category, int level);
void Trace(std::string_view category, int level, std::string_view text);

// Quotes text as a JSON string, for trace lines that embed values.
std::string QuoteJSON(std::string_view text);

}  // namespace kelcore::logging
