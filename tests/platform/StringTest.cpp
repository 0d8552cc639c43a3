#include <gtest/gtest.h>

#include "platform/L3.h"
#include "platform/Zov.h"

namespace {

TEST(StringTest, CopiesShareDataAndCompareByText) {
  Zov::String a("INPUT");
  Zov::String b = a;
  EXPECT_TRUE(b.sharesDataWith(a));
  EXPECT_EQ(Zov::String("INPUT"), a);
  EXPECT_FALSE(Zov::String("INPUT").sharesDataWith(a));
  EXPECT_EQ(a.bytes(), 5u);
  EXPECT_TRUE(Zov::String().empty());
  EXPECT_EQ(Zov::String("a\0b", 3).bytes(), 3u);
}

TEST(StringTest, VrfNameIsBoundedAtOneHundredBytes) {
  EXPECT_EQ(L3::VrfName::defaultVrf(), Zov::String("default"));
  EXPECT_EQ(L3::VrfName(std::string(100, 'v')).bytes(), 100u);
  try {
    L3::VrfName tooLong(std::string(101, 'v'));
    FAIL() << "a 101-byte VRF name was accepted";
  } catch (const Zov::RangeException& e) {
    EXPECT_STREQ(e.what(), "Zov::String::bytes > maxLength() not allowed");
  }
}

}  // namespace
