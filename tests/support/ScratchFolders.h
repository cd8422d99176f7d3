#pragma once
// Throwaway places for a test: a temporary folder removed with everything in it, and environment
// entries set for one scope.

#include <stdlib.h>

#include <cstdlib>
#include <filesystem>
#include <initializer_list>
#include <optional>
#include <string>
#include <utility>
#include <vector>

class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string pattern = (std::filesystem::temp_directory_path() / "ostrio-test-XXXXXX").string();
    path_ = ::mkdtemp(pattern.data());
  }
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  const std::filesystem::path& Path() const { return path_; }

 private:
  std::filesystem::path path_;
};

class ScopedEnvironment {
 public:
  // A null value unsets the entry for the scope.
  ScopedEnvironment(std::initializer_list<std::pair<const char*, std::optional<std::string>>> entries) {
    for (const auto& [name, value] : entries) {
      const char* old = std::getenv(name);
      saved_.emplace_back(name, old ? std::optional<std::string>(old) : std::nullopt);
      value ? ::setenv(name, value->c_str(), 1) : ::unsetenv(name);
    }
  }
  ~ScopedEnvironment() {
    for (auto it = saved_.rbegin(); it != saved_.rend(); ++it) {
      it->second ? ::setenv(it->first, it->second->c_str(), 1) : ::unsetenv(it->first);
    }
  }
  ScopedEnvironment(const ScopedEnvironment&) = delete;
  ScopedEnvironment& operator=(const ScopedEnvironment&) = delete;

 private:
  std::vector<std::pair<const char*, std::optional<std::string>>> saved_;
};
