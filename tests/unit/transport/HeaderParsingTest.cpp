// A Content-Range decides where a partial answer's bytes go: it is read whole or refused. An
// HTTP/2 answer's fields become its header map only when asked for, from any thread.

#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "kelnet/Response.h"
#include "kelnet/internal/HeaderParsing.h"

namespace {

std::string Read(const char* text) {
  const auto range = kelnet::internal::ParseContentRange(text);
  if (!range) return "refused";
  return std::to_string(range->first) + "-" + std::to_string(range->last) + "/" +
         (range->total ? std::to_string(*range->total) : "*");
}

TEST(HeaderParsingTest, ContentRangeIsReadWholeOrRefused) {
  EXPECT_EQ(Read("bytes 0-9/10"), "0-9/10");
  EXPECT_EQ(Read(" bytes 10-19/* "), "10-19/*");
  EXPECT_EQ(Read("bytes 0-0/18446744073709551615"), "0-0/18446744073709551615");
  // The last byte must lie inside the total: "0-10/10" names an eleventh byte of ten.
  for (const char* bad : {"bytes 0-10/10", "bytes 19-10/100", "bytes */100", "bytes 0-9", "bytes -1-9/10",
                          "bytes 0-9/-1", "bytes +0-9/10", "bytes 0-9/1x", "items 0-9/10",
                          "bytes 0-18446744073709551616/*", "bytes 0 - 9/10x", "", "bytes ", "bytes 5/4-9"}) {
    EXPECT_EQ(Read(bad), "refused") << bad;
  }
}

TEST(HeaderParsingTest, ReceivedFieldsBecomeTheMapInArrivalOrder) {
  using namespace std::string_literals;
  const kelnet::Response response(200, kelnet::Response::ReceivedFields{"via\0b\0empty\0\0via\0a\0x-last\0z\0"s}, "{}",
                                  "2");
  // Asked for by several threads at once: made once, the same map for all.
  std::vector<const kelnet::HeaderMap*> seen(4);
  std::vector<std::thread> threads;
  for (auto& each : seen) threads.emplace_back([&] { each = &response.Headers(); });
  for (auto& thread : threads) thread.join();
  for (auto* each : seen) EXPECT_EQ(each, seen.front());
  std::string all;
  for (const auto& [name, value] : response.Headers()) all += name.ToStdString() + "=" + value.ToStdString() + ";";
  EXPECT_EQ(all, "empty=;via=b;via=a;x-last=z;");
  EXPECT_EQ(response.FirstHeader("via"), "b");
  EXPECT_EQ(response.LastHeader("via"), "a");
  EXPECT_TRUE(response.FirstHeader("absent").empty());
}

}  // namespace
