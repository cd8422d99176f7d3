#include "EmulatorLauncher.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdlib>
#include <cstring>

#include "CliError.h"
#include "kelcore/Dictionary.h"

extern char** environ;

namespace ostrio {
namespace {

// node starts and makes its certificates within a few seconds even on a busy machine.
constexpr std::chrono::seconds kStartLimit{30};
constexpr std::chrono::seconds kStopLimit{5};

CliError LaunchError(const std::string& message) { return CliError(kelcore::kErrorFailed, message, kExitFailure); }

// Waits at most limit for the child's exit, on its pidfd (no polling loop); true once collected.
bool WaitExit(pid_t pid, std::chrono::milliseconds limit) {
  const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  if (pidfd >= 0) {
    pollfd exited{pidfd, POLLIN, 0};
    ::poll(&exited, 1, static_cast<int>(limit.count()));
    ::close(pidfd);
  }
  int status = 0;
  const pid_t got = ::waitpid(pid, &status, WNOHANG);
  return got == pid || got < 0;
}

}  // namespace

std::filesystem::path EmulatorLauncher::SourceFile(const std::string& relative) {
  std::error_code error;
  if (const char* root = std::getenv("OSTRIO_SOURCE_DIR"); root && *root) {
    const auto candidate = std::filesystem::path(root) / relative;
    return std::filesystem::exists(candidate, error) ? candidate : std::filesystem::path();
  }
  std::filesystem::path dir = std::filesystem::read_symlink("/proc/self/exe", error).parent_path();
  // build/<preset>/tools/ostrio/ostrio sits four folders below the tree; a few more allow for
  // other build folders inside it.
  for (int up = 0; !error && up < 8 && !dir.empty(); ++up) {
    const auto candidate = dir / relative;
    if (std::filesystem::exists(candidate, error)) return candidate;
    if (dir == dir.parent_path()) break;
    dir = dir.parent_path();
  }
  return {};
}

std::filesystem::path EmulatorLauncher::Directory() {
  if (const char* dir = std::getenv("OSTRIO_EMULATOR_DIR"); dir && *dir) return dir;
  const auto run = SourceFile("emulator/run");
  if (run.empty()) {
    throw CliError(kelcore::kErrorFailed,
                   "cannot find the emulator (emulator/run of the source tree); set OSTRIO_EMULATOR_DIR", kExitFailure);
  }
  return run.parent_path();
}

std::string EmulatorLauncher::ExecForeground(const std::vector<std::string>& arguments) {
  const std::string run = (Directory() / "run").string();
  std::vector<char*> argv{const_cast<char*>(run.c_str())};
  for (const auto& argument : arguments) argv.push_back(const_cast<char*>(argument.c_str()));
  argv.push_back(nullptr);
  ::execv(run.c_str(), argv.data());
  return "cannot start " + run + ": " + std::strerror(errno);
}

std::unique_ptr<EmulatorLauncher> EmulatorLauncher::Start(const std::filesystem::path& stateDir) {
  const std::string run = (Directory() / "run").string();
  int pipeFds[2];
  if (::pipe2(pipeFds, O_CLOEXEC) != 0) throw LaunchError(std::string("cannot make a pipe: ") + std::strerror(errno));
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, pipeFds[1], STDOUT_FILENO);
  posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
  const std::string state = stateDir.string();
  const char* argv[] = {run.c_str(), "--port", "0", "--state", state.c_str(), "--quiet", nullptr};
  std::unique_ptr<EmulatorLauncher> launcher(new EmulatorLauncher);
  const int spawned = ::posix_spawn(&launcher->pid_, run.c_str(), &actions, nullptr, const_cast<char**>(argv), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(pipeFds[1]);
  launcher->output_ = pipeFds[0];
  if (spawned != 0) {
    launcher->pid_ = -1;
    throw LaunchError("cannot start " + run + ": " + std::strerror(spawned) + " (run scripts/bootstrap first)");
  }

  std::string line;
  const auto deadline = std::chrono::steady_clock::now() + kStartLimit;
  while (line.find('\n') == std::string::npos) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now()).count();
    pollfd ready{launcher->output_, POLLIN, 0};
    if (left <= 0 || ::poll(&ready, 1, static_cast<int>(left)) <= 0) throw LaunchError("the emulator did not start in time");
    char buffer[1024];
    const ssize_t got = ::read(launcher->output_, buffer, sizeof buffer);
    if (got <= 0) throw LaunchError("the emulator exited before it was ready (run scripts/bootstrap first)");
    line.append(buffer, static_cast<std::size_t>(got));
    if (line.size() > 65536) throw LaunchError("the emulator's first line is too long");
  }
  line.resize(line.find('\n'));
  const auto parsed = kelcore::utility::JSONParseToDictionaryValue(line.data(), line.size());
  const auto info = parsed ? parsed->AsDictionary() : kelcore::utility::Dictionary();
  launcher->port_ = static_cast<int>(info.GetInteger("port"));
  launcher->suffix_ = info.GetString("suffix");
  launcher->caPath_ = info.GetString("ca");
  if (launcher->port_ <= 0 || launcher->suffix_.empty() || launcher->caPath_.empty()) {
    throw LaunchError("the emulator's first line is not what it should be: " + line);
  }
  return launcher;
}

void EmulatorLauncher::Stop() {
  if (pid_ > 0) {
    ::kill(pid_, SIGTERM);
    if (!WaitExit(pid_, kStopLimit)) {
      ::kill(pid_, SIGKILL);
      int status = 0;
      ::waitpid(pid_, &status, 0);
    }
    pid_ = -1;
  }
  if (output_ >= 0) {
    ::close(output_);
    output_ = -1;
  }
}

EmulatorLauncher::~EmulatorLauncher() { Stop(); }

}  // namespace ostrio
