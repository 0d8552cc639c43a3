#include "platform/Korvel.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>

namespace {

using ::testing::ElementsAre;

// A mounter that logs "name:status" for every completion it receives.
class LoggingMounter : public Korvel::Mounter {
  ZOV_TRACKED_ALLOCATION("KorvelTest::LoggingMounter")

 public:
  LoggingMounter(const char* name, std::vector<std::string>* log) : Mounter(name), log_(log) {}

  void doMountsComplete(Korvel::MountStatus status,
                        const Zov::Ptr<Korvel::EntityManager>&) override {
    log_->push_back(name().str() + ":" + Korvel::mountStatusName(status));
    if (hook_) hook_();
  }

  // Mounts `paths` for reading and closes the group.
  void mountAll(Korvel::EntityManager& manager, std::initializer_list<const char*> paths) {
    auto group = manager.getMountGroup(Zov::Ptr<Korvel::Mounter>(this));
    for (const char* path : paths) {
      Korvel::Mount mount(path, "Zov::Entity");
      mount.handleFlags("r");
      group->doMount(mount);
    }
    group->doClose(false, "", 0);
  }

  std::vector<std::string>* log_;
  Zov::Ptr<Korvel::EntityManager> manager_;
  std::function<void()> hook_;
};

class KorvelTest : public ::testing::Test {
 protected:
  KorvelTest() { manager_->entityIs("a", Zov::Ptr<Zov::Entity>(new Zov::Entity("a"))); }
  void TearDown() override {
    EXPECT_TRUE(root_->settle());
    manager_ = nullptr;
    EXPECT_EQ(LoggingMounter::allocTrackTypeInfo().liveObjects(), 0u);
    EXPECT_EQ(Korvel::EntityManager::allocTrackTypeInfo().liveObjects(), 0u);
    EXPECT_EQ(Korvel::MountGroup::allocTrackTypeInfo().liveObjects(), 0u);
    EXPECT_EQ(root_->armedTasks(), 0u);
  }
  Zov::Ptr<LoggingMounter> mounterIs(const char* name) {
    return Zov::Ptr<LoggingMounter>(new LoggingMounter(name, &log_));
  }

  Zov::Ptr<Pell::TaskSchedulerRoot> root_ = Pell::TaskSchedulerRoot::findOrCreateScheduler();
  Zov::Ptr<Korvel::EntityManager> manager_{new Korvel::EntityManager};
  std::vector<std::string> log_;
};

// A mounter dropped before its report hears nothing, then or later.
TEST_F(KorvelTest, CompletionIsReportedOnceFromTheLoopInOrderOfClosing) {
  auto first = mounterIs("first");
  auto second = mounterIs("second");
  auto gone = mounterIs("gone");
  second->mountAll(*manager_, {"a", "missing"});
  gone->mountAll(*manager_, {"a"});
  first->mountAll(*manager_, {"a"});
  EXPECT_TRUE(log_.empty()) << "completion must not be reported inside doClose";
  gone = nullptr;
  EXPECT_EQ(LoggingMounter::allocTrackTypeInfo().liveObjects(), 2u)
      << "the manager must not keep a mounter alive";

  root_->advance(0);
  EXPECT_THAT(log_, ElementsAre("second:failed", "first:ok"));
  EXPECT_EQ(second->mountStatus(), Korvel::MountStatus::kFailed);

  // A close from inside a completion is reported at the next turn of the
  // loop, not within the report.
  bool closeAgain = true;
  first->hook_ = [&] {
    if (!std::exchange(closeAgain, false)) return;
    first->mountAll(*manager_, {"a"});
  };
  manager_->mountsCompleteIs(Korvel::MountStatus::kFailed);
  EXPECT_THAT(log_, ElementsAre("second:failed", "first:ok", "first:failed", "second:failed"));
  root_->advance(1'000'000'000);
  EXPECT_EQ(log_.size(), 5u);
  EXPECT_EQ(log_.back(), "first:ok");
}

TEST_F(KorvelTest, MounterMayDropTheLastManagerReferenceDuringItsReport) {
  auto holder = mounterIs("holder");
  auto other = mounterIs("other");
  holder->manager_ = manager_;
  holder->mountAll(*manager_, {"a"});
  other->mountAll(*manager_, {"a"});
  holder->hook_ = [&] { holder->manager_ = nullptr; };
  manager_ = nullptr;
  root_->advance(0);
  EXPECT_THAT(log_, ElementsAre("holder:ok", "other:ok"));
  EXPECT_EQ(Korvel::EntityManager::allocTrackTypeInfo().liveObjects(), 0u);

  // The same holds for a report made at once.
  manager_ = new Korvel::EntityManager;
  holder->mountAll(*manager_, {});
  other->mountAll(*manager_, {});
  EXPECT_TRUE(root_->settle());
  holder->manager_ = manager_;
  Korvel::EntityManager* raw = manager_.ptr();
  manager_ = nullptr;
  raw->mountsCompleteIs(Korvel::MountStatus::kSuccess);
  EXPECT_THAT(
      log_, ElementsAre("holder:ok", "other:ok", "holder:ok", "other:ok", "holder:ok", "other:ok"));
  EXPECT_EQ(Korvel::EntityManager::allocTrackTypeInfo().liveObjects(), 0u);
}

}  // namespace
