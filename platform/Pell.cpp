// Reference implementation of the task runtime: a single-threaded event loop
// over a virtual or wall clock.
#include "platform/Pell.h"

#include <poll.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>

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

void TaskSchedulerRoot::clockForwardTo(Nanoseconds when) {
  if (when > now_) now_ = when;
}

Nanoseconds TaskSchedulerRoot::nextDue() const {
  return armed_.empty() ? -1 : armed_.begin()->due;
}

void TaskSchedulerRoot::taskArmIs(TimerTask* task, Nanoseconds due) {
  if (task->armed_) taskDisarm(task);
  task->armed_ = true;
  if (!task->background_) ++foregroundArmed_;
  task->due_ = due;
  task->armSequence_ = ++sequence_;
  armed_.insert({due, task->taskPriority().value(), task->armSequence_, task});
}

void TaskSchedulerRoot::taskDisarm(TimerTask* task) {
  if (!task->armed_) return;
  armed_.erase({task->due_, task->taskPriority().value(), task->armSequence_, task});
  task->armed_ = false;
  if (!task->background_) --foregroundArmed_;
}

bool TaskSchedulerRoot::runNext(Nanoseconds limit) {
  while (true) {
    if (armed_.empty() || armed_.begin()->due > limit) return false;
    const Nanoseconds wait = wallClock_ ? armed_.begin()->due - wallNow() : 0;
    if (wait <= 0) break;
    // A handler may arm a task sooner than the one waited for: look again.
    pollFds(wait);
  }
  const Armed next = *armed_.begin();
  // Hold the task while it runs: its notifiees may drop every other reference.
  Zov::Ptr<TimerTask> task(next.task);
  taskDisarm(next.task);
  clockForwardTo(next.due);
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
  while (true) {
    pollFds(0);
    if (runNext(end)) continue;
    const Nanoseconds wait = wallClock_ ? end - wallNow() : 0;
    if (wait <= 0) break;
    pollFds(wait);
  }
  clockForwardTo(end);
}

bool TaskSchedulerRoot::settle(std::uint64_t maxRuns) {
  for (std::uint64_t n = 0; n < maxRuns;) {
    if (foregroundArmed_ > 0) {
      runNext(armed_.begin()->due);
      ++n;
      continue;
    }
    if (workInFlight_ == 0) return true;
    // Only background tasks are armed: on the wall clock they run when due
    // while the work goes on; on the virtual clock they wait for `advance`.
    Nanoseconds wait = -1;
    if (wallClock_ && !armed_.empty()) wait = std::max<Nanoseconds>(0, nextDue() - wallNow());
    if (pollFds(wait) == 0 && wallClock_ && runNext(now())) ++n;
  }
  return foregroundArmed_ == 0 && workInFlight_ == 0;
}

void TaskSchedulerRoot::drain() {
  while (workInFlight_ > 0) pollFds(-1);
}

void TaskSchedulerRoot::runUntil(const std::function<bool()>& done) {
  while (!done()) {
    if (!wallClock_ || armed_.empty()) {
      if (watches_.empty()) throw std::logic_error("the loop waits for nothing that can happen");
      pollFds(-1);
    } else if (!runNext(now())) {
      pollFds(std::max<Nanoseconds>(0, nextDue() - wallNow()));
    }
  }
}

void TaskSchedulerRoot::workInFlightDec() {
  if (workInFlight_ == 0) throw std::logic_error("work in flight counted down below zero");
  --workInFlight_;
}

std::uint64_t TaskSchedulerRoot::fdWatchIs(int fd, std::function<void()> onReadable) {
  if (fd < 0) throw std::invalid_argument("cannot watch file descriptor " + std::to_string(fd));
  for (const Watch& w : watches_) {
    if (w.fd == fd) {
      throw std::invalid_argument("file descriptor " + std::to_string(fd) + " is watched already");
    }
  }
  watches_.push_back(Watch{fd, ++watchIds_, std::move(onReadable)});
  return watchIds_;
}

void TaskSchedulerRoot::fdWatchDel(std::uint64_t id) {
  std::erase_if(watches_, [id](const Watch& w) { return w.id == id; });
}

FdWatch::FdWatch(TaskSchedulerRoot& loop, int fd, std::function<void()> onReadable)
    : id_(loop.fdWatchIs(fd, std::move(onReadable))), fd_(fd) {
  loop_ = &loop;
}

FdWatch::FdWatch(FdWatch&& other) noexcept
    : loop_(std::exchange(other.loop_, nullptr)), id_(other.id_), fd_(other.fd_) {}

FdWatch& FdWatch::operator=(FdWatch&& other) noexcept {
  if (this != &other) {
    reset();
    loop_ = std::exchange(other.loop_, nullptr);
    id_ = other.id_;
    fd_ = other.fd_;
  }
  return *this;
}

void FdWatch::reset() {
  if (loop_) std::exchange(loop_, nullptr)->fdWatchDel(id_);
}

std::size_t TaskSchedulerRoot::pollFds(Nanoseconds timeout) {
  if (watches_.empty()) {
    // Nothing can become ready: a wait is a plain sleep, and waiting for
    // ever would never end.
    if (timeout > 0) std::this_thread::sleep_for(std::chrono::nanoseconds(timeout));
    return 0;
  }
  std::vector<pollfd> polled;
  std::vector<std::uint64_t> ids;
  for (const Watch& w : watches_) {
    polled.push_back(pollfd{w.fd, POLLIN, 0});
    ids.push_back(w.id);
  }
  timespec wait{timeout / 1'000'000'000, timeout % 1'000'000'000};
  const int ready = ppoll(polled.data(), polled.size(), timeout < 0 ? nullptr : &wait, nullptr);
  if (ready <= 0) return 0;  // timed out, or a signal came first
  std::size_t ran = 0;
  for (std::size_t i = 0; i < polled.size(); ++i) {
    if (polled[i].revents == 0) continue;
    // A handler run before may have stopped this watch, or replaced it.
    auto it = std::find_if(watches_.begin(), watches_.end(),
                           [&](const Watch& w) { return w.id == ids[i]; });
    if (it == watches_.end()) continue;
    const std::function<void()> handler = it->onReadable;
    ++ran;
    handler();
  }
  return ran;
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

void TimerTask::backgroundIs(bool background) {
  if (background == background_) return;
  // Re-arming moves the task between the loop's counts.
  const bool wasArmed = armed_;
  const Nanoseconds due = due_;
  if (wasArmed) taskScheduler()->taskDisarm(this);
  background_ = background;
  if (wasArmed) taskScheduler()->taskArmIs(this, due);
}

void TimerTask::stopTimerTask() {
  if (armed_) taskScheduler()->taskDisarm(this);
}

void TimerTask::run() {
  ++runs_;
  notifieeList()->visit(kRun);
}

class BackgroundTimer::Reactor : public Zov::PtrInterface::NotifieeConst {
 public:
  explicit Reactor(std::function<void()> run) : run_(std::move(run)) {}
  void onAttribute(Zov::AttributeId id, const void*) override {
    if (id == TimerTask::kRun && !zovMarkedForDeletion()) run_();
  }

 private:
  std::function<void()> run_;
};

BackgroundTimer::BackgroundTimer(const Zov::Ptr<TaskSchedulerRoot>& loop, const char* name,
                                 std::function<void()> run)
    : task_(new TimerTask(loop, TaskPriority(0), name)), reactor_(new Reactor(std::move(run))) {
  task_->backgroundIs(true);
  reactor_->notifierIs(task_.ptr());
  reactor_->isRegisteredNotifieeIs(true);
  reactor_->hasNotificationActiveIs(true);
}

BackgroundTimer::~BackgroundTimer() {
  task_->stopTimerTask();
  reactor_->zovMarkedForDeletionIs(true);
  reactor_->notifierIs(nullptr);
}

void BackgroundTimer::armIn(Nanoseconds delay) {
  task_->stopTimerTask();
  task_->scheduleTaskLowestDelay(static_cast<double>(delay) / 1e9);
}

void BackgroundTimer::stop() {
  task_->stopTimerTask();
}

}  // namespace Pell
