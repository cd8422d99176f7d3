#pragma once
// Runs some tests of this test binary again in a new process, with this one's environment: for
// what must hold across processes (a stored sign-in, a lock) or must not touch this one (a
// process-wide limit). The child halves are DISABLED_ tests, so they run only when asked for.

#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <string>

// Starts this binary running only the tests `filter` names; its pid, or -1.
inline pid_t StartChildProcess(const std::string& filter) {
  std::string self = std::filesystem::read_symlink("/proc/self/exe").string();
  std::string only = "--gtest_filter=" + filter, disabled = "--gtest_also_run_disabled_tests";
  char* argv[] = {self.data(), only.data(), disabled.data(), nullptr};
  pid_t pid = -1;
  return posix_spawn(&pid, self.c_str(), nullptr, nullptr, argv, ::environ) == 0 ? pid : -1;
}

// The exit status of a child (0 when its tests passed); -1 when it did not exit normally.
inline int WaitForChildProcess(pid_t pid) {
  int status = 0;
  while (pid < 0 || ::waitpid(pid, &status, 0) < 0) {
    if (pid < 0 || errno != EINTR) return -1;
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

inline int RunChildProcess(const std::string& filter) { return WaitForChildProcess(StartChildProcess(filter)); }
