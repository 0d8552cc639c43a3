#include "agent/live/LiveMode.h"

#include <dirent.h>
#include <sys/inotify.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "agent/base/Text.h"

namespace AclAgent {

namespace {
// How often, and how many times, a namespace file that is not mounted yet is
// tried again.
constexpr Pell::Nanoseconds kRetryDelay = 20'000'000;
constexpr int kRetries = 50;
}  // namespace

LiveMode::LiveMode(const Zov::Ptr<Pell::TaskSchedulerRoot>& loop, StateDatabase& db,
                   LiveOptions options, NamespaceMap namespaces, std::ostream& errors)
    : loop_(loop),
      options_(std::move(options)),
      namespaces_(std::move(namespaces)),
      errors_(errors),
      state_(db, options_.mdnsGlobs),
      retry_(loop, "namespaceRetryTask", [this] { retryPending(); }) {
  follow(std::string(kDefaultVrf), "");
  inotify_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
  if (inotify_ < 0 || inotify_add_watch(inotify_, namespaces_.dir().c_str(),
                                        IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_MOVED_FROM) < 0) {
    errors_ << "acl-agent: cannot follow namespaces in " << quoteName(namespaces_.dir()) << ": "
            << std::strerror(errno) << " (only VRF default is followed)\n";
  } else {
    watch_ = Pell::FdWatch(*loop_, inotify_, [this] { readNamespaceEvents(); });
  }
  std::string error;
  for (const std::string& name : namespaces_.listed(&error)) namespaceIs(name);
  // Only namespaces that appear later are news to the backend.
  started_ = true;
}

LiveMode::~LiveMode() {
  watch_.reset();
  if (inotify_ >= 0) close(inotify_);
}

unsigned LiveMode::dumps() const {
  unsigned total = 0;
  for (const auto& [vrf, monitor] : monitors_) total += monitor->dumps();
  return total;
}

bool LiveMode::dumped() const {
  for (const auto& [vrf, monitor] : monitors_) {
    if (monitor->dumping()) return false;
  }
  return true;
}

void LiveMode::follow(const std::string& vrf, const std::string& netnsPath) {
  LinkMonitor::Handlers handlers{
      [this, vrf](int index, const KernelLink& link) { state_.linkIs(vrf, index, link); },
      [this, vrf](int index) { state_.linkDel(vrf, index); },
      [this, vrf] { state_.dumpBegin(vrf); },
      [this, vrf] { dumpEnded(vrf); },
  };
  monitors_[vrf] = std::make_unique<LinkMonitor>(*loop_, netnsPath, std::move(handlers));
}

void LiveMode::dumpEnded(const std::string& vrf) {
  state_.dumpEnd(vrf);
  if (dumpedOnce_ || !dumped()) return;
  dumpedOnce_ = true;
  if (options_.dumped) options_.dumped();
}

void LiveMode::namespaceIs(const std::string& name) {
  const std::optional<std::string> vrf = namespaces_.vrfOf(name);
  if (!vrf) return;
  // A namespace made again under the same name is a new one.
  if (monitors_.count(*vrf)) namespaceDel(name);
  // The VRF is known before its links are reported.
  state_.vrfIs(*vrf);
  try {
    follow(*vrf, namespaces_.pathOf(name));
    pending_.erase(*vrf);
    if (started_ && options_.namespaceAppeared) options_.namespaceAppeared(*vrf);
  } catch (const std::runtime_error& e) {
    state_.vrfDel(*vrf);
    // `ip netns add` makes the file first and mounts the namespace on it
    // after: try again shortly, and give up with a report.
    if (++pending_[*vrf] > kRetries) {
      pending_.erase(*vrf);
      errors_ << "acl-agent: vrf " << quoteName(*vrf) << ": " << e.what() << "\n";
      return;
    }
    retry_.armIn(kRetryDelay);
  }
}

void LiveMode::namespaceDel(const std::string& name) {
  const std::optional<std::string> vrf = namespaces_.vrfOf(name);
  if (!vrf) return;
  pending_.erase(*vrf);
  monitors_.erase(*vrf);
  state_.vrfDel(*vrf);
}

void LiveMode::retryPending() {
  std::vector<std::string> names;
  for (const auto& [vrf, attempts] : pending_) {
    names.push_back(namespaces_.netnsOf(vrf));
  }
  for (const std::string& name : names) namespaceIs(name);
}

void LiveMode::readNamespaceEvents() {
  alignas(inotify_event) char buffer[4096];
  while (true) {
    const ssize_t n = read(inotify_, buffer, sizeof buffer);
    if (n <= 0) return;
    for (ssize_t at = 0; at < n;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      if (event->len == 0) continue;
      const std::string name = event->name;
      if (event->mask & (IN_CREATE | IN_MOVED_TO)) namespaceIs(name);
      if (event->mask & (IN_DELETE | IN_MOVED_FROM)) namespaceDel(name);
    }
  }
}

}  // namespace AclAgent
