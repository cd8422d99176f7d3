// Logging: level filtering, sinks swapped under load, the environment's stderr sink, JSON quoting.

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <mutex>
#include <thread>
#include <vector>

#include "kelcore/Logging.h"

namespace {

using namespace kelcore::logging;

Record Make(Level level, std::string message) {
  Record record;
  record.level = level;
  record.category = "kelcoretest";
  record.message = std::move(message);
  return record;
}

TEST(Logging, SinkSeesOnlyTheLevelsItAskedFor) {
  std::vector<Record> captured;
  SetSink([&](const Record& r) { captured.push_back(r); }, Level::Info);
  EXPECT_TRUE(IsLoggingEnabled(Level::Info));
  EXPECT_FALSE(IsLoggingEnabled(Level::Debug));
  EXPECT_TRUE(IsTraceEnabled("ostriolib", 3));
  EXPECT_FALSE(IsTraceEnabled("ostriolib", 4));

  Log(Make(Level::Warning, "kept"));
  Log(Make(Level::Debug, "dropped"));
  Trace("ostriolib", 3, "traced");
  Trace("ostriolib", 5, "too detailed");
  ASSERT_EQ(captured.size(), 2u);
  EXPECT_EQ(captured[0].message, "kept");
  EXPECT_TRUE(captured[1].isTrace);
  EXPECT_EQ(captured[1].category, "ostriolib");

  SetSink({});
  EXPECT_FALSE(IsLoggingEnabled(Level::Error));
  EXPECT_FALSE(IsTraceEnabled("ostriolib", 1));
  Log(Make(Level::Error, "nowhere"));
  EXPECT_EQ(captured.size(), 2u);
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
  constexpr int kThreads = 4, kEach = 500;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([] {
      for (int k = 0; k < kEach; ++k) Log(Make(Level::Error, "x"));
    });
  }
  for (auto& thread : threads) thread.join();
  SetSink({});
  EXPECT_EQ(first + second, kThreads * kEach);
  EXPECT_GE(first.load(), 1);
}

void LogToStderrFromEnvironment() {
  setenv("OSTRIOLIB_LOG", "debug", 1);
  // The first use reads the environment.
  const bool levels = IsTraceEnabled("kelcoretest", 4) && !IsTraceEnabled("kelcoretest", 5);
  Record record = Make(Level::Debug, "two words");
  record.fields = {{"id", "a\"b"}, {"n", "1"}};
  Log(std::move(record));
  Log(Make(Level::Trace, "not at debug"));
  std::exit(levels ? 0 : 1);
}

void StaySilentWithoutEnvironment() {
  unsetenv("OSTRIOLIB_LOG");
  const bool off = !IsLoggingEnabled(Level::Error) && !IsTraceEnabled("kelcoretest", 1);
  Log(Make(Level::Error, "must not appear"));
  std::exit(off ? 0 : 1);
}

TEST(Logging, EnvironmentInstallsAStderrSinkAndNothingIsWrittenWithoutIt) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  EXPECT_EXIT(LogToStderrFromEnvironment(), ::testing::ExitedWithCode(0),
              "debug kelcoretest: two words id=\"a\\\\\"b\" n=\"1\"\n$");
  EXPECT_EXIT(StaySilentWithoutEnvironment(), ::testing::ExitedWithCode(0), "^$");
}

TEST(Logging, QuoteJSONEscapesWhatJSONRequires) {
  EXPECT_EQ(QuoteJSON("plain"), "\"plain\"");
  EXPECT_EQ(QuoteJSON("say \"hi\"\\ \n\t"), R"("say \"hi\"\\ \n\t")");
  EXPECT_EQ(QuoteJSON(std::string_view("\x01\x1f", 2)), R"("\u0001\u001f")");
  EXPECT_EQ(QuoteJSON("caf\xC3\xA9"), "\"caf\xC3\xA9\"");
}

}  // namespace
