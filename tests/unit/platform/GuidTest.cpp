#include <gtest/gtest.h>

#include <unordered_set>

#include "kelcore/Guid.h"

using kelcore::utility::Guid;

TEST(Guid, ParsesAnyCaseWithOptionalBracesAndWritesLowerCase) {
  const auto upper = Guid::TryParse("6F9619FF-8B86-D011-B42D-00C04FC964FF");
  ASSERT_TRUE(upper);
  EXPECT_EQ(upper->Bytes()[0], 0x6F);
  EXPECT_EQ(upper->Bytes()[15], 0xFF);
  EXPECT_EQ(upper->ToString(), "6f9619ff-8b86-d011-b42d-00c04fc964ff");
  EXPECT_EQ(Guid("{6f9619ff-8b86-d011-b42d-00c04fc964ff}"), *upper);

  EXPECT_TRUE(Guid::TryParse("00000000-0000-0000-0000-000000000000")->IsNil());
  for (const char* bad : {"", "6f9619ff-8b86-d011-b42d-00c04fc964f", "6f9619ff-8b86-d011-b42d-00c04fc964fff",
                          "6f9619ff8b86-d011-b42d-00c04fc964ff0", "6f9619ff-8b86-d011-b42d_00c04fc964ff",
                          "6f9619fg-8b86-d011-b42d-00c04fc964ff", "{6f9619ff-8b86-d011-b42d-00c04fc964ff",
                          "(6f9619ff-8b86-d011-b42d-00c04fc964ff)", "{6f9619ff-8b86-d011-b42d-00c04fc964ff)", " 6f9619ff-8b86-d011-b42d-00c04fc964f",
                          "6f9619ff-8b86-d011-b42d-00c04fc964+f", "6f9619ff-8b86-d011-b4-d-00c04fc964ff"}) {
    EXPECT_FALSE(Guid::TryParse(bad)) << bad;
    EXPECT_TRUE(Guid(bad).IsNil()) << bad;
  }
}

TEST(Guid, CreateUniqueGivesDistinctVersion4Guids) {
  std::unordered_set<Guid> seen;
  for (int i = 0; i < 2000; ++i) {
    const Guid guid = Guid::CreateUnique();
    EXPECT_EQ(guid.Bytes()[6] >> 4, 4);
    EXPECT_EQ(guid.Bytes()[8] & 0xC0, 0x80);
    EXPECT_TRUE(seen.insert(guid).second);
  }
}
