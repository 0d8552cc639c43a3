// VrfApplier: the backend's job for every VRF, whatever the kernel table
// behind it: what must stand against what is in place, read back, compare,
// write, retry, report.
//
//   VrfApplier applier(loop, std::make_unique<SomeTable>(...), options, std::cerr);
//   applier.vrfRulesIs("red", rules);   // read back, and written if it differs
//
// Each VRF is in one `Step` at a time:
//
//   kQueued --> kReading --+--> kInPlace           (what must stand stands)
//      ^  ^                +--> kWriting --> kQueued (read back to check it)
//      |  |                +--> kNoNamespace       (waits for its namespace)
//      |  +-- retry delay --- kRetryDue <-- a read or write failed, or the
//      |  |                                 check found the write had no effect
//      |  +-- race delay ---- kRaced <----- someone else's change beat the
//      |                                    write to the kernel
//      +-- a change, a resync (unless a retry is due), its namespace appearing
//
// and kUnapplicable for a name that can never be a namespace's. A VRF is
// queued when it is first seen, when what must stand changes (unless only
// what is left out changed), when its namespace appears, at a resync, and
// when its retry is due; a request while it is read or written is answered
// by one more job afterwards, always with the latest rules. At most
// `maxJobs` reads and writes run at once.
//
// A write that someone else's change beat to the kernel (`raced`) is no
// failure: the VRF is read back again after 1 ms, then 2, 4... while it keeps
// losing, so that a table that is being rewritten is left to settle; once
// that wait would pass the first retry's, it is reported as a failure.
// A write counts as in place only once read back: when the read-back right
// after a write that succeeded still differs from the rules written, "the
// write did not take effect" is reported as a failure. A failure is
// reported and retried after a delay that grows from 100 ms to 30 s, on
// background tasks of the loop. A rule or chain that the table
// refuses, a chain it cannot give an owned chain, or a rule it cannot write
// (`ruleFault`), is reported and left out while the rest is written; it is
// forgotten once no longer wanted. A table that hears someone else's change
// as it happens has that VRF read back at once, as `vrfResync` does.
//
// Threading: the event thread only.
#pragma once

#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <vector>

#include "agent/backend/Backend.h"
#include "agent/backend/KernelTable.h"

namespace AclAgent {

class VrfApplier : public Backend {
 public:
  VrfApplier(Zov::Ptr<Pell::TaskSchedulerRoot> loop, std::unique_ptr<KernelTable> table,
             BackendOptions options, std::ostream& errors);
  // Ends the jobs under way; rules in place stay.
  ~VrfApplier() override;
  VrfApplier(const VrfApplier&) = delete;
  VrfApplier& operator=(const VrfApplier&) = delete;

  void vrfRulesIs(const std::string& vrf, std::optional<ChainRules> rules) override;
  void resync() override;
  void vrfResync(const std::string& vrf) override;
  void resyncPeriodIs(Pell::Nanoseconds period) override;
  std::vector<VrfStatus> statuses() const override;
  bool idle() const override { return running_ == 0 && queue_.empty(); }
  unsigned descriptorsPerVrf() const override { return table_->descriptorsPerNamespace(); }
  void idleListenerIs(std::function<void()> listener) override {
    idleListener_ = std::move(listener);
  }

 private:
  struct Vrf;

  void report(const Vrf& vrf, const std::string& message);
  ChainRules effective(const Vrf& vrf) const;
  void noteUnownable(Vrf& vrf);
  static std::string leftOut(const Vrf& vrf);
  static void pruneRefusals(Vrf& vrf);
  VrfStatus::State shownState(const Vrf& vrf) const;
  void sync(Vrf& vrf);
  void pump();
  int namespaceFd(Vrf& vrf);
  // Starts a read or write of `vrf` in its namespace through `start`, whose
  // end `handler` hears; false when it did not start (the VRF's step says
  // why).
  template <class Result, class Start>
  bool startJob(Vrf& vrf, void (VrfApplier::*handler)(Vrf&, Result), Start start);
  void startRead(Vrf& vrf);
  void handleRead(Vrf& vrf, KernelTable::ReadResult read);
  void handleWrite(Vrf& vrf, KernelTable::WriteResult written);
  // A job of `vrf`'s ended: the loop goes on with the queue.
  void jobEnded();
  void succeeded(Vrf& vrf);
  void namespaceMissing(Vrf& vrf);
  void failed(Vrf& vrf, const std::string& message);
  void raced(Vrf& vrf, const std::string& message);
  // Reads `vrf` back again after `delay`.
  void retryIn(Vrf& vrf, Pell::Nanoseconds delay);

  Zov::Ptr<Pell::TaskSchedulerRoot> loop_;
  std::unique_ptr<KernelTable> table_;
  BackendOptions options_;
  std::ostream& errors_;
  std::map<std::string, std::unique_ptr<Vrf>> vrfs_;
  std::deque<Vrf*> queue_;
  unsigned running_ = 0;
  std::function<void()> idleListener_;
  std::unique_ptr<Pell::BackgroundTimer> resyncTimer_;
};

}  // namespace AclAgent
