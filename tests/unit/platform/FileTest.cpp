// File::FullPath: relative paths resolve against the working directory, dot segments go, and
// non-ASCII names survive the trip to UTF-16.

#include <gtest/gtest.h>

#include <filesystem>

#include "kelcore/File.h"

namespace {

using kelcore::filesupport::File;

TEST(File, FullPathIsAbsoluteNormalisedUTF16) {
  const auto cwd = std::filesystem::current_path().lexically_normal().u16string();
  EXPECT_EQ(File("media/./clips/../take 1.mov").FullPath(), cwd + u"/media/take 1.mov");
  EXPECT_EQ(File("/srv//ostrio/../caf\xC3\xA9.mov").FullPath(), u"/srv/caf\u00e9.mov");
  EXPECT_EQ(File().FullPath(), u"");
}

}  // namespace
