// BackgroundTimer: a function run by a background task of the event loop, for
// work that `settle` must not wait for (a periodic check, a retry's delay).
//
//   BackgroundTimer retry(loop, "retryTask", [this] { writeAgain(); });
//   retry.armIn(100'000'000);   // runs once, 100 ms from now on the loop's clock
//
// Destroying it disarms the task; the function is never called afterwards.
//
// Threading: the event thread only.
#pragma once

#include <functional>

#include "platform/Pell.h"

namespace AclAgent {

class BackgroundTimer {
 public:
  BackgroundTimer(const Zov::Ptr<Pell::TaskSchedulerRoot>& loop, const char* name,
                  std::function<void()> run);
  ~BackgroundTimer();
  BackgroundTimer(const BackgroundTimer&) = delete;
  BackgroundTimer& operator=(const BackgroundTimer&) = delete;

  // Runs the function once, `delay` from now; an earlier arming is replaced.
  void armIn(Pell::Nanoseconds delay);
  void stop();
  bool armed() const { return task_->armed(); }

 private:
  class Reactor;
  Zov::Ptr<Pell::TimerTask> task_;
  Zov::Ptr<Reactor> reactor_;
};

}  // namespace AclAgent
