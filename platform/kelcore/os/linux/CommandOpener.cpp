// Opens URLs by starting an opener command (xdg-open, or the one the caller names) without a shell.

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <mutex>
#include <vector>

#include "kelcore/Logging.h"
#include "kelcore/OSUtilsWrapper.h"

extern char** environ;

namespace kelcore {
namespace {

void TraceFailure(std::string_view text) {
  if (logging::IsTraceEnabled("kelcore", 2)) logging::Trace("kelcore", 2, text);
}

// Openers still running when we stopped waiting for them. Nobody waits on them in the background
// (a thread of ours could outlive the library's unloading); each later open collects the ones
// that have exited since, so at most a few zombies wait for the next sign-in.
class Stragglers {
 public:
  static Stragglers& Instance() {
    static auto* instance = new Stragglers;  // never destroyed: reached from any thread at exit
    return *instance;
  }

  void Add(pid_t pid) {
    std::lock_guard lock(mutex_);
    pids_.push_back(pid);
  }

  void Reap() {
    std::lock_guard lock(mutex_);
    std::erase_if(pids_, [](pid_t pid) {
      int status = 0;
      return ::waitpid(pid, &status, WNOHANG) != 0;  // exited and collected, or not ours any more
    });
  }

 private:
  std::mutex mutex_;
  std::vector<pid_t> pids_;
};

// Waits at most `wait` for the child to exit, without a thread: its pidfd becomes readable when it
// does. Returns waitpid's answer: pid (exited, status set), 0 (still running) or -1 (not ours to
// collect, e.g. the host ignores SIGCHLD).
pid_t AwaitExit(pid_t pid, std::chrono::milliseconds wait, int& status) {
  // The raw call: glibc 2.36's <sys/pidfd.h> declares pidfd_open without C linkage.
  const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid, 0));
  if (pidfd >= 0) {
    const auto deadline = std::chrono::steady_clock::now() + wait;
    for (;;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      pollfd exited{pidfd, POLLIN, 0};
      const int ready = ::poll(&exited, 1, static_cast<int>(std::max<std::chrono::milliseconds::rep>(left.count(), 0)));
      if (ready >= 0 || errno != EINTR) break;
    }
    ::close(pidfd);
  }
  pid_t got;
  do {
    got = ::waitpid(pid, &status, WNOHANG);
  } while (got < 0 && errno == EINTR);
  return got;
}

// Starts argv[0] with the arguments; the child gets /dev/null for its standard streams (a browser
// that outlives us must not hold our pipes open) and a session of its own (the host's Ctrl-C must
// not close the user's browser). Returns the pid, or -1.
pid_t Spawn(const std::vector<std::string>& words) {
  std::vector<char*> argv;
  for (const auto& word : words) argv.push_back(const_cast<char*>(word.c_str()));
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attributes;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attributes);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
  posix_spawn_file_actions_addopen(&actions, 2, "/dev/null", O_WRONLY, 0);
  sigset_t none;
  sigemptyset(&none);
  sigset_t defaults;
  sigemptyset(&defaults);
  for (int signal : {SIGPIPE, SIGINT, SIGTERM, SIGHUP, SIGCHLD}) sigaddset(&defaults, signal);
  posix_spawnattr_setsigmask(&attributes, &none);
  posix_spawnattr_setsigdefault(&attributes, &defaults);
  posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSID);

  pid_t pid = -1;
  const int error = posix_spawnp(&pid, argv[0], &actions, &attributes, argv.data(), environ);
  posix_spawnattr_destroy(&attributes);
  posix_spawn_file_actions_destroy(&actions);
  return error == 0 ? pid : -1;
}

bool OpenWith(const std::string& command, const std::string& url, std::chrono::milliseconds exitWait) {
  const std::vector<std::string> words = OSUtilsWrapper::CommandLineFor(command, url);
  if (words.empty()) {
    TraceFailure("Cannot open the URL: the browser command is empty or badly quoted");
    return false;
  }
  Stragglers::Instance().Reap();
  const pid_t pid = Spawn(words);
  if (pid < 0) {
    TraceFailure("Cannot open the URL: cannot start \"" + words.front() + "\"");
    return false;
  }
  int status = 0;
  const pid_t got = AwaitExit(pid, exitWait, status);
  if (got == 0) {
    // Still running: started. Some openers run the browser itself in the foreground.
    Stragglers::Instance().Add(pid);
    return true;
  }
  if (got != pid) return true;  // exit status not ours to know
  if (WIFEXITED(status) && WEXITSTATUS(status) == 0) return true;
  TraceFailure("Cannot open the URL: \"" + words.front() + "\" reported a failure");
  return false;
}

class CommandOpener final : public IOSUtilsWrapper {
 public:
  CommandOpener(std::string command, std::chrono::milliseconds exitWait)
      : command_(std::move(command)), exitWait_(exitWait) {}

  bool OpenURL(const std::string& url) override { return OpenWith(command_, url, exitWait_); }

  KEL_CLASS_REGISTRATION(CommandOpener, IOSUtilsWrapper)

 private:
  const std::string command_;
  const std::chrono::milliseconds exitWait_;
};

}  // namespace

classref::InterfaceRef<IOSUtilsWrapper> OSUtilsWrapper::GetOSUtilsWrapper() {
  return classref::InterfaceRef<IOSUtilsWrapper>(
      classref::AllocateClassInstance<CommandOpener>(std::string("xdg-open"), kDefaultOpenerExitWait));
}

classref::InterfaceRef<IOSUtilsWrapper> OSUtilsWrapper::CreateCommandOpener(std::string command,
                                                                            std::chrono::milliseconds exitWait) {
  if (command.empty()) return {};
  return classref::InterfaceRef<IOSUtilsWrapper>(
      classref::AllocateClassInstance<CommandOpener>(std::move(command), exitWait));
}

}  // namespace kelcore
