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
      throw std::runtime_error(why.empty() ? "no network namespace " + path : why);
    }
    if (setns(target, CLONE_NEWNET) != 0) {
      const int error = errno;
      close(target);
      close(home);
      errno = error;
      throw failure("cannot enter network namespace " + path);
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
  if (!socket) throw failure("cannot open a route netlink socket in " + path);
  return socket;
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
    : loop_(loop), handlers_(std::move(handlers)), socket_(openInNamespace(netnsPath)) {
  if (mnl_socket_bind(socket_, RTMGRP_LINK, MNL_SOCKET_AUTOPID) < 0) {
    const auto error = failure("cannot subscribe to link changes in " + netnsPath);
    mnl_socket_close(socket_);
    throw error;
  }
  portId_ = mnl_socket_get_portid(socket_);
  sequence_ = static_cast<unsigned>(time(nullptr));
  watch_ = Pell::FdWatch(loop_, mnl_socket_get_fd(socket_), [this] { readAll(); });
  requestDump();
}

LinkMonitor::~LinkMonitor() {
  watch_.reset();
  mnl_socket_close(socket_);
}

void LinkMonitor::requestDump() {
  char buffer[MNL_SOCKET_BUFFER_SIZE];
  nlmsghdr* header = mnl_nlmsg_put_header(buffer);
  header->nlmsg_type = RTM_GETLINK;
  header->nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  header->nlmsg_seq = ++sequence_;
  auto* request = static_cast<rtgenmsg*>(mnl_nlmsg_put_extra_header(header, sizeof(rtgenmsg)));
  request->rtgen_family = AF_PACKET;
  if (mnl_socket_sendto(socket_, header, header->nlmsg_len) < 0) {
    throw failure("cannot ask the kernel for its links");
  }
  ++dumps_;
  dumping_ = true;
  if (handlers_.dumpBegin) handlers_.dumpBegin();
}

void LinkMonitor::readAll() {
  std::vector<char> buffer(32768);  // room for a dump message of many links
  while (true) {
    const ssize_t n = mnl_socket_recvfrom(socket_, buffer.data(), buffer.size());
    if (n < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return;
      if (errno == ENOBUFS) {
        // Notifications were lost: read the whole namespace again.
        requestDump();
        continue;
      }
      throw failure("cannot read link changes");
    }
    const auto onMessage = [](const nlmsghdr* header, void* data) -> int {
      auto* self = static_cast<LinkMonitor*>(data);
      if (header->nlmsg_type != RTM_NEWLINK && header->nlmsg_type != RTM_DELLINK) {
        return MNL_CB_OK;
      }
      const auto* info = static_cast<const ifinfomsg*>(mnl_nlmsg_get_payload(header));
      if (header->nlmsg_type == RTM_DELLINK) {
        if (self->handlers_.linkDel) self->handlers_.linkDel(info->ifi_index);
        return MNL_CB_OK;
      }
      const char* name = nullptr;
      mnl_attr_parse(header, sizeof(*info), onAttribute, &name);
      if (name && self->handlers_.linkIs) {
        self->handlers_.linkIs(info->ifi_index, KernelLink{name, info->ifi_flags});
      }
      return MNL_CB_OK;
    };
    // Dump replies carry our sequence and port; notifications carry 0s,
    // which libmnl lets through.
    // libmnl ends a batch at the dump's closing message without passing it on.
    if (mnl_cb_run(buffer.data(), static_cast<std::size_t>(n), 0, 0, onMessage, this) ==
            MNL_CB_STOP &&
        dumping_) {
      dumping_ = false;
      if (handlers_.dumpEnd) handlers_.dumpEnd();
    }
  }
}

}  // namespace AclAgent
