// The rules by which an answer's head decides where bytes go: a Content-Range is read whole or
// refused, and header lines keep their values but not their blanks.

#include <gtest/gtest.h>

#include "kelnet/internal/HeaderParsing.h"

namespace {

using kelnet::internal::HeaderLine;
using kelnet::internal::ParseContentRange;
using kelnet::internal::ParseHeaderLine;

TEST(HeaderParsingTest, ContentRangeIsReadWholeOrRefused) {
  struct Row {
    const char* text;
    std::uint64_t first, last, total;  // total 0: "*"
  };
  for (const Row& row : {Row{"bytes 0-9/10", 0, 9, 10}, Row{" bytes 10-19/* ", 10, 19, 0},
                         Row{"bytes 0-0/18446744073709551615", 0, 0, 18446744073709551615ull}}) {
    const auto range = ParseContentRange(row.text);
    ASSERT_TRUE(range) << row.text;
    EXPECT_EQ(range->first, row.first) << row.text;
    EXPECT_EQ(range->last, row.last) << row.text;
    EXPECT_EQ(range->total.value_or(0), row.total) << row.text;
  }
  // The last byte must lie inside the total: "0-10/10" names an eleventh byte of ten.
  for (const char* bad : {"bytes 0-10/10", "bytes 19-10/100", "bytes */100", "bytes 0-9", "bytes -1-9/10",
                          "bytes 0-9/-1", "bytes +0-9/10", "bytes 0-9/1x", "items 0-9/10",
                          "bytes 0-18446744073709551616/*",
                          "bytes 0 - 9/10x", "", "bytes ", "bytes 5/4-9"}) {
    EXPECT_FALSE(ParseContentRange(bad)) << bad;
  }
}

TEST(HeaderParsingTest, HeaderLines) {
  auto status = ParseHeaderLine("HTTP/2 206 \r\n");
  EXPECT_EQ(status.kind, HeaderLine::Kind::Status);
  EXPECT_EQ(status.status, 206);
  EXPECT_EQ(ParseHeaderLine("HTTP/1.1 2x0 OK\r\n").status, 0);
  auto field = ParseHeaderLine("CoNtEnT-TyPe: \t application/json \t\r\n");
  EXPECT_EQ(field.kind, HeaderLine::Kind::Field);
  EXPECT_EQ(field.name, "content-type");
  EXPECT_EQ(field.value, "application/json");
  auto folded = ParseHeaderLine("  second part\r\n");
  EXPECT_EQ(folded.kind, HeaderLine::Kind::Continuation);
  EXPECT_EQ(folded.value, "second part");
  EXPECT_EQ(ParseHeaderLine("\r\n").kind, HeaderLine::Kind::End);
  EXPECT_EQ(ParseHeaderLine("no colon here\r\n").kind, HeaderLine::Kind::Other);
}

}  // namespace
