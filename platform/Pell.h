// Pell: the task runtime. One event loop per process runs timer tasks on the
// event thread.
//
// A `TimerTask` is a counted object on a scheduler. Armed with a delay, it
// runs once when the loop's clock reaches the due time; running means
// announcing attribute `TimerTask::kRun` (130) to its notifiees, so a reactor
// attached to the task is how work gets done:
//
//   auto task = Zov::Ptr<Pell::TimerTask>(new Pell::TimerTask(
//       Pell::TaskSchedulerRoot::findOrCreateScheduler(), Pell::TaskPriority(3), "refresh"));
//   task->hasNotificationActiveIs(true);
//   reactor->notifierIs(task.ptr());                 // the reactor hears 130
//   task->scheduleTaskLowestDelay(0.01);             // runs 10 ms from now
//
// Time is kept in integer nanoseconds, from 0 to `kEndOfTime` (about 292
// years). The clock is a seam: by default it is
// virtual and moves only when the loop is told to (`advance`, `settle`), so
// every run is repeatable; `wallClockIs(true)` puts the loop on real time.
// Tasks due at the same moment run by priority (higher value first), then in
// the order they were armed.
//
// Threading: the loop, its tasks and their notifiees live on one thread.
#pragma once

#include <chrono>
#include <limits>
#include <set>

#include "platform/Zov.h"

namespace Pell {

// Nanoseconds since the loop's epoch.
using Nanoseconds = std::int64_t;

// The last moment the clock can show. The clock never moves past it: an
// `advance` that would is refused, and a task armed with a delay that reaches
// beyond it is due at it.
constexpr Nanoseconds kEndOfTime = std::numeric_limits<Nanoseconds>::max();

// Rounds a duration in seconds to the nearest nanosecond, saturating at
// -`kEndOfTime` and `kEndOfTime`; not-a-number is 0.
Nanoseconds nanoseconds(Zov::Seconds seconds);

// The order among tasks due at the same moment: a higher value runs first.
class TaskPriority {
 public:
  constexpr TaskPriority() = default;
  constexpr explicit TaskPriority(unsigned value) : value_(value) {}
  constexpr unsigned value() const { return value_; }
  friend constexpr bool operator==(TaskPriority, TaskPriority) = default;

 private:
  unsigned value_ = 0;
};

class TimerTask;

// A scheduler: tasks made on it are run by the event loop.
class TaskScheduler : public Zov::PtrInterface {
 public:
  // The loop's current time.
  virtual Nanoseconds now() const = 0;

 protected:
  friend class TimerTask;
  virtual void taskArmIs(TimerTask* task, Nanoseconds due) = 0;
  virtual void taskDisarm(TimerTask* task) = 0;
};

// The process's scheduler and its event loop.
class TaskSchedulerRoot : public TaskScheduler {
 public:
  // The process's scheduler root, created on first use and never destroyed.
  static Zov::Ptr<TaskSchedulerRoot> findOrCreateScheduler();

  // On the wall clock, the real present (never earlier than the last run).
  Nanoseconds now() const override;

  // Virtual clock: runs every task due up to now + `duration` (inclusive),
  // moving the clock to each task's due time before it runs, and ends with the
  // clock at now + `duration`. On the wall clock it sleeps until each due time.
  // An exception from a task's run propagates; the loop stays usable and the
  // clock stays at that task's due time.
  // REQUIRES: 0 <= `duration` <= `kEndOfTime` - now(); otherwise raises
  // `Zov::RangeException` naming the limit, and nothing runs or moves.
  void advance(Nanoseconds duration);
  // Runs tasks until none is armed. Returns false when it gave up after
  // `maxRuns` runs (a task that keeps re-arming itself).
  bool settle(std::uint64_t maxRuns = 1'000'000);

  bool wallClock() const { return wallClock_; }
  void wallClockIs(bool wallClock);

  std::size_t armedTasks() const { return armed_.size(); }
  // When the next armed task is due, or -1 when none is armed.
  Nanoseconds nextDue() const;
  std::uint64_t runs() const { return runs_; }

 protected:
  void taskArmIs(TimerTask* task, Nanoseconds due) override;
  void taskDisarm(TimerTask* task) override;

 private:
  TaskSchedulerRoot() = default;
  struct Armed {
    Nanoseconds due;
    unsigned priority;
    std::uint64_t sequence;
    TimerTask* task;
    bool operator<(const Armed& o) const {
      if (due != o.due) return due < o.due;
      if (priority != o.priority) return priority > o.priority;
      return sequence < o.sequence;
    }
  };
  // Runs the first armed task if it is due by `limit`; false if none is.
  bool runNext(Nanoseconds limit);
  Nanoseconds wallNow() const;
  void waitUntil(Nanoseconds when);

  Nanoseconds now_ = 0;
  std::set<Armed> armed_;
  std::uint64_t sequence_ = 0;
  std::uint64_t runs_ = 0;
  bool wallClock_ = false;
  std::chrono::steady_clock::time_point wallEpoch_;
  Nanoseconds wallOffset_ = 0;
};

// Something a scheduler runs.
class Task : public Zov::PtrInterface {
 public:
  Task(const Zov::Ptr<TaskScheduler>& scheduler, TaskPriority priority, const Zov::String& name)
      : scheduler_(scheduler), priority_(priority), name_(name) {}

  const Zov::Ptr<TaskScheduler>& taskScheduler() const { return scheduler_; }
  TaskPriority taskPriority() const { return priority_; }
  const Zov::String& taskName() const { return name_; }

 private:
  Zov::Ptr<TaskScheduler> scheduler_;
  TaskPriority priority_;
  Zov::String name_;
};

// A one-shot timer. Idle until armed; after a run, idle until armed again.
class TimerTask : public Task {
  ZOV_TRACKED_ALLOCATION("Pell::TimerTask")

 public:
  // The attribute announced when the task runs.
  static constexpr Zov::AttributeId kRun = 130;

  TimerTask(const Zov::Ptr<TaskScheduler>& scheduler, TaskPriority priority,
            const Zov::String& name)
      : Task(scheduler, priority, name) {}
  ~TimerTask() override;

  // Arms the task to run `delay` from now; when it is already armed to run
  // sooner than that, it keeps its time (the lower delay wins). A negative
  // delay is 0; one that reaches past `kEndOfTime` is due at `kEndOfTime`.
  void scheduleTaskLowestDelay(Zov::Seconds delay);
  // Disarms the task; an idle task stays idle.
  void stopTimerTask();

  bool armed() const { return armed_; }
  // When the armed task is due; meaningless while idle.
  Nanoseconds due() const { return due_; }
  std::uint64_t runs() const { return runs_; }

 private:
  friend class TaskSchedulerRoot;
  // Announces the run. Called by the loop after disarming the task.
  void run();

  bool armed_ = false;
  Nanoseconds due_ = 0;
  std::uint64_t armSequence_ = 0;
  std::uint64_t runs_ = 0;
};

}  // namespace Pell
