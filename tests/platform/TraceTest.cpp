#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/Zov.h"

namespace {

using ::testing::ElementsAre;

class TraceTest : public ::testing::Test {
 protected:
  TraceTest() {
    previous_ = Zov::traceSinkIs([this](const Zov::TraceRecord& r) { records_.push_back(r); });
  }
  ~TraceTest() override { Zov::traceSinkIs(std::move(previous_)); }

  Zov::TraceSink previous_;
  std::vector<Zov::TraceRecord> records_;
};

TEST_F(TraceTest, DisabledLevelsBuildNothingAndEnabledOnesReachTheSink) {
  Zov::TraceHandle handle("TraceTestHandle", false);
  int built = 0;
  auto text = [&] {
    ++built;
    return "void Ns::Sm::handleLinkChange()";
  };
  ZOV_TRACE(handle, 8, "/src/Ns/Sm", "handleLinkChange") << text();
  EXPECT_EQ(built, 0);
  EXPECT_TRUE(records_.empty());

  handle.levelIs(8, true);
  EXPECT_FALSE(handle.enabled(7));
  EXPECT_FALSE(handle.enabled(9));
  ZOV_TRACE(handle, 7, "/src/Ns/Sm", "handleLinkChange") << text();
  ZOV_TRACE(handle, 8, "/src/Ns/Sm", "handleLinkChange") << text() << " n=" << 3;
  EXPECT_EQ(built, 1);
  ASSERT_EQ(records_.size(), 1u);
  const Zov::TraceRecord& r = records_[0];
  EXPECT_EQ(r.handle, "TraceTestHandle");
  EXPECT_EQ(r.level, 8u);
  EXPECT_EQ(r.file, "/src/Ns/Sm");
  EXPECT_EQ(r.function, "handleLinkChange");
  EXPECT_EQ(r.text, "void Ns::Sm::handleLinkChange() n=3");

  handle.levelIs(8, false);
  ZOV_TRACE(handle, 8, "/src/Ns/Sm", "handleLinkChange") << text();
  EXPECT_EQ(built, 1);
  EXPECT_THROW(handle.levelIs(16, true), Zov::RangeException);
  EXPECT_EQ(handle.levels(), 0u);

  Zov::TraceHandle allOn("TraceTestAllOn", true);
  EXPECT_TRUE(allOn.enabled(0));
  EXPECT_TRUE(allOn.enabled(15));
}

TEST_F(TraceTest, LevelsAskedForByNameApplyWhenTheHandleAppears) {
  EXPECT_EQ(Zov::TraceHandle::find("TraceTestLater"), nullptr);
  Zov::TraceHandle::levelsByNameIs("TraceTestLater", 1u << 8 | 1u << 0);
  {
    Zov::TraceHandle later("TraceTestLater", false);
    EXPECT_EQ(Zov::TraceHandle::find("TraceTestLater"), &later);
    EXPECT_TRUE(later.enabled(0));
    EXPECT_TRUE(later.enabled(8));
    EXPECT_FALSE(later.enabled(1));
    ZOV_TRACE(later, 0, "/src/Plugin", "init") << "Loading";

    // Asked for while it exists, the levels apply at once.
    Zov::TraceHandle::levelsByNameIs("TraceTestLater", 1u << 3);
    EXPECT_EQ(later.levels(), 1u << 3);
  }
  EXPECT_EQ(Zov::TraceHandle::find("TraceTestLater"), nullptr);
  std::vector<std::string> texts;
  for (const auto& r : records_) texts.push_back(r.handle + "/" + r.text);
  EXPECT_THAT(texts, ElementsAre("TraceTestLater/Loading"));
}

}  // namespace
