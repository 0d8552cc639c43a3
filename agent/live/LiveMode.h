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
// A folder that does not exist yet (no `ip netns add` since boot) is waited
// for in its parent, and read when it appears; one that goes is waited for
// again. When inotify says events were lost, the folder is read again and
// only the differences are followed. A namespace that cannot be a VRF's (a
// VRF name over 100 bytes, or the one the template makes of "default") is
// reported once on the error stream, as `acl-agent: vrf "NAME": MESSAGE`,
// and left alone until it goes. So is one that would leave too few open
// descriptors for the backend's writes; it is followed once a namespace
// followed goes and makes room.
//
// Threading: the event thread only.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <ostream>
#include <set>
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
  // Called with the VRF of each namespace followed that went, or was found
  // made again: the device no longer has that VRF, nor any rule in it.
  std::function<void(const std::string& vrf)> namespaceGone;
  // Called once, when every namespace followed has first been read whole.
  std::function<void()> dumped;
  // The descriptors each namespace followed keeps open: its own socket, and
  // what the backend keeps in it.
  unsigned descriptorsPerNamespace = 1;
};

class LiveMode {
 public:
  LiveMode(const Zov::Ptr<Pell::TaskSchedulerRoot>& loop, StateDatabase& db, LiveOptions options,
           NamespaceMap namespaces, std::ostream& errors);
  ~LiveMode();
  LiveMode(const LiveMode&) = delete;
  LiveMode& operator=(const LiveMode&) = delete;

  const KernelState& state() const { return state_; }
  // The globs of the links that may want the rule change (see KernelState).
  void mdnsGlobsIs(std::vector<std::string> mdnsGlobs) { state_.mdnsGlobsIs(std::move(mdnsGlobs)); }
  // Dumps over all namespaces; more than one per namespace means
  // notifications were lost and it was read again.
  unsigned dumps() const;
  // Whether every namespace followed has been read whole at least once.
  bool dumped() const;

 private:
  void follow(const std::string& vrf, const std::string& netnsPath);
  void namespaceIs(const std::string& name);
  void namespaceDel(const std::string& name);
  // Stops following namespace `name`, and forgets any report of it; whether
  // it was followed.
  bool forget(const std::string& name);
  // Reports namespace `name` (of VRF `vrf`) once and leaves it alone.
  void refuse(const std::string& name, const std::string& vrf, const std::string& why);
  // Follows a namespace refused for want of descriptors, when there is one
  // and room for it now.
  void takeUpCrowdedOut();
  // Why one more namespace cannot be followed within the limit on open
  // descriptors; nothing when it can.
  std::optional<std::string> descriptorsFull() const;
  // Watches the folder, or its parent for the folder's creation while it
  // does not exist; whether the folder is watched.
  bool watchFolder();
  // Follows what the folder holds now: namespaces it no longer holds go,
  // new ones are followed, the others stay as they are.
  void rescan();
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
  std::set<std::string> refused_;       // namespaces reported, until they go
  // Of those, the namespaces refused only for want of descriptors: taken up,
  // in bytewise order, as namespaces followed go.
  std::set<std::string> crowdedOut_;
  Pell::BackgroundTimer retry_;
  int inotify_ = -1;
  int folderWatch_ = -1;      // inotify's watch on the folder, or -1
  int parentWatch_ = -1;      // on its parent, while the folder does not exist
  bool unwatchable_ = false;  // reported that the folder cannot be followed
  Pell::FdWatch watch_;
};

}  // namespace AclAgent
