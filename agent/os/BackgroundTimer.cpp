#include "agent/os/BackgroundTimer.h"

namespace AclAgent {

class BackgroundTimer::Reactor : public Zov::PtrInterface::NotifieeConst {
 public:
  explicit Reactor(std::function<void()> run) : run_(std::move(run)) {}
  void onAttribute(Zov::AttributeId id, const void*) override {
    if (id == Pell::TimerTask::kRun && !zovMarkedForDeletion()) run_();
  }

 private:
  std::function<void()> run_;
};

BackgroundTimer::BackgroundTimer(const Zov::Ptr<Pell::TaskSchedulerRoot>& loop, const char* name,
                                 std::function<void()> run)
    : task_(new Pell::TimerTask(loop, Pell::TaskPriority(0), name)),
      reactor_(new Reactor(std::move(run))) {
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

void BackgroundTimer::armIn(Pell::Nanoseconds delay) {
  task_->stopTimerTask();
  task_->scheduleTaskLowestDelay(static_cast<double>(delay) / 1e9);
}

void BackgroundTimer::stop() {
  task_->stopTimerTask();
}

}  // namespace AclAgent
