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
// The loop also watches file descriptors (pipes to child processes, sockets,
// timer descriptors) and runs a handler when one is readable, for as long as
// the `FdWatch` lives:
//
//   Pell::FdWatch watch(*root, fd, [&] { readWhatIsThere(fd); });
//   root->workInFlightInc();   // `settle` now waits until ...
//   root->workInFlightDec();   // ... this, called from a handler.
//
// Work that `settle` must not wait for (a periodic check, a retry's delay)
// runs on a `BackgroundTimer`, which calls a function rather than notifying.
//
// Descriptors are real, so they are waited for in real time on either clock.
//
// Threading: the loop, its tasks, their notifiees and the descriptor handlers
// live on one thread.
#pragma once

#include <chrono>
#include <functional>
#include <limits>
#include <set>
#include <vector>

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
  // Runs tasks until no task but background ones is armed, and waits (in
  // real time, running descriptor handlers) until no work is in flight.
  // Background tasks due before the last other task run in their turn; those
  // due later wait for an `advance`. Returns false when it gave up after
  // `maxRuns` runs (a task that keeps re-arming itself).
  bool settle(std::uint64_t maxRuns = 1'000'000);

  // --- file descriptors (watched through `FdWatch`) ---
  // `advance` runs the handlers of ready descriptors between tasks (on the
  // wall clock it also waits for them until each due time); `settle` waits
  // for them while work is in flight. An exception from a handler propagates
  // out of the loop call that ran it.
  std::size_t fdWatches() const { return watches_.size(); }
  // Runs the handlers of the watched descriptors that are ready within
  // `timeout` of real time (0: those ready now; negative: until one is) and
  // returns how many ran.
  std::size_t pollFds(Nanoseconds timeout);

  // Work that `settle` and `drain` wait for, such as a child process whose
  // end a watched descriptor will tell: a source counts each piece up when
  // it starts and down when it ends.
  void workInFlightInc() { ++workInFlight_; }
  void workInFlightDec();
  std::uint64_t workInFlight() const { return workInFlight_; }
  // Runs descriptor handlers, and no task, until no work is in flight.
  void drain();
  // Runs the loop until `done()` holds, checked after each handler and task:
  // descriptor handlers on either clock, and on the wall clock the tasks as
  // they fall due. The virtual clock does not move. Raises
  // `std::logic_error` when it would wait with nothing to wait for.
  void runUntil(const std::function<bool()>& done);

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
  // Runs the first armed task if it is due by `limit` (on the wall clock,
  // waiting for it while running descriptor handlers); false if none is.
  bool runNext(Nanoseconds limit);
  Nanoseconds wallNow() const;
  // Moves the clock forward to `when`, never back.
  void clockForwardTo(Nanoseconds when);

  friend class FdWatch;
  std::uint64_t fdWatchIs(int fd, std::function<void()> onReadable);
  void fdWatchDel(std::uint64_t id);

  struct Watch {
    int fd;
    std::uint64_t id;  // tells a watch from a later one of the same fd
    std::function<void()> onReadable;
  };

  Nanoseconds now_ = 0;
  std::set<Armed> armed_;
  std::size_t foregroundArmed_ = 0;
  std::vector<Watch> watches_;
  std::uint64_t watchIds_ = 0;
  std::uint64_t workInFlight_ = 0;
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
  // A background task (a periodic check, a retry's delay) is one that
  // `settle` does not wait for. Tasks are foreground when made.
  bool background() const { return background_; }
  void backgroundIs(bool background);
  // When the armed task is due; meaningless while idle.
  Nanoseconds due() const { return due_; }
  std::uint64_t runs() const { return runs_; }

 private:
  friend class TaskSchedulerRoot;
  // Announces the run. Called by the loop after disarming the task.
  void run();

  bool armed_ = false;
  bool background_ = false;
  Nanoseconds due_ = 0;
  std::uint64_t armSequence_ = 0;
  std::uint64_t runs_ = 0;
};

// A descriptor the loop watches: `onReadable` runs on the event thread
// whenever `fd` is readable, has hung up or failed, until the watch ends: when
// it is destroyed, reset or assigned over, also from inside its own handler.
// The descriptor stays open; whoever owns it closes it after the watch ends.
//
//   Pell::FdWatch watch(*loop, fd, [&] { readWhatIsThere(fd); });
//   watch.reset();   // the handler is never called again
class FdWatch {
 public:
  FdWatch() = default;
  // REQUIRES: `fd` is open and not watched yet (raises `std::invalid_argument`).
  FdWatch(TaskSchedulerRoot& loop, int fd, std::function<void()> onReadable);
  FdWatch(FdWatch&& other) noexcept;
  FdWatch& operator=(FdWatch&& other) noexcept;
  ~FdWatch() { reset(); }

  void reset();
  bool active() const { return loop_ != nullptr; }
  int fd() const { return fd_; }

 private:
  TaskSchedulerRoot* loop_ = nullptr;
  std::uint64_t id_ = 0;
  int fd_ = -1;
};

// A function run once by a background task of the loop, `delay` after it is
// armed: work that `settle` must not wait for (a periodic check, a retry's
// delay). Destroying it disarms the task; the function is never called
// afterwards.
//
//   Pell::BackgroundTimer retry(loop, "retryTask", [this] { writeAgain(); });
//   retry.armIn(100'000'000);   // 100 ms from now on the loop's clock
class BackgroundTimer {
 public:
  BackgroundTimer(const Zov::Ptr<TaskSchedulerRoot>& loop, const char* name,
                  std::function<void()> run);
  ~BackgroundTimer();
  BackgroundTimer(const BackgroundTimer&) = delete;
  BackgroundTimer& operator=(const BackgroundTimer&) = delete;

  // Runs the function once, `delay` from now; an earlier arming is replaced.
  void armIn(Nanoseconds delay);
  void stop();
  bool armed() const { return task_->armed(); }

 private:
  class Reactor;
  Zov::Ptr<TimerTask> task_;
  Zov::Ptr<Reactor> reactor_;
};

}  // namespace Pell
