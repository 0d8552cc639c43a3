#include <gtest/gtest.h>

#include <algorithm>

#include "platform/Zov.h"

namespace {

class TraceTest : public ::testing::Test {
 protected:
  TraceTest() {
    previous_ = Zov::traceSinkIs([this](const Zov::TraceRecord& r) {
      records_.push_back(r.handle + " " + std::to_string(r.level) + " " + r.file + " " +
                         r.function + ": " + r.text);
    });
  }
  ~TraceTest() override { Zov::traceSinkIs(std::move(previous_)); }

  Zov::TraceSink previous_;
  std::vector<std::string> records_;
};

TEST_F(TraceTest, DisabledLevelsBuildNothingAndEnabledOnesReachTheSink) {
  Zov::TraceHandle handle("TraceTestHandle", false);
  int built = 0;
  auto text = [&] { return ++built, "text"; };
  ZOV_TRACE(handle, 8, "/src/Sm", "handle") << text();
  handle.levelIs(8, true);
  ZOV_TRACE(handle, 7, "/src/Sm", "handle") << text();
  ZOV_TRACE(handle, 8, "/src/Sm", "handle") << text() << " n=" << 3;
  handle.levelIs(8, false);
  ZOV_TRACE(handle, 8, "/src/Sm", "handle") << text();
  EXPECT_EQ(built, 1);
  EXPECT_EQ(records_, std::vector<std::string>{"TraceTestHandle 8 /src/Sm handle: text n=3"});
  EXPECT_THROW(handle.levelIs(16, true), Zov::RangeException);
  EXPECT_EQ(handle.levels(), 0u);
  EXPECT_TRUE(Zov::TraceHandle("TraceTestAllOn", true).enabled(15));
}

TEST_F(TraceTest, LevelsAskedForByNameApplyWhenTheHandleAppears) {
  Zov::TraceHandle::levelsByNameIs("TraceTestLater", 1u << 8 | 1u << 0);
  {
    Zov::TraceHandle later("TraceTestLater", false);
    EXPECT_EQ(later.levels(), 1u << 8 | 1u << 0);
    // Asked for while it exists, the levels apply at once.
    Zov::TraceHandle::levelsByNameIs("TraceTestLater", 1u << 3);
    EXPECT_EQ(later.levels(), 1u << 3);
  }
  EXPECT_EQ(Zov::TraceHandle::find("TraceTestLater"), nullptr);
  // Gone, but remembered as made; a name only asked for is not.
  Zov::TraceHandle::levelsByNameIs("TraceTestNever", 1);
  const std::vector<std::string> made = Zov::TraceHandle::namesMade();
  EXPECT_NE(std::find(made.begin(), made.end(), "TraceTestLater"), made.end());
  EXPECT_EQ(std::find(made.begin(), made.end(), "TraceTestNever"), made.end());
}

}  // namespace
