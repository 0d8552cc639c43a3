// Reference implementation of the task runtime: a single-threaded event loop
// over a virtual or wall clock.
#include "platform/Pell.h"

#include <algorithm>
#include <cmath>
#include <string>
#include <thread>

namespace Pell {

Nanoseconds nanoseconds(Zov::Seconds seconds) {
  const double ns = seconds * 1e9;
  if (std::isnan(ns)) return 0;
  // 2^63 is the first double beyond the range; everything below it converts.
  constexpr double kLimit = 9223372036854775808.0;
  if (ns >= kLimit) return kEndOfTime;
  if (ns <= -kLimit) return -kEndOfTime;
  return static_cast<Nanoseconds>(std::llround(ns));
}

Zov::Ptr<TaskSchedulerRoot> TaskSchedulerRoot::findOrCreateScheduler() {
  // Never destroyed: tasks in static objects of unloading plugins may still
  // disarm themselves during process exit.
  static TaskSchedulerRoot* root = [] {
    auto* r = new TaskSchedulerRoot();
    r->newRef();
    return r;
  }();
  return Zov::Ptr<TaskSchedulerRoot>(root);
}

Nanoseconds TaskSchedulerRoot::now() const {
  return wallClock_ ? std::max(now_, wallNow()) : now_;
}

void TaskSchedulerRoot::wallClockIs(bool wallClock) {
  if (wallClock == wallClock_) return;
  // Either way the clock goes on from where it is now: leaving the wall clock
  // must not turn it back to the last run.
  now_ = now();
  wallClock_ = wallClock;
  wallEpoch_ = std::chrono::steady_clock::now();
  wallOffset_ = now_;
}

Nanoseconds TaskSchedulerRoot::wallNow() const {
  const Nanoseconds elapsed = std::chrono::duration_cast<std::chrono::nanoseconds>(
                                  std::chrono::steady_clock::now() - wallEpoch_)
                                  .count();
  return elapsed > kEndOfTime - wallOffset_ ? kEndOfTime : wallOffset_ + elapsed;
}

void TaskSchedulerRoot::waitUntil(Nanoseconds when) {
  if (wallClock_) {
    const Nanoseconds wait = when - wallNow();
    if (wait > 0) std::this_thread::sleep_for(std::chrono::nanoseconds(wait));
  }
  if (when > now_) now_ = when;
}

Nanoseconds TaskSchedulerRoot::nextDue() const {
  return armed_.empty() ? -1 : armed_.begin()->due;
}

void TaskSchedulerRoot::taskArmIs(TimerTask* task, Nanoseconds due) {
  if (task->armed_) taskDisarm(task);
  task->armed_ = true;
  task->due_ = due;
  task->armSequence_ = ++sequence_;
  armed_.insert({due, task->taskPriority().value(), task->armSequence_, task});
}

void TaskSchedulerRoot::taskDisarm(TimerTask* task) {
  if (!task->armed_) return;
  armed_.erase({task->due_, task->taskPriority().value(), task->armSequence_, task});
  task->armed_ = false;
}

bool TaskSchedulerRoot::runNext(Nanoseconds limit) {
  if (armed_.empty() || armed_.begin()->due > limit) return false;
  const Armed next = *armed_.begin();
  // Hold the task while it runs: its notifiees may drop every other reference.
  Zov::Ptr<TimerTask> task(next.task);
  taskDisarm(next.task);
  waitUntil(next.due);
  ++runs_;
  task->run();
  return true;
}

void TaskSchedulerRoot::advance(Nanoseconds duration) {
  const Nanoseconds start = now();
  if (duration < 0 || duration > kEndOfTime - start) {
    throw Zov::RangeException("the clock cannot advance by " + std::to_string(duration) +
                              "ns from " + std::to_string(start) + "ns: it ends at " +
                              std::to_string(kEndOfTime) + "ns (about 292 years)");
  }
  const Nanoseconds end = start + duration;
  while (runNext(end)) {
  }
  waitUntil(end);
}

bool TaskSchedulerRoot::settle(std::uint64_t maxRuns) {
  for (std::uint64_t n = 0; n < maxRuns; ++n) {
    if (!runNext(armed_.empty() ? 0 : armed_.begin()->due)) return true;
  }
  return armed_.empty();
}

TimerTask::~TimerTask() {
  if (armed_) taskScheduler()->taskDisarm(this);
}

void TimerTask::scheduleTaskLowestDelay(Zov::Seconds delay) {
  TaskScheduler& scheduler = *taskScheduler();
  const Nanoseconds now = scheduler.now();
  const Nanoseconds wait = std::max<Nanoseconds>(0, nanoseconds(delay));
  const Nanoseconds due = wait > kEndOfTime - now ? kEndOfTime : now + wait;
  if (armed_ && due_ <= due) return;
  scheduler.taskArmIs(this, due);
}

void TimerTask::stopTimerTask() {
  if (armed_) taskScheduler()->taskDisarm(this);
}

void TimerTask::run() {
  ++runs_;
  notifieeList()->visit(kRun);
}

}  // namespace Pell
