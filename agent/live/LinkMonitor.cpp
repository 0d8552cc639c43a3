#include "agent/live/LinkMonitor.h"

#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <linux/if.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <stdexcept>
#include <vector>

#include "agent/base/Text.h"
#include "agent/os/Namespaces.h"

namespace AclAgent {

namespace {

std::runtime_error failure(const std::string& what) {
  return std::runtime_error(what + ": " + std::strerror(errno));
}

// Opens a route netlink socket inside the namespace at `path` (empty: ours).
mnl_socket* openInNamespace(const std::string& path) {
  int home = -1;
  int target = -1;
  if (!path.empty()) {
    home = open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    if (home < 0) throw failure("cannot open the agent's own network namespace");
    // Never a blocking open: a FIFO left where a namespace should be would
    // hold the event thread.
    std::string why;
    target = openNamespace(path, &why);
    if (target < 0) {
      close(home);
      throw std::runtime_error(why.empty() ? "no network namespace " + quoteName(path) : why);
    }
    if (setns(target, CLONE_NEWNET) != 0) {
      const int error = errno;
      close(target);
      close(home);
      errno = error;
      throw failure("cannot enter network namespace " + quoteName(path));
    }
    close(target);
  }
  mnl_socket* socket = mnl_socket_open2(NETLINK_ROUTE, SOCK_CLOEXEC | SOCK_NONBLOCK);
  const int error = errno;
  if (home >= 0) {
    // Back home before anything else can run on this thread.
    if (setns(home, CLONE_NEWNET) != 0) std::abort();
    close(home);
  }
  errno = error;
  if (!socket) {
    throw failure("cannot open a route netlink socket in " +
                  (path.empty() ? std::string("the agent's own namespace") : quoteName(path)));
  }
  return socket;
}

Zov::TraceHandle& trace() {
  static Zov::TraceHandle handle("LiveMode", false);
  return handle;
}

int onAttribute(const nlattr* attribute, void* data) {
  if (mnl_attr_get_type(attribute) == IFLA_IFNAME &&
      mnl_attr_validate(attribute, MNL_TYPE_STRING) >= 0) {
    *static_cast<const char**>(data) = mnl_attr_get_str(attribute);
  }
  return MNL_CB_OK;
}

}  // namespace

LinkMonitor::LinkMonitor(Pell::TaskSchedulerRoot& loop, const std::string& netnsPath,
                         Handlers handlers)
    : loop_(loop),
      handlers_(std::move(handlers)),
      where_(netnsPath.empty() ? "the agent's own namespace" : quoteName(netnsPath)),
      socket_(openInNamespace(netnsPath)) {
  if (mnl_socket_bind(socket_, RTMGRP_LINK, MNL_SOCKET_AUTOPID) < 0) {
    const auto error = failure("cannot subscribe to link changes in " + where_);
    mnl_socket_close(socket_);
    throw error;
  }
  portId_ = mnl_socket_get_portid(socket_);
  sequence_ = static_cast<unsigned>(time(nullptr));
  watch_ = Pell::FdWatch(loop_, mnl_socket_get_fd(socket_), [this] { readAll(); });
  requestDump("the namespace is new");
}

LinkMonitor::~LinkMonitor() {
  watch_.reset();
  mnl_socket_close(socket_);
}

void LinkMonitor::requestDump(const char* why) {
  char buffer[MNL_SOCKET_BUFFER_SIZE];
  nlmsghdr* header = mnl_nlmsg_put_header(buffer);
  header->nlmsg_type = RTM_GETLINK;
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  header->nlmsg_seq = ++sequence_;
  auto* request = static_cast<rtgenmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(rtgenmsg)));
  request->rtgen_family = AF_PACKET;
  if (mnl_socket_sendto(socket_, header, header->nlmsg_len) < 0) {
    throw failure("cannot ask the kernel for the links in " + where_);
  }
  ++dumps_;
  dumping_ = true;
  replied_ = false;
  redump_ = nullptr;
  ZOV_TRACE(trace(), 0, __FILE__, "requestDump")
      << "dump " << dumps_ << " of the links in " << where_ << ": " << why;
  if (handlers_.dumpBegin) handlers_.dumpBegin();
}

void LinkMonitor::readAll() {
  std::vector<char> buffer(32768);  // room for a dump message of many links
  while (true) {
    const ssize_t n = mnl_socket_recvfrom(socket_, buffer.data(), buffer.size());
    if (n < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK) {
        // A dump is asked for only once the socket is drained: the kernel
        // drops a request it takes while the socket is full, and the error
        // that would say so with it. The kernel also runs one dump at a
        // time on a socket, and one under way has ended by now.
        if (redump_ && !dumping_) requestDump(redump_);
        return;
      }
      if (errno == EINTR) continue;
      if (errno == ENOBUFS) {
        // The socket overran: notifications were lost. A dump that has not
        // answered yet may have been lost with them; one that has runs on
        // (its parts wait for room) and is followed by another.
        redump_ = "notifications were lost";
        if (!replied_) dumping_ = false;
        continue;
      }
      throw failure("cannot read link changes in " + where_);
    }
    handleMessages(buffer.data(), static_cast<std::size_t>(n));
  }
}

void LinkMonitor::handleMessages(const void* data, std::size_t size) {
  int left = static_cast<int>(size);
  for (const auto* header = static_cast<const nlmsghdr*>(data); mnl_nlmsg_ok(header, left);
       header = mnl_nlmsg_next(header, &left)) {
    // Dump replies carry our port and the request's sequence; notifications
    // carry those of whoever made the change.
    const bool reply = dumping_ && header->nlmsg_pid == portId_ && header->nlmsg_seq == sequence_;
    replied_ |= reply;
    // Links came or went while the dump ran, so it may have skipped some
    // that stayed all along; the closing message says so too.
    if (reply && (header->nlmsg_flags & NLM_F_DUMP_INTR)) {
      redump_ = "the dump was interrupted by a change";
    }
    switch (header->nlmsg_type) {
      case RTM_NEWLINK:
      case RTM_DELLINK:
        handleLink(header);
        break;
      case NLMSG_DONE:
      case NLMSG_ERROR:
        if (reply) dumpEnded(header);
        break;
      default:
        break;
    }
  }
}

void LinkMonitor::handleLink(const nlmsghdr* header) {
  if (mnl_nlmsg_get_payload_len(header) < sizeof(ifinfomsg)) return;
  const auto* info = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(header));
  if (header->nlmsg_type == RTM_DELLINK) {
    if (handlers_.linkDel) handlers_.linkDel(info->ifi_index);
    return;
  }
  const char* name = nullptr;
  mnl_attr_parse(header, sizeof(*info), onAttribute, &name);
  if (name && handlers_.linkIs) {
    handlers_.linkIs(info->ifi_index, KernelLink{name, info->ifi_flags});
  }
}

void LinkMonitor::dumpEnded(const nlmsghdr* header) {
  // Both the closing message and an error carry the dump's status first.
  int error = 0;
  if (mnl_nlmsg_get_payload_len(header) >= sizeof(int)) {
    std::memcpy(&error, mnl_nlmsg_get_payload(header), sizeof error);
  }
  dumping_ = false;
  if (error == -EINTR || error == -EBUSY || error == -EAGAIN || error == -ENOBUFS) {
    redump_ = "the dump was cut short";
  } else if (error < 0) {
    errno = -error;
    throw failure("the kernel refused the links in " + where_);
  }
  // Another dump, when one is due, is asked for once the socket is drained.
  if (!redump_ && handlers_.dumpEnd) handlers_.dumpEnd();
}

}  // namespace AclAgent
