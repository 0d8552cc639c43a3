// ServiceNotifier: tells the service manager how the agent is, through the
// datagram socket that `NOTIFY_SOCKET` names (a path, or an abstract name
// written with a leading `@`). Without `NOTIFY_SOCKET` it sends nothing.
//
//   ServiceNotifier notifier(loop, std::cerr);  // reads the environment
//   notifier.send("READY=1");
//   notifier.statusIs("2 VRFs in place, 0 not");  // sent when it changed
//
// With `WATCHDOG_USEC` set (and `WATCHDOG_PID`, when set, naming this
// process), `WATCHDOG=1` is sent at half that period by a background task
// of the loop: it stops when the loop stops turning, which is what the
// service manager wants to hear. A send that fails is reported once.
//
// The protocol is a few lines (one datagram, `NAME=VALUE` lines), so it is
// written here rather than taken from a library the agent would then need
// on every machine.
//
// Threading: the event thread only.
#pragma once

#include <ostream>
#include <string>

#include "platform/Pell.h"

namespace AclAgent {

class ServiceNotifier {
 public:
  ServiceNotifier(const Zov::Ptr<Pell::TaskSchedulerRoot>& loop, std::ostream& errors);
  ~ServiceNotifier();
  ServiceNotifier(const ServiceNotifier&) = delete;
  ServiceNotifier& operator=(const ServiceNotifier&) = delete;

  bool active() const { return fd_ >= 0; }
  // Sends `message` (lines of NAME=VALUE); false when it could not.
  bool send(const std::string& message);
  // Sends `STATUS=line` when it differs from the last one sent.
  void statusIs(const std::string& line);
  // How often `WATCHDOG=1` is sent (half `WATCHDOG_USEC`), or 0: never.
  Pell::Nanoseconds watchdogPeriod() const { return watchdogPeriod_; }

 private:
  std::ostream& errors_;
  int fd_ = -1;
  std::string address_;  // sun_path bytes; a leading NUL for an abstract name
  std::string status_;
  bool reported_ = false;
  Pell::Nanoseconds watchdogPeriod_ = 0;
  Pell::BackgroundTimer watchdog_;
};

}  // namespace AclAgent
