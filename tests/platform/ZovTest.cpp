#include "platform/Zov.h"

#include <gtest/gtest.h>

TEST(Smoke, Builds) { EXPECT_EQ(Zov::String("abc").bytes(), 3u); }
