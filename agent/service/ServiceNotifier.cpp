#include "agent/service/ServiceNotifier.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstdlib>
#include <cstring>

#include "agent/base/Text.h"

namespace AclAgent {

ServiceNotifier::ServiceNotifier(const Zov::Ptr<Pell::TaskSchedulerRoot>& loop,
                                 std::ostream& errors)
    : errors_(errors), watchdog_(loop, "watchdogTask", [this] {
        send("WATCHDOG=1");
        watchdog_.armIn(watchdogPeriod_);
      }) {
  const char* socketName = std::getenv("NOTIFY_SOCKET");
  if (!socketName || (socketName[0] != '/' && socketName[0] != '@')) return;
  address_ = socketName;
  if (address_[0] == '@') address_[0] = '\0';
  if (address_.size() >= sizeof(sockaddr_un::sun_path)) {
    errors_ << "acl-agent: NOTIFY_SOCKET " << shownName(socketName) << " is too long\n";
    return;
  }
  fd_ = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
  if (fd_ < 0) {
    errors_ << "acl-agent: NOTIFY_SOCKET: socket: " << std::strerror(errno) << "\n";
    return;
  }
  const char* usec = std::getenv("WATCHDOG_USEC");
  const char* pid = std::getenv("WATCHDOG_PID");
  long long micros = 0;
  if (usec && std::from_chars(usec, usec + std::strlen(usec), micros).ec == std::errc() &&
      micros > 0 && (!pid || std::atoll(pid) == getpid())) {
    // Half the manager's period, so that a late turn of the loop is no miss.
    watchdogPeriod_ = micros * 1000 / 2;
    watchdog_.armIn(watchdogPeriod_);
  }
}

ServiceNotifier::~ServiceNotifier() {
  watchdog_.stop();
  if (fd_ >= 0) close(fd_);
}

bool ServiceNotifier::send(const std::string& message) {
  if (fd_ < 0) return false;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, address_.data(), address_.size());
  const socklen_t length =
      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + address_.size());
  ssize_t n;
  do {
    n = sendto(fd_, message.data(), message.size(), MSG_NOSIGNAL,
               reinterpret_cast<sockaddr*>(&address), length);
  } while (n < 0 && errno == EINTR);
  if (n < 0 && !reported_) {
    reported_ = true;
    errors_ << "acl-agent: warning: cannot tell the service manager "
            << shownName(message.substr(0, message.find('\n'))) << ": " << std::strerror(errno)
            << "\n";
  }
  return n >= 0;
}

void ServiceNotifier::statusIs(const std::string& line) {
  if (line == status_) return;
  status_ = line;
  send("STATUS=" + line);
}

}  // namespace AclAgent
