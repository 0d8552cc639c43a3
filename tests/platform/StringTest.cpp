#include <gtest/gtest.h>

#include "platform/L3.h"
#include "platform/Zov.h"
#include "tests/platform/PlatformTesting.h"

namespace {

TEST(StringTest, CopiesShareDataAndNamesAreBounded) {
  Zov::String a("INPUT");
  EXPECT_TRUE(Zov::String(a).sharesDataWith(a));
  EXPECT_EQ(Zov::String("INPUT"), a);
  EXPECT_EQ(Zov::String("a\0b", 3).bytes(), 3u);
  EXPECT_EQ(L3::VrfName(std::string(100, 'v')).bytes(), 100u);
  EXPECT_EQ(ZovTesting::whatOf<Zov::RangeException>([] { L3::VrfName(std::string(101, 'v')); }),
            "Zov::String::bytes > maxLength() not allowed");
}

}  // namespace
