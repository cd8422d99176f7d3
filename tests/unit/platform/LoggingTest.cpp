// Logging: level filtering, sinks swapped under load, the environment's stderr sink, JSON quoting.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <thread>
#include <vector>

#include "kelcore/Logging.h"

using namespace kelcore::logging;

static Record Make(Level level, std::string message, std::vector<std::pair<std::string, std::string>> fields = {}) {
  Record record;
  record.level = level;
  record.category = "kelcoretest";
  record.message = std::move(message);
  record.fields = std::move(fields);
  return record;
}

TEST(Logging, SinkSeesOnlyTheLevelsItAskedFor) {
  std::vector<Record> captured;
  SetSink([&](const Record& r) { captured.push_back(r); }, Level::Info);
  EXPECT_FALSE(IsLoggingEnabled(Level::Debug));
  Log(Make(Level::Warning, "kept"));
  Log(Make(Level::Debug, "dropped"));
  Trace("ostriolib", 3, "traced");
  Trace("ostriolib", 4, "too detailed");
  SetSink({});
  EXPECT_FALSE(IsLoggingEnabled(Level::Error));
  ASSERT_EQ(captured.size(), 2u);
  EXPECT_EQ(captured[0].message, "kept");
  EXPECT_TRUE(captured[1].isTrace);
  EXPECT_EQ(captured[1].category, "ostriolib");
}

TEST(Logging, EveryRecordReachesExactlyOneSinkWhileSinksAreSwapped) {
  std::atomic<int> first{0}, second{0};
  std::atomic<bool> swapped{false};
  Sink toSecond = [&](const Record&) { ++second; };
  // The first sink replaces itself from inside its own call: the sink runs outside any lock.
  SetSink([&](const Record&) {
    ++first;
    if (!swapped.exchange(true)) SetSink(toSecond);
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([] {
      for (int k = 0; k < 500; ++k) Log(Make(Level::Error, "x"));
    });
  }
  for (auto& thread : threads) thread.join();
  SetSink({});
  EXPECT_EQ(first + second, 4 * 500);
  EXPECT_GE(first.load(), 1);
}

// Runs in a child process: the environment is read once, at the first use.
static void LogWithEnvironment(const char* level) {
  level ? setenv("OSTRIOLIB_LOG", level, 1) : unsetenv("OSTRIOLIB_LOG");
  Log(Make(Level::Debug, "two words", {{"id", "a\"b"}, {"n", "1"}}));
  Log(Make(Level::Trace, "not at debug"));
  std::exit(IsTraceEnabled("kelcoretest", 4) == (level != nullptr) && !IsTraceEnabled("kelcoretest", 5) ? 0 : 1);
}

TEST(Logging, EnvironmentInstallsAStderrSinkAndNothingIsWrittenWithoutIt) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(LogWithEnvironment("debug"), ::testing::ExitedWithCode(0),
              "debug kelcoretest: two words id=\"a\\\\\"b\" n=\"1\"\n$");
  EXPECT_EXIT(LogWithEnvironment(nullptr), ::testing::ExitedWithCode(0), "^$");
}

TEST(Logging, QuoteJSONEscapesWhatJSONRequires) {
  EXPECT_EQ(QuoteJSON("say \"hi\"\\ \n\t"), R"("say \"hi\"\\ \n\t")");
  EXPECT_EQ(QuoteJSON(std::string_view("\x01\x1f", 2)), R"("\u0001\u001f")");
  EXPECT_EQ(QuoteJSON("caf\xC3\xA9"), "\"caf\xC3\xA9\"");
}
