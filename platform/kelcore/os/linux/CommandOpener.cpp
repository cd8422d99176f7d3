// Opens URLs by starting the user's opener (xdg-open or "ostriolib.browser") without a shell.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>

#include "kelcore/Configuration.h"
#include "kelcore/Logging.h"
#include "kelcore/OSUtilsWrapper.h"

extern char** environ;

namespace kelcore {
namespace {

void TraceFailure(std::string_view text) {
  if (logging::IsTraceEnabled("kelcore", 2)) logging::Trace("kelcore", 2, text);
}

struct ExitWatch {
  std::mutex mutex;
  std::condition_variable exited;
  bool done = false;
  int status = 0;
  bool known = true;  // false when the exit status could not be collected (SIGCHLD ignored)
};

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
  const pid_t pid = Spawn(words);
  if (pid < 0) {
    TraceFailure("Cannot open the URL: cannot start \"" + words.front() + "\"");
    return false;
  }
  // A reaper thread owns the child: it collects the exit status whether or not we are still
  // waiting, so a slow opener never becomes a zombie.
  auto watch = std::make_shared<ExitWatch>();
  std::thread([pid, watch] {
    int status = 0;
    pid_t got;
    do {
      got = ::waitpid(pid, &status, 0);
    } while (got < 0 && errno == EINTR);
    {
      std::lock_guard lock(watch->mutex);
      watch->done = true;
      watch->status = status;
      watch->known = got == pid;
    }
    watch->exited.notify_all();
  }).detach();

  std::unique_lock lock(watch->mutex);
  if (!watch->exited.wait_for(lock, exitWait, [&] { return watch->done; })) return true;  // still running: started
  if (!watch->known) return true;
  if (WIFEXITED(watch->status) && WEXITSTATUS(watch->status) == 0) return true;
  TraceFailure("Cannot open the URL: \"" + words.front() + "\" reported a failure");
  return false;
}

class CommandOpener final : public IOSUtilsWrapper {
 public:
  // An empty command means "read ostriolib.browser on each call, else xdg-open".
  CommandOpener(std::string command, std::chrono::milliseconds exitWait)
      : command_(std::move(command)), exitWait_(exitWait) {}

  bool OpenURL(const std::string& url) override {
    std::string command = command_;
    if (command.empty()) command = config::DebugDatabase::Instance().GetEntry("ostriolib.browser", "").ToStdString();
    if (command.empty()) command = "xdg-open";
    return OpenWith(command, url, exitWait_);
  }

  const ImmutableString& GetUnknownTypeName() const override {
    static const ImmutableString name(debug::GetTypeName<CommandOpener>());
    return name;
  }

 protected:
  void* QueryMap(std::string_view interfaceName) override {
    if (interfaceName == debug::GetTypeName<IOSUtilsWrapper>()) return static_cast<IOSUtilsWrapper*>(this);
    return nullptr;
  }

 private:
  const std::string command_;
  const std::chrono::milliseconds exitWait_;
};

}  // namespace

classref::InterfaceRef<IOSUtilsWrapper> OSUtilsWrapper::GetOSUtilsWrapper() {
  return classref::InterfaceRef<IOSUtilsWrapper>(
      classref::AllocateClassInstance<CommandOpener>(std::string(), std::chrono::seconds(10)));
}

classref::InterfaceRef<IOSUtilsWrapper> OSUtilsWrapper::CreateCommandOpener(std::string command,
                                                                            std::chrono::milliseconds exitWait) {
  if (command.empty()) return {};
  return classref::InterfaceRef<IOSUtilsWrapper>(
      classref::AllocateClassInstance<CommandOpener>(std::move(command), exitWait));
}

}  // namespace kelcore
