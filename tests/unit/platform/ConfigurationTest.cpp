// Process configuration: the debug database's precedence and freshness, and process begin/end.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include <sys/stat.h>

#include "kelcore/Configuration.h"
#include "kelcore/KelException.h"
#include "LogCapture.h"
#include "ScratchFolders.h"

using namespace kelcore::config;
namespace fs = std::filesystem;

class DebugDatabaseTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(root_ / "xdg" / "ostriolib");
    fs::create_directories(root_ / "home" / ".config" / "ostriolib");
  }
  static void Write(const fs::path& file, const std::string& text) { std::ofstream(file, std::ios::binary) << text; }
  static std::string Get() { return DebugDatabase::Instance().GetEntry("kelcoretest.answer", "fallback").ToStdString(); }

  TemporaryDirectory scratch_;
  const fs::path root_ = scratch_.Path();
  const fs::path named_ = root_ / "db.conf";
  const fs::path xdgFile_ = root_ / "xdg" / "ostriolib" / "debug.conf";
  // Put back as they were, so tests sharing this process see the environment they expect.
  ScopedEnvironment environment_{{"XDG_CONFIG_HOME", (root_ / "xdg").string()},
                                 {"HOME", (root_ / "home").string()},
                                 {"OSTRIOLIB_DEBUG_DB", named_.string()},
                                 {"KELCORETEST_ANSWER", std::nullopt}};
};

TEST_F(DebugDatabaseTest, EnvironmentThenNamedFileThenConfigFileThenFallback) {
  EXPECT_EQ(DebugDatabase::EnvironmentNameForKey("ostriolib.environment"), "OSTRIOLIB_ENVIRONMENT");
  Write(root_ / "home" / ".config" / "ostriolib" / "debug.conf", "kelcoretest.answer=home\n");
  unsetenv("XDG_CONFIG_HOME");
  EXPECT_EQ(Get(), "home");
  setenv("XDG_CONFIG_HOME", (root_ / "xdg").c_str(), 1);
  EXPECT_EQ(Get(), "fallback") << "XDG_CONFIG_HOME replaces ~/.config, it does not add to it";

  Write(xdgFile_, "kelcoretest.answer=config\n");
  EXPECT_EQ(Get(), "config");
  Write(named_, "other.key=1\n");
  EXPECT_EQ(Get(), "config") << "a named file without the key falls through";
  Write(named_, "kelcoretest.answer=named\n");
  EXPECT_EQ(Get(), "named") << "a cached value survived an edit";
  setenv("KELCORETEST_ANSWER", "", 1);
  EXPECT_EQ(Get(), "") << "a variable that is set wins even when empty";
  unsetenv("KELCORETEST_ANSWER");

  Write(named_,
        "\xEF\xBB\xBF# comment: kelcoretest.answer=commented\r\n"
        "\r\n"
        "no equals sign here\r\n"
        "  kelcoretest.answer  =  first value  \r\n"
        "kelcoretest.answerx=wrong key\r\n"
        "kelcoretest.answer = a=b \r\n");
  EXPECT_EQ(Get(), "a=b") << "last occurrence, split at the first '=', trimmed, CR dropped";
}

TEST_F(DebugDatabaseTest, UnusableFilesArePassedOverWithAWarningAndNeverBlock) {
  Write(xdgFile_, "kelcoretest.answer=config\n");
  // Falls through to the next source, with one warning naming the file, the problem and the
  // system's reason (or with none).
  const auto expectFallsThrough = [&](std::string problem, const char* next = "config") {
    LogCapture log;
    EXPECT_EQ(Get(), next);
    std::string warned;  // "<file> <problem>;" for each warning that also gives the system's reason
    for (const auto& record : log.Records()) {
      const auto& f = record.fields;
      warned += f.size() == 3 && !f[2].second.empty() ? f[0].second + " " + f[1].second + ";" : "?;";
    }
    EXPECT_EQ(warned, problem.empty() ? "" : named_.string() + " " + problem + ";");
  };
  expectFallsThrough("missing");
  // A FIFO nobody writes to: opening it for reading the usual way waits for a writer forever.
  ASSERT_EQ(::mkfifo(named_.c_str(), 0600), 0);
  expectFallsThrough("unreadable");
  fs::remove(named_);
  fs::create_directory(named_);
  expectFallsThrough("unreadable");
  fs::remove(named_);

  // Up to 1 MiB is read; a byte more and the file is passed over.
  const std::string entry = "kelcoretest.answer=huge\n";
  Write(named_, entry + std::string((1 << 20) - entry.size(), '#'));
  EXPECT_EQ(Get(), "huge");
  Write(named_, entry + std::string((1 << 20) - entry.size() + 1, '#'));
  expectFallsThrough("unreadable");

  // The null device is the usual spelling of "no entries", not a mistake.
  setenv("OSTRIOLIB_DEBUG_DB", "/dev/null", 1);
  expectFallsThrough("");
  // The default file is optional: its absence is not worth a warning.
  unsetenv("OSTRIOLIB_DEBUG_DB");
  fs::remove(xdgFile_);
  expectFallsThrough("", "fallback");
}

// Process begin happens once per process, so the run gets a child process of its own, which
// lists what happened on stderr and exits 1 when it is not what should have happened.
static void RunLifecycle() {
  std::vector<std::string> events;  // only the thread that wins BeginProcess writes it
  const auto note = [&](std::string event, bool result = true) {
    return [&events, event, result] {
      events.push_back(event);
      return result;
    };
  };
  ProcessBeginEndNotificationRegistrar first(
      [&](const detail::Parameter* parameters, std::size_t count) {
        events.push_back("begin1:" + std::to_string(count) + ":" + GetCompanyName().ToStdString());
        for (std::size_t i = 0; i < count; ++i) events.push_back(parameters[i].name);
      },
      note("end1"));
  ProcessBeginEndNotificationRegistrar second(
      [&](const detail::Parameter*, std::size_t) { events.push_back("begin2"); }, note("end2"));
  InitializerRegistrar good("Good", 4, note("init:Good"));
  InitializerRegistrar refuses("Refuses", 4, note("init:Refuses", false));
  InitializerRegistrar throws("Throws", 4, [&]() -> bool {
    events.push_back("init:Throws");
    throw kelcore::kel_exception(kelcore::kErrorOperationFailed, "Ostrio client name not set");
  });
  const detail::Parameter parameters[] = {
      {"ostriolib.OstrioClientName", detail::kParameterTypeString, "Editor", 0},
      {"ostriolib.Other", detail::kParameterTypeInteger, nullptr, 3},
  };
  std::atomic<int> winners{0};
  std::vector<std::thread> racers;
  for (int t = 0; t < 4; ++t) {
    racers.emplace_back([&] { winners += BeginProcess({"Northwind Media", "25.1", "77"}, parameters, 2); });
  }
  for (auto& racer : racers) racer.join();
  EndProcess();
  EndProcess();

  const std::vector<std::string> expected{"begin1:2:Northwind Media", "ostriolib.OstrioClientName", "ostriolib.Other",
                                          "begin2", "init:Good", "init:Refuses", "init:Throws", "end2", "end1"};
  const bool ok = winners == 1 && ProcessBegun() && events == expected && !InitializerFailed("Good") &&
                  InitializerFailed("Refuses") && InitializerFailed("Throws") && !InitializerFailed("Unknown");
  for (const auto& event : events) std::fprintf(stderr, "%s\n", event.c_str());
  std::exit(ok ? 0 : 1);
}

TEST(ProcessLifecycle, BeginCallbacksThenInitialisersOnceInOrderThenEndsReversed) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(RunLifecycle(), ::testing::ExitedWithCode(0), "");
}
