// A Content-Range decides where a partial answer's bytes go: it is read whole or refused.

#include <gtest/gtest.h>

#include <string>

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

}  // namespace
