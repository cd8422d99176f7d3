#pragma once
// The log sink double: captures every log and trace record while alive.

#include <mutex>
#include <string>
#include <vector>

#include "kelcore/Logging.h"

class LogCapture {
 public:
  LogCapture() {
    kelcore::logging::SetSink([this](const kelcore::logging::Record& record) {
      std::lock_guard lock(mutex_);
      records_.push_back(record);
    });
  }
  ~LogCapture() { kelcore::logging::SetSink(nullptr); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  std::vector<kelcore::logging::Record> Records() const {
    std::lock_guard lock(mutex_);
    return records_;
  }
  // Every message and field value, for "this text never appears" checks.
  std::string AllText() const {
    std::string text;
    for (const auto& record : Records()) {
      text += record.message + "\n";
      for (const auto& [key, value] : record.fields) text += key + "=" + value + "\n";
    }
    return text;
  }

 private:
  mutable std::mutex mutex_;
  std::vector<kelcore::logging::Record> records_;
};
