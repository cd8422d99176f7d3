#include "AuthSupport.h"

#include <execinfo.h>
#include <signal.h>

#include <algorithm>
#include <charconv>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <locale>

#include "kelcore/KelException.h"
#include "kelcore/Logging.h"

namespace ostriolib {

namespace {
constexpr std::string_view kUrlSafeBytes = "-_.~0123456789abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ";
}  // namespace

std::string PercentEncode(std::string_view text, bool twoDigits) {
  static const char* const kHex = "0123456789ABCDEF";
  std::string out;
  for (char c : text) {
    if (kUrlSafeBytes.find(c) != std::string_view::npos) {
      out += c;
      continue;
    }
    const auto byte = static_cast<unsigned char>(c);
    out += '%';
    if (twoDigits || byte >= 0x10) out += kHex[byte >> 4];
    out += kHex[byte & 0xF];
  }
  return out;
}

std::string UpperCase(std::string_view text) {
  const std::locale locale;
  std::string out(text);
  for (char& c : out) c = std::toupper(c, locale);
  return out;
}

std::int64_t ParseSeconds(std::string_view text) {
  std::int64_t value = 0;
  const auto parsed = std::from_chars(text.data(), text.data() + text.size(), value);
  return parsed.ec == std::errc() ? value : 0;
}

std::string ResultText(kelcore::Result code) {
  char text[16];
  std::snprintf(text, sizeof text, "0x%08X", static_cast<unsigned>(code));
  return text;
}

std::string StackTrace(int maxEntries) {
  void* frames[16];
  const int count = ::backtrace(frames, std::min(maxEntries, 16));
  std::string text;
  char** symbols = ::backtrace_symbols(frames, count);
  for (int i = 0; i < count; ++i) {
    if (i) text += '\n';
    text += symbols ? symbols[i] : "?";
  }
  std::free(symbols);
  return text;
}

void DoSimpleAssert(std::string_view condition, const char* function, std::string_view file, int line) {
  if (kelcore::logging::IsLoggingEnabled(kelcore::logging::Level::Error)) {
    kelcore::logging::Record record;
    record.level = kelcore::logging::Level::Error;
    record.category = "ostriolib";
    record.message = "Assertion failed";
    record.fields = {{"expression", std::string(condition)}};
    record.sourcePath = kelcore::SourcePathWithoutExtension(file);
    record.line = line;
    record.function = function;
    kelcore::logging::Log(std::move(record));
  }
#ifndef NDEBUG
  std::ifstream status("/proc/self/status");
  for (std::string entry; std::getline(status, entry);) {
    if (entry.rfind("TracerPid:", 0) == 0) {
      if (std::strtol(entry.c_str() + 10, nullptr, 10) != 0) ::raise(SIGTRAP);
      break;
    }
  }
#endif
}

}  // namespace ostriolib
