// LinkMonitor: one network namespace's links, followed through rtnetlink.
//
//   LinkMonitor monitor(loop, "/run/netns/red", {
//       .linkIs = [](int index, const KernelLink& link) { ... },
//       .linkDel = [](int index) { ... },
//       .dumpBegin = [] { ... }, .dumpEnd = [] { ... }});
//
// The socket is opened inside the namespace (the event thread enters it for
// the call and comes back), subscribed to link changes, and asks for a dump
// of every link at once; the loop hears what the kernel sends. The monitor
// asks for a whole dump again, so that the caller can publish only the
// differences, when the kernel says notifications were lost (the socket
// overran: ENOBUFS), and when a dump was interrupted by a change (links it
// did not mention may still be there) or cut short: a dump ends
// (`dumpEnd`) only once one has run whole. Messages are parsed with libmnl.
// Each dump asked for is traced at level 0 of the trace handle "LiveMode",
// with the reason.
//
// Threading: the event thread only.
#pragma once

#include <cstddef>
#include <functional>
#include <string>

#include "agent/live/KernelState.h"
#include "platform/Pell.h"

struct mnl_socket;
struct nlmsghdr;

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
  // Whether a dump is under way, or due.
  bool dumping() const { return dumping_ || redump_; }

  // Takes the messages of one read from the socket, as the loop's handler
  // does: for tests, which feed what the kernel does not send on demand.
  void handleMessages(const void* data, std::size_t size);
  // The port and sequence number that replies to the last dump carry.
  unsigned portId() const { return portId_; }
  unsigned sequence() const { return sequence_; }

 private:
  void requestDump(const char* why);
  void readAll();
  void handleLink(const nlmsghdr* header);
  void dumpEnded(const nlmsghdr* header);

  Pell::TaskSchedulerRoot& loop_;
  Handlers handlers_;
  std::string where_;  // the namespace, as messages name it
  mnl_socket* socket_ = nullptr;
  Pell::FdWatch watch_;
  unsigned portId_ = 0;
  unsigned sequence_ = 0;
  unsigned dumps_ = 0;
  bool dumping_ = false;
  bool replied_ = false;  // the kernel has answered the dump under way
  // Why another dump must follow the one under way; null when none must.
  const char* redump_ = nullptr;
};

}  // namespace AclAgent
