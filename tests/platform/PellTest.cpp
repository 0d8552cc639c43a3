#include "platform/Pell.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <limits>
#include <memory>
#include <string>
#include <thread>

#include <unistd.h>

#include "tests/platform/PlatformTesting.h"

namespace {

using ::testing::ElementsAre;
using ZovTesting::Listener;

constexpr Pell::Nanoseconds kMs = 1'000'000;

// The scheduler is the process's own: every test must leave nothing armed.
class PellTest : public ::testing::Test {
 protected:
  void TearDown() override {
    for (auto& [task, listener] : tasks_) task->stopTimerTask();
    tasks_.clear();
    EXPECT_EQ(root_->armedTasks(), 0u);
    EXPECT_EQ(Pell::TimerTask::allocTrackTypeInfo().liveObjects(), liveAtStart_);
  }

  // A task whose runs are logged by name; `hook` runs in the notification.
  Zov::Ptr<Pell::TimerTask> taskIs(unsigned priority, const char* name,
                                   std::function<void()> hook = {}) {
    Zov::Ptr<Pell::TimerTask> task(new Pell::TimerTask(root_, Pell::TaskPriority(priority), name));
    task->hasNotificationActiveIs(true);
    tasks_.emplace_back(
        task, Listener::listenerIs(task.ptr(), [=, this](Zov::AttributeId id, const void*) {
          EXPECT_EQ(id, Pell::TimerTask::kRun);
          log_.push_back(name);
          if (hook) hook();
        }));
    return task;
  }

  Zov::Ptr<Pell::TaskSchedulerRoot> root_ = Pell::TaskSchedulerRoot::findOrCreateScheduler();
  std::uint64_t liveAtStart_ = Pell::TimerTask::allocTrackTypeInfo().liveObjects();
  std::vector<std::pair<Zov::Ptr<Pell::TimerTask>, Zov::Ptr<Listener>>> tasks_;
  std::vector<std::string> log_;
};

TEST_F(PellTest, RunsByDueTimeThenHigherPriorityThenArmingOrder) {
  auto late = taskIs(9, "late");
  auto lowA = taskIs(1, "lowA");
  auto high = taskIs(5, "high");
  auto lowB = taskIs(1, "lowB");
  auto highB = taskIs(5, "highB");
  late->scheduleTaskLowestDelay(0.02);
  for (auto* task : {&lowA, &high, &lowB, &highB}) (*task)->scheduleTaskLowestDelay(0.01);
  root_->advance(20 * kMs);
  EXPECT_THAT(log_, ElementsAre("high", "highB", "lowA", "lowB", "late"));
}

TEST_F(PellTest, LowestDelayWinsAdvanceIsInclusiveAndStoppingDisarms) {
  auto task = taskIs(3, "refresh");
  const Pell::Nanoseconds start = root_->now();
  for (double delay : {0.05, 0.01, 0.03}) task->scheduleTaskLowestDelay(delay);
  EXPECT_EQ(task->due(), start + 10 * kMs);
  root_->advance(10 * kMs - 1);
  EXPECT_TRUE(log_.empty());
  root_->advance(1);
  root_->advance(100 * kMs);
  EXPECT_THAT(log_, ElementsAre("refresh")) << "a run leaves the task idle";

  task->scheduleTaskLowestDelay(0.01);
  task->stopTimerTask();
  EXPECT_TRUE(root_->settle());
  EXPECT_EQ(log_.size(), 1u);
  // Destroying an armed task disarms it.
  task->scheduleTaskLowestDelay(0.01);
  tasks_.clear();
  task = nullptr;
  EXPECT_EQ(root_->armedTasks(), 0u);
}

TEST_F(PellTest, ReArmFromTheRunAndSettle) {
  Zov::Ptr<Pell::TimerTask> task;
  int rearms = 2;
  task = taskIs(3, "again", [&] {
    if (rearms-- > 0) task->scheduleTaskLowestDelay(0.01);
  });
  const Pell::Nanoseconds start = root_->now();
  task->scheduleTaskLowestDelay(0.01);
  EXPECT_TRUE(root_->settle());
  EXPECT_EQ(task->runs(), 3u);
  EXPECT_EQ(root_->now(), start + 30 * kMs);

  // A task that always re-arms makes settle give up, leaving it armed.
  rearms = 1000;
  task->scheduleTaskLowestDelay(0);
  EXPECT_FALSE(root_->settle(5));
  EXPECT_EQ(task->runs(), 8u);
  EXPECT_TRUE(task->armed());
  task = nullptr;
}

TEST_F(PellTest, ExceptionFromARunPropagatesAndTheLoopGoesOn) {
  auto thrower = taskIs(9, "thrower", [] { throw std::runtime_error("run failed"); });
  auto after = taskIs(1, "after");
  auto later = taskIs(1, "later");
  const Pell::Nanoseconds start = root_->now();
  thrower->scheduleTaskLowestDelay(0.01);
  after->scheduleTaskLowestDelay(0.01);
  later->scheduleTaskLowestDelay(0.02);
  EXPECT_THROW(root_->advance(50 * kMs), std::runtime_error);
  EXPECT_EQ(root_->now(), start + 10 * kMs);
  EXPECT_FALSE(thrower->armed());
  root_->advance(50 * kMs);
  EXPECT_THAT(log_, ElementsAre("thrower", "after", "later"));
}

// The clock ends at kEndOfTime: a delay past it saturates there, and an
// advance past it is refused before anything runs or moves. (The clock is
// the process's own, so this test never takes it to the end.)
TEST_F(PellTest, TheEndOfTimeIsALimitNotAWrapAround) {
  EXPECT_EQ(Pell::nanoseconds(1e30), Pell::kEndOfTime);
  EXPECT_EQ(Pell::nanoseconds(-1e30), -Pell::kEndOfTime);
  EXPECT_EQ(Pell::nanoseconds(std::numeric_limits<double>::quiet_NaN()), 0);
  EXPECT_EQ(Pell::nanoseconds(0.0105), 10'500'000);

  auto forever = taskIs(1, "forever");
  auto soon = taskIs(1, "soon");
  root_->advance(1);  // run alone, the test starts at 0, where nothing can overflow
  forever->scheduleTaskLowestDelay(std::numeric_limits<double>::infinity());
  EXPECT_EQ(forever->due(), Pell::kEndOfTime);
  soon->scheduleTaskLowestDelay(0.01);
  const Pell::Nanoseconds start = root_->now();
  EXPECT_THROW(root_->advance(Pell::kEndOfTime), Zov::RangeException);
  EXPECT_THROW(root_->advance(-1), Zov::RangeException);
  EXPECT_EQ(root_->now(), start);
  EXPECT_TRUE(log_.empty());
  root_->advance(10 * kMs);
  EXPECT_THAT(log_, ElementsAre("soon"));
  EXPECT_TRUE(forever->armed());
}

// A pipe the loop watches; what its handler read is logged.
class WatchedPipe {
 public:
  explicit WatchedPipe(Pell::TaskSchedulerRoot& root) {
    if (pipe(fds_) != 0) throw std::runtime_error("pipe");
    watch_ = Pell::FdWatch(root, fds_[0], [this] {
      char buffer[64];
      const ssize_t n = ::read(fds_[0], buffer, sizeof buffer);
      read_ += std::string(buffer, n > 0 ? static_cast<std::size_t>(n) : 0);
      if (n == 0) watch_.reset();  // hung up
      if (onRead) onRead();
    });
  }
  ~WatchedPipe() {
    watch_.reset();
    close(fds_[0]);
    if (fds_[1] >= 0) close(fds_[1]);
  }
  void write(const std::string& text) {
    ASSERT_EQ(::write(fds_[1], text.data(), text.size()), static_cast<ssize_t>(text.size()));
  }
  void hangUp() { close(std::exchange(fds_[1], -1)); }
  const std::string& read() const { return read_; }
  std::function<void()> onRead;

 private:
  int fds_[2];
  std::string read_;
  Pell::FdWatch watch_;
};

TEST_F(PellTest, AdvanceRunsTheHandlersOfReadyDescriptorsBetweenTasks) {
  WatchedPipe pipe(*root_);
  auto task = taskIs(1, "task", [&] { pipe.write("from the task"); });
  pipe.write("before");
  task->scheduleTaskLowestDelay(0.01);
  root_->advance(20 * kMs);
  EXPECT_EQ(pipe.read(), "beforefrom the task");
  EXPECT_THAT(log_, ElementsAre("task"));
  // A handler may stop its own watch; the loop goes on without it.
  pipe.hangUp();
  root_->advance(0);
  EXPECT_EQ(root_->fdWatches(), 0u);
  EXPECT_THROW(Pell::FdWatch(*root_, -1, [] {}), std::invalid_argument);
}

// Settle waits for work in flight, ended by a descriptor's handler; it does
// not wait for background tasks, which run when an advance reaches them.
TEST_F(PellTest, SettleWaitsForWorkInFlightAndNotForBackgroundTasks) {
  WatchedPipe pipe(*root_);
  auto retry = taskIs(1, "retry");
  auto refresh = taskIs(1, "refresh", [&] {
    root_->workInFlightInc();
    pipe.write("done");
  });
  pipe.onRead = [&] { root_->workInFlightDec(); };
  retry->backgroundIs(true);
  retry->scheduleTaskLowestDelay(0.1);
  refresh->scheduleTaskLowestDelay(0.01);
  const Pell::Nanoseconds start = root_->now();
  EXPECT_TRUE(root_->settle());
  EXPECT_EQ(root_->workInFlight(), 0u);
  EXPECT_EQ(pipe.read(), "done");
  EXPECT_THAT(log_, ElementsAre("refresh"));
  EXPECT_EQ(root_->now(), start + 10 * kMs);
  root_->advance(90 * kMs);
  EXPECT_THAT(log_, ElementsAre("refresh", "retry"));
  EXPECT_THROW(root_->workInFlightDec(), std::logic_error);
}

// A watch moved keeps watching; one destroyed or assigned over never runs its
// handler again, and a background timer destroyed never runs its function.
TEST_F(PellTest, HandlesEndTheirWatchWhenTheyGo) {
  int fds[2];
  ASSERT_EQ(pipe(fds), 0);
  ASSERT_EQ(::write(fds[1], "x", 1), 1);
  int runs = 0;
  Pell::FdWatch first(*root_, fds[0], [&] { ++runs; });
  EXPECT_THROW(Pell::FdWatch(*root_, fds[0], [] {}), std::invalid_argument);
  Pell::FdWatch moved = std::move(first);
  root_->advance(0);
  EXPECT_EQ(runs, 1);
  moved = Pell::FdWatch();
  root_->advance(0);
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(root_->fdWatches(), 0u);
  close(fds[0]);
  close(fds[1]);

  auto timer = std::make_unique<Pell::BackgroundTimer>(root_, "timer", [&] { ++runs; });
  timer->armIn(kMs);
  timer.reset();
  root_->advance(2 * kMs);
  EXPECT_EQ(runs, 1);
  EXPECT_EQ(root_->armedTasks(), 0u);
}

// On the wall clock, arming counts from the real present, however long the loop idled.
TEST_F(PellTest, WallClockArmsFromTheRealPresent) {
  root_->wallClockIs(true);
  const Pell::Nanoseconds start = root_->now();
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  auto task = taskIs(3, "real");
  task->scheduleTaskLowestDelay(0.01);
  EXPECT_GE(task->due(), start + 15 * kMs);
  task->stopTimerTask();
  root_->wallClockIs(false);
  EXPECT_GE(root_->now(), start + 5 * kMs) << "leaving the wall clock must not turn time back";
}

}  // namespace
