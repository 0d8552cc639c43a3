// LinkMonitor: one network namespace's links, followed through rtnetlink.
//
//   LinkMonitor monitor(loop, "/run/netns/red", {
//       .linkIs = [](int index, const KernelLink& link) { ... },
//       .linkDel = [](int index) { ... },
//       .dumpBegin = [] { ... }, .dumpEnd = [] { ... }});
//
// The socket is opened inside the namespace (the event thread enters it for
// the call and comes back), subscribed to link changes, and asks for a dump
// of every link at once; the loop hears what the kernel sends. When the
// kernel says notifications were lost (ENOBUFS), the monitor asks for a
// whole dump again, so that the caller can publish only the differences.
// Messages are parsed with libmnl.
//
// Threading: the event thread only.
#pragma once

#include <functional>
#include <string>

#include "agent/live/KernelState.h"
#include "platform/Pell.h"

struct mnl_socket;

namespace AclAgent {

class LinkMonitor {
 public:
  struct Handlers {
    std::function<void(int index, const KernelLink& link)> linkIs;
    std::function<void(int index)> linkDel;
    std::function<void()> dumpBegin;
    std::function<void()> dumpEnd;
  };

  // `netnsPath` empty: the agent's own namespace. Raises std::runtime_error
  // naming what failed when the namespace cannot be entered or the socket
  // cannot be opened.
  LinkMonitor(Pell::TaskSchedulerRoot& loop, const std::string& netnsPath, Handlers handlers);
  ~LinkMonitor();
  LinkMonitor(const LinkMonitor&) = delete;
  LinkMonitor& operator=(const LinkMonitor&) = delete;

  // Dumps started, the first included: more than one means notifications
  // were lost and the namespace was read again.
  unsigned dumps() const { return dumps_; }
  // Whether a dump is under way.
  bool dumping() const { return dumping_; }

 private:
  void requestDump();
  void readAll();

  Pell::TaskSchedulerRoot& loop_;
  Handlers handlers_;
  mnl_socket* socket_ = nullptr;
  Pell::FdWatch watch_;
  unsigned portId_ = 0;
  unsigned sequence_ = 0;
  unsigned dumps_ = 0;
  bool dumping_ = false;
};

}  // namespace AclAgent
