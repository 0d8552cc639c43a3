// LiveMode: `acl-agent --live`, the device's state from the Linux kernel as
// it changes.
//
//   LiveMode live(loop, db, {}, NamespaceMap("%s"), errors);  // publishes what is there now
//   loop->runUntil([&] { return stopped; });                 // and follows every change
//
// VRFs are "default" (the agent's own namespace) and each namespace of the
// namespace map's folder that is a VRF's, followed with inotify as
// namespaces come and go; a namespace deleted and made again is a new one.
// Each namespace's links are followed by a `LinkMonitor` opened inside it and
// published through `KernelState`. A namespace whose file appears before it
// is mounted (as `ip netns add` makes it) is tried again shortly.
//
// Threading: the event thread only.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <string>
#include <vector>

#include "agent/live/KernelState.h"
#include "agent/live/LinkMonitor.h"
#include "agent/os/Namespaces.h"

namespace AclAgent {

struct LiveOptions {
  std::vector<std::string> mdnsGlobs;  // empty: every interface
  // Called with the VRF of each namespace that appears after the start (the
  // kernel backend reads it back then).
  std::function<void(const std::string& vrf)> namespaceAppeared;
  // Called once, when every namespace followed has first been read whole.
  std::function<void()> dumped;
};

class LiveMode {
 public:
  LiveMode(const Zov::Ptr<Pell::TaskSchedulerRoot>& loop, StateDatabase& db, LiveOptions options,
           NamespaceMap namespaces, std::ostream& errors);
  ~LiveMode();
  LiveMode(const LiveMode&) = delete;
  LiveMode& operator=(const LiveMode&) = delete;

  const KernelState& state() const { return state_; }
  // Dumps over all namespaces; more than one per namespace means
  // notifications were lost and it was read again.
  unsigned dumps() const;
  // Whether every namespace followed has been read whole at least once.
  bool dumped() const;

 private:
  void follow(const std::string& vrf, const std::string& netnsPath);
  void namespaceIs(const std::string& name);
  void namespaceDel(const std::string& name);
  void readNamespaceEvents();
  void retryPending();
  void dumpEnded(const std::string& vrf);

  Zov::Ptr<Pell::TaskSchedulerRoot> loop_;
  LiveOptions options_;
  NamespaceMap namespaces_;
  std::ostream& errors_;
  bool started_ = false;  // past the first namespaces, which are no news
  bool dumpedOnce_ = false;
  KernelState state_;
  std::map<std::string, std::unique_ptr<LinkMonitor>> monitors_;  // by VRF
  std::map<std::string, int> pending_;  // VRF -> attempts, not yet mounted
  Pell::BackgroundTimer retry_;
  int inotify_ = -1;
  Pell::FdWatch watch_;
};

}  // namespace AclAgent
