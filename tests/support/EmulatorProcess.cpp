#include "EmulatorProcess.h"

#include <curl/curl.h>
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "kelcore/Dictionary.h"

extern char** environ;

namespace {

constexpr auto kStartTimeout = std::chrono::seconds(60);
constexpr auto kStopTimeout = std::chrono::seconds(10);

size_t Collect(char* data, size_t size, size_t count, void* user) {
  static_cast<std::string*>(user)->append(data, size * count);
  return size * count;
}

std::string EmulatorDir() {
  if (const char* dir = std::getenv("OSTRIO_EMULATOR_DIR"); dir && *dir) return dir;
  return OSTRIO_EMULATOR_DIR;
}

}  // namespace

std::unique_ptr<EmulatorProcess> EmulatorProcess::Start(std::vector<std::string> extraArgs) {
  std::unique_ptr<EmulatorProcess> emulator(new EmulatorProcess());
  char stateTemplate[] = "/tmp/ostrio-emulator-XXXXXX";
  if (!::mkdtemp(stateTemplate)) {
    std::perror("mkdtemp");
    return nullptr;
  }
  emulator->stateDir_ = stateTemplate;

  int out[2];
  if (::pipe2(out, O_CLOEXEC) != 0) {
    std::perror("pipe");
    return nullptr;
  }
  // The emulator's stdin is a pipe only this process writes to: if this process dies (a crash,
  // a kill from ctest's timeout), the pipe ends and the emulator stops instead of holding
  // ctest's output open forever.
  int lifeline[2];
  if (::pipe2(lifeline, O_CLOEXEC) != 0) {
    std::perror("pipe");
    ::close(out[0]);
    ::close(out[1]);
    return nullptr;
  }
  emulator->lifeline_ = lifeline[1];
  std::vector<std::string> args = {"node", EmulatorDir() + "/server.js", "--port", "0", "--state",
                                   emulator->stateDir_, "--quiet", "--exit-with-stdin"};
  args.insert(args.end(), extraArgs.begin(), extraArgs.end());
  std::vector<char*> argv;
  for (auto& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);

  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
  posix_spawn_file_actions_adddup2(&actions, lifeline[0], STDIN_FILENO);
  const int spawned = ::posix_spawnp(&emulator->pid_, "node", &actions, nullptr, argv.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  ::close(out[1]);
  ::close(lifeline[0]);
  if (spawned != 0) {
    std::fprintf(stderr, "EmulatorProcess: cannot spawn node: %s\n", std::strerror(spawned));
    ::close(out[0]);
    emulator->pid_ = -1;
    return nullptr;
  }

  std::string line;
  const auto deadline = std::chrono::steady_clock::now() + kStartTimeout;
  while (line.find('\n') == std::string::npos) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) break;
    pollfd fd{out[0], POLLIN, 0};
    if (::poll(&fd, 1, static_cast<int>(left.count())) <= 0) continue;
    char buffer[4096];
    const ssize_t n = ::read(out[0], buffer, sizeof buffer);
    if (n <= 0) break;
    line.append(buffer, static_cast<size_t>(n));
  }
  if (line.find('\n') == std::string::npos) {
    std::fprintf(stderr, "EmulatorProcess: no first line from the emulator\n");
    ::close(out[0]);
    return nullptr;  // the destructor stops the child
  }
  line.resize(line.find('\n'));
  // Whatever else it prints goes nowhere, but must be read so that it never blocks on the pipe.
  emulator->drain_ = std::thread([fd = out[0]] {
    char buffer[4096];
    while (::read(fd, buffer, sizeof buffer) > 0) {
    }
    ::close(fd);
  });

  const auto first = kelcore::utility::JSONParseToDictionaryValue(line.data(), line.size());
  const auto announced = first ? first->AsDictionary() : kelcore::utility::Dictionary();
  emulator->suffix_ = announced.GetString("suffix");
  emulator->caPath_ = announced.GetString("ca");
  emulator->controlUrl_ = announced.GetString("control");
  if (announced.GetInteger("port") <= 0 || emulator->suffix_.empty() || emulator->caPath_.empty()) {
    std::fprintf(stderr, "EmulatorProcess: unexpected first line: %s\n", line.c_str());
    return nullptr;
  }
  ::setenv("OSTRIOLIB_CABUNDLE", emulator->caPath_.c_str(), 1);
  ::setenv("OSTRIOLIB_DOMAIN_DEVELOPMENT", emulator->suffix_.c_str(), 1);
  return emulator;
}

EmulatorProcess::~EmulatorProcess() {
  if (pid_ > 0) {
    ::kill(pid_, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + kStopTimeout;
    int status = 0;
    pid_t done = 0;
    while ((done = ::waitpid(pid_, &status, WNOHANG)) == 0 && std::chrono::steady_clock::now() < deadline) {
      ::usleep(10000);
    }
    if (done == 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, &status, 0);
    }
  }
  if (lifeline_ >= 0) ::close(lifeline_);
  if (drain_.joinable()) drain_.join();  // the pipe closes with the child
  if (!stateDir_.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(stateDir_, ignored);
  }
}

std::string EmulatorProcess::ApiUrl(std::string_view path) const {
  return "https://api" + suffix_ + std::string(path);
}

std::string EmulatorProcess::Control(const char* method, std::string_view path, std::string_view json) {
  std::string url = controlUrl_;
  if (!path.empty() && path.front() != '/') url += '/';
  url.append(path);
  CURL* easy = curl_easy_init();
  if (!easy) throw std::runtime_error("curl_easy_init failed");
  std::string body;
  curl_slist* headers = curl_slist_append(nullptr, "Content-Type: application/json");
  curl_easy_setopt(easy, CURLOPT_URL, url.c_str());
  curl_easy_setopt(easy, CURLOPT_CAINFO, caPath_.c_str());
  curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
  curl_easy_setopt(easy, CURLOPT_TIMEOUT, 30L);
  curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method);
  curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, &Collect);
  curl_easy_setopt(easy, CURLOPT_WRITEDATA, &body);
  if (std::strcmp(method, "POST") == 0) {
    curl_easy_setopt(easy, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE, static_cast<long>(json.size()));
    curl_easy_setopt(easy, CURLOPT_COPYPOSTFIELDS, std::string(json).c_str());
  }
  const CURLcode code = curl_easy_perform(easy);
  long status = 0;
  curl_easy_getinfo(easy, CURLINFO_RESPONSE_CODE, &status);
  curl_easy_cleanup(easy);
  curl_slist_free_all(headers);
  if (code != CURLE_OK) throw std::runtime_error(std::string("emulator control failed: ") + curl_easy_strerror(code));
  if (status < 200 || status > 299) {
    throw std::runtime_error("emulator control " + std::string(method) + " " + std::string(path) + " answered " +
                             std::to_string(status) + ": " + body);
  }
  return body;
}

std::string EmulatorProcess::ControlGet(std::string_view path) { return Control("GET", path, {}); }

std::string EmulatorProcess::ControlPost(std::string_view path, std::string_view json) {
  return Control("POST", path, json);
}

void EmulatorProcess::ControlDelete(std::string_view path) { Control("DELETE", path, {}); }
