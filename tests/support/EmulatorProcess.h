#pragma once
// EmulatorProcess: the local Ostrio service (emulator/server.js) as a child process of a test.
//
// Start() spawns node on a free port with a fresh state folder, waits (bounded) for the first
// line of its output and points the process under test at it: OSTRIOLIB_CABUNDLE (the
// emulator's CA) and OSTRIOLIB_DOMAIN_DEVELOPMENT (its domain suffix). The control calls go
// through a small blocking HTTPS client that trusts that CA. The destructor stops the emulator
// (SIGTERM, then SIGKILL if it lingers) and removes its state folder.

#include <sys/types.h>

#include <memory>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

class EmulatorProcess {
 public:
  // Null (with the reason on stderr) when node or the emulator could not be started.
  static std::unique_ptr<EmulatorProcess> Start(std::vector<std::string> extraArgs = {});
  ~EmulatorProcess();
  EmulatorProcess(const EmulatorProcess&) = delete;
  EmulatorProcess& operator=(const EmulatorProcess&) = delete;

  const std::string& Suffix() const { return suffix_; }        // ".ostrio.localhost:PORT"
  const std::string& CaPath() const { return caPath_; }
  std::string ApiUrl(std::string_view path) const;                // "https://api<suffix><path>"

  // path is relative to the control URL ("requests", "/faults"). The body of a 2xx answer;
  // anything else throws std::runtime_error.
  std::string ControlGet(std::string_view path);
  std::string ControlPost(std::string_view path, std::string_view json);
  void ControlDelete(std::string_view path);

 private:
  EmulatorProcess() = default;
  std::string Control(const char* method, std::string_view path, std::string_view json);

  pid_t pid_ = -1;
  std::string suffix_;
  std::string caPath_;
  std::string controlUrl_;
  std::string stateDir_;
  std::thread drain_;  // keeps reading the emulator's stdout so it never blocks on a full pipe
  int lifeline_ = -1;  // the write end of the emulator's stdin: it ends when this process does
};
