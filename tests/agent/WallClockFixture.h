// WallClockFixture: a fixture whose loop runs on the wall clock, as a live
// agent's does; its waits fail the test at a deadline rather than hang it. A
// fixture that overrides TearDown calls WallClockFixture::TearDown from it.
//
//   class MyTest : public WallClockFixture { ... };
//   ASSERT_TRUE(runUntil([&] { return answered; }));
#pragma once

#include <gtest/gtest.h>

#include <functional>

#include "platform/Pell.h"

namespace AclAgent {

class WallClockFixture : public ::testing::Test {
 protected:
  // Long enough for a loaded machine running the sanitizer build.
  static constexpr Pell::Nanoseconds kDeadline = 30'000'000'000;

  void SetUp() override { loop_->wallClockIs(true); }
  void TearDown() override { loop_->wallClockIs(false); }

  // Runs the loop until `done`; false when it has not come within kDeadline.
  bool runUntil(const std::function<bool()>& done) {
    bool late = false;
    Pell::BackgroundTimer deadline(loop_, "testDeadline", [&] { late = true; });
    deadline.armIn(kDeadline);
    loop_->runUntil([&] { return late || done(); });
    return !late;
  }
  // Runs the loop for `period` of wall time, whatever happens in it.
  void runFor(Pell::Nanoseconds period) {
    bool passed = false;
    Pell::BackgroundTimer later(loop_, "testLater", [&] { passed = true; });
    later.armIn(period);
    EXPECT_TRUE(runUntil([&] { return passed; }));
  }

  Zov::Ptr<Pell::TaskSchedulerRoot> loop_ = Pell::TaskSchedulerRoot::findOrCreateScheduler();
};

}  // namespace AclAgent
