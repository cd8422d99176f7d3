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
#include <unistd.h>

#include "kelcore/Configuration.h"
#include "kelcore/KelException.h"
#include "kelcore/Logging.h"
#include "ScratchFolders.h"

namespace {

using namespace kelcore::config;
using kelcore::kel_exception;
using kelcore::kErrorOperationFailed;
namespace fs = std::filesystem;

constexpr const char* kKey = "kelcoretest.answer";
constexpr const char* kVariable = "KELCORETEST_ANSWER";

class DebugDatabaseTest : public ::testing::Test {
 protected:
  void SetUp() override {
    fs::create_directories(root_ / "xdg" / "ostriolib");
    fs::create_directories(root_ / "home" / ".config" / "ostriolib");
  }
  static void Write(const fs::path& file, const std::string& text) { std::ofstream(file, std::ios::binary) << text; }
  static std::string Get(std::string_view fallback = "fallback") {
    return DebugDatabase::Instance().GetEntry(kKey, fallback).ToStdString();
  }

  TemporaryDirectory scratch_;
  const fs::path root_ = scratch_.Path();
  // Put back as they were, so tests sharing this process see the environment they expect.
  ScopedEnvironment environment_{{"XDG_CONFIG_HOME", (root_ / "xdg").string()},
                                 {"HOME", (root_ / "home").string()},
                                 {"OSTRIOLIB_DEBUG_DB", (root_ / "db.conf").string()},
                                 {kVariable, std::nullopt}};
};

TEST_F(DebugDatabaseTest, EnvironmentThenNamedFileThenConfigFileThenFallback) {
  EXPECT_EQ(DebugDatabase::EnvironmentNameForKey("ostriolib.environment"), "OSTRIOLIB_ENVIRONMENT");
  EXPECT_EQ(Get(), "fallback");

  Write(root_ / "home" / ".config" / "ostriolib" / "debug.conf", "kelcoretest.answer=home\n");
  unsetenv("XDG_CONFIG_HOME");
  EXPECT_EQ(Get(), "home");
  setenv("XDG_CONFIG_HOME", (root_ / "xdg").c_str(), 1);
  EXPECT_EQ(Get(), "fallback") << "XDG_CONFIG_HOME replaces ~/.config, it does not add to it";

  Write(root_ / "xdg" / "ostriolib" / "debug.conf", "kelcoretest.answer=config\n");
  EXPECT_EQ(Get(), "config");
  Write(root_ / "db.conf", "other.key=1\n");
  EXPECT_EQ(Get(), "config") << "a named file without the key falls through";
  Write(root_ / "db.conf", "kelcoretest.answer=named\n");
  EXPECT_EQ(Get(), "named");
  setenv(kVariable, "environment", 1);
  EXPECT_EQ(Get(), "environment");
  setenv(kVariable, "", 1);
  EXPECT_EQ(Get(), "") << "a variable that is set wins even when empty";
  unsetenv(kVariable);

  setenv("OSTRIOLIB_DEBUG_DB", (root_ / "missing.conf").c_str(), 1);
  EXPECT_EQ(Get(), "config");
}

TEST_F(DebugDatabaseTest, FileIsReadAfreshAndToleratesEditorHabits) {
  const auto file = root_ / "db.conf";
  Write(file, "kelcoretest.answer=1\n");
  EXPECT_EQ(Get(), "1");
  Write(file, "kelcoretest.answer=2\n");
  EXPECT_EQ(Get(), "2") << "a cached value survived an edit";

  Write(file,
        "\xEF\xBB\xBF# comment: kelcoretest.answer=commented\r\n"
        "\r\n"
        "no equals sign here\r\n"
        "  kelcoretest.answer  =  first value  \r\n"
        "kelcoretest.answerx=wrong key\r\n"
        "kelcoretest.answer = a=b \r\n");
  EXPECT_EQ(Get(), "a=b") << "last occurrence, split at the first '=', trimmed, CR dropped";

  fs::remove(file);
  fs::create_directory(file);  // unreadable as a file
  EXPECT_EQ(Get(), "fallback");
}

TEST_F(DebugDatabaseTest, UnusableFilesArePassedOverWithAWarningAndNeverBlock) {
  Write(root_ / "xdg" / "ostriolib" / "debug.conf", "kelcoretest.answer=config\n");
  std::vector<kelcore::logging::Record> warnings;
  kelcore::logging::SetSink([&](const kelcore::logging::Record& r) { warnings.push_back(r); },
                            kelcore::logging::Level::Warning);
  const auto warnedAbout = [&](const fs::path& path, std::string_view problem) {
    if (warnings.size() != 1) return false;
    const auto& fields = warnings.front().fields;
    const bool named = fields.size() == 3 && fields[0].second == path.string() && fields[1].second == problem &&
                       !fields[2].second.empty();
    warnings.clear();
    return named;
  };

  const auto named = root_ / "db.conf";  // not created yet
  EXPECT_EQ(Get(), "config");
  EXPECT_TRUE(warnedAbout(named, "missing"));

  // A FIFO nobody writes to: opening it for reading the usual way waits for a writer forever.
  ASSERT_EQ(::mkfifo(named.c_str(), 0600), 0);
  EXPECT_EQ(Get(), "config");
  EXPECT_TRUE(warnedAbout(named, "unreadable"));
  fs::remove(named);

  // The null device is the usual spelling of "no entries", not a mistake.
  setenv("OSTRIOLIB_DEBUG_DB", "/dev/null", 1);
  EXPECT_EQ(Get(), "config");
  EXPECT_TRUE(warnings.empty());
  setenv("OSTRIOLIB_DEBUG_DB", named.c_str(), 1);

  // Up to 1 MiB is read; a byte more and the file is passed over.
  const std::string entry = "kelcoretest.answer=huge\n";
  Write(named, entry + std::string((1 << 20) - entry.size(), '#'));
  EXPECT_EQ(Get(), "huge");
  EXPECT_TRUE(warnings.empty());
  Write(named, entry + std::string((1 << 20) - entry.size() + 1, '#'));
  EXPECT_EQ(Get(), "config");
  EXPECT_TRUE(warnedAbout(named, "unreadable"));

  // The default file is optional: its absence is not worth a warning.
  unsetenv("OSTRIOLIB_DEBUG_DB");
  fs::remove(root_ / "xdg" / "ostriolib" / "debug.conf");
  EXPECT_EQ(Get(), "fallback");
  EXPECT_TRUE(warnings.empty());
  kelcore::logging::SetSink({});
}

// Process begin happens once per process, so each run gets a child process of its own.
class ProcessLifecycle : public ::testing::Test {
 protected:
  void SetUp() override { GTEST_FLAG_SET(death_test_style, "threadsafe"); }
};

bool Check(bool condition, const char* what) {
  if (!condition) std::fprintf(stderr, "failed: %s\n", what);
  return condition;
}
#define CHECK(condition) ok = Check((condition), #condition) && ok

void RunLifecycle() {
  std::vector<std::string> events;  // only the thread that wins BeginProcess writes it
  std::string seenName;
  ProcessBeginEndNotificationRegistrar first(
      [&](const detail::Parameter* parameters, std::size_t count) {
        events.push_back("begin1:" + std::to_string(count));
        for (std::size_t i = 0; i < count; ++i) events.push_back(parameters[i].name);
        seenName = GetCompanyName().ToStdString();
      },
      [&] { events.push_back("end1"); });
  ProcessBeginEndNotificationRegistrar second([&](const detail::Parameter*, std::size_t) { events.push_back("begin2"); },
                                              [&] { events.push_back("end2"); });
  std::atomic<int> okRuns{0};
  InitializerRegistrar good("Good", 4, [&] {
    events.push_back("init:Good");
    ++okRuns;
    return true;
  });
  InitializerRegistrar refuses("Refuses", 4, [&] {
    events.push_back("init:Refuses");
    return false;
  });
  InitializerRegistrar throws("Throws", 4, [&]() -> bool {
    events.push_back("init:Throws");
    throw kel_exception(kErrorOperationFailed, "Ostrio client name not set");
  });

  const detail::Parameter parameters[] = {
      {"ostriolib.OstrioClientName", detail::kParameterTypeString, "Editor", 0},
      {"ostriolib.Other", detail::kParameterTypeInteger, nullptr, 3},
  };
  HostInformation host{"Northwind Media", "25.1", "77"};
  std::atomic<int> winners{0};
  std::vector<std::thread> racers;
  for (int t = 0; t < 4; ++t) {
    racers.emplace_back([&] {
      if (BeginProcess(host, parameters, 2)) ++winners;
    });
  }
  for (auto& racer : racers) racer.join();
  EndProcess();
  EndProcess();

  bool ok = true;
  CHECK(winners == 1);
  CHECK(okRuns == 1);
  CHECK(ProcessBegun());
  CHECK(seenName == "Northwind Media");
  CHECK(GetClientVersion() == std::string_view("25.1"));
  CHECK(GetClientBuildNumber() == std::string_view("77"));
  CHECK(!InitializerFailed("Good"));
  CHECK(InitializerFailed("Refuses"));
  CHECK(InitializerFailed("Throws"));
  CHECK(!InitializerFailed("Unknown"));
  const std::vector<std::string> expected{"begin1:2", "ostriolib.OstrioClientName", "ostriolib.Other", "begin2",
                                          "init:Good", "init:Refuses", "init:Throws", "end2", "end1"};
  CHECK(events == expected);
  std::exit(ok ? 0 : 1);
}

TEST_F(ProcessLifecycle, BeginCallbacksThenInitialisersOnceInOrderThenEndsReversed) {
  EXPECT_EXIT(RunLifecycle(), ::testing::ExitedWithCode(0), "");
}

}  // namespace
