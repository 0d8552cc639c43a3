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
  // Beside its fixed text, the error carries what a report needs: the start
  // of the value, its length and the limit.
  try {
    L3::VrfName(std::string(60, 'a') + std::string(90, 'b'));
    ADD_FAILURE() << "a 150-byte VRF name was accepted";
  } catch (const Zov::RangeException& e) {
    EXPECT_EQ(e.value(), std::string(Zov::RangeException::kValueKept, 'a'));
    EXPECT_EQ(e.length(), 150u);
    EXPECT_EQ(e.limit(), 100u);
  }
}

}  // namespace
