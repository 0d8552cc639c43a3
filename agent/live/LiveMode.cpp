#include "agent/live/LiveMode.h"

#include <dirent.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

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
  if (inotify_ < 0) {
    errors_ << "acl-agent: cannot follow namespaces in " << quoteName(namespaces_.dir()) << ": "
            << std::strerror(errno) << " (only VRF default is followed)\n";
  } else {
    watch_ = Pell::FdWatch(*loop_, inotify_, [this] { readNamespaceEvents(); });
    watchFolder();
  }
  rescan();
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
  if (refused_.count(name)) return;
  const std::optional<std::string> vrf = namespaces_.vrfOf(name);
  if (!vrf) {
    if (namespaces_.namesDefault(name)) {
      refuse(name, std::string(kDefaultVrf),
             "namespace " + shownName(name) +
                 " is not followed: VRF default is the agent's own namespace");
    }
    return;
  }
  // A namespace made again under the same name is a new one, in the room
  // the old one leaves.
  if (monitors_.count(*vrf)) {
    forget(name);
  } else if (auto full = descriptorsFull()) {
    refuse(name, *vrf, *full);
    crowdedOut_.insert(name);
    return;
  }
  // The VRF is known before its links are reported.
  try {
    state_.vrfIs(*vrf);
  } catch (const Zov::RangeException& e) {
    refuse(name, *vrf,
           e.limit() ? "a VRF name is at most " + std::to_string(e.limit()) + " bytes"
                     : std::string(e.what()));
    return;
  }
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
      refuse(name, *vrf, e.what());
      return;
    }
    retry_.armIn(kRetryDelay);
  }
}

std::optional<std::string> LiveMode::descriptorsFull() const {
  // Each namespace followed holds its socket, and what the backend keeps
  // there; what is left must do for the agent's own descriptors and the
  // backend's writes (a namespace, a memory file and two pipes for each
  // child, a few children at once). Past that, one more namespace is
  // refused rather than every write failing.
  constexpr rlim_t kReserve = 64;
  const rlim_t each = std::max(options_.descriptorsPerNamespace, 1u);
  rlimit limit;
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur == RLIM_INFINITY ||
      (monitors_.size() + 1) * each + kReserve <= limit.rlim_cur) {
    return std::nullopt;
  }
  return "not followed: " + std::to_string(monitors_.size()) +
         " namespaces are followed already, and the limit of " + std::to_string(limit.rlim_cur) +
         " open descriptors leaves no room for more (raise the hard limit)";
}

void LiveMode::refuse(const std::string& name, const std::string& vrf, const std::string& why) {
  refused_.insert(name);
  errors_ << "acl-agent: vrf " << shownName(vrf) << ": " << why << "\n";
}

void LiveMode::takeUpCrowdedOut() {
  if (crowdedOut_.empty() || descriptorsFull()) return;
  const std::string name = *crowdedOut_.begin();
  crowdedOut_.erase(crowdedOut_.begin());
  refused_.erase(name);
  errors_ << "acl-agent: vrf " << shownName(*namespaces_.vrfOf(name))
          << ": followed now: a namespace went and left room\n";
  namespaceIs(name);
}

bool LiveMode::forget(const std::string& name) {
  refused_.erase(name);
  crowdedOut_.erase(name);
  const std::optional<std::string> vrf = namespaces_.vrfOf(name);
  if (!vrf) return false;
  pending_.erase(*vrf);
  const bool followed = monitors_.erase(*vrf) > 0;
  state_.vrfDel(*vrf);
  if (followed && options_.namespaceGone) options_.namespaceGone(*vrf);
  return followed;
}

void LiveMode::namespaceDel(const std::string& name) {
  if (forget(name)) takeUpCrowdedOut();
}

void LiveMode::retryPending() {
  std::vector<std::string> names;
  for (const auto& [vrf, attempts] : pending_) {
    names.push_back(namespaces_.netnsOf(vrf));
  }
  for (const std::string& name : names) namespaceIs(name);
}

bool LiveMode::watchFolder() {
  constexpr std::uint32_t kFolderEvents = IN_CREATE | IN_DELETE | IN_MOVED_TO | IN_MOVED_FROM |
                                          IN_DELETE_SELF | IN_MOVE_SELF | IN_ONLYDIR;
  const std::string& dir = namespaces_.dir();
  folderWatch_ = inotify_add_watch(inotify_, dir.c_str(), kFolderEvents);
  if (folderWatch_ < 0 && errno == ENOENT) {
    // The first `ip netns add` makes the folder: wait for it where it will be.
    if (parentWatch_ < 0) {
      std::string parent = std::filesystem::path(dir).parent_path();
      if (parent.empty()) parent = ".";
      parentWatch_ =
          inotify_add_watch(inotify_, parent.c_str(), IN_CREATE | IN_MOVED_TO | IN_ONLYDIR);
    }
    // The folder may have been made between the two calls.
    if (parentWatch_ >= 0) folderWatch_ = inotify_add_watch(inotify_, dir.c_str(), kFolderEvents);
    if (parentWatch_ >= 0 && folderWatch_ < 0 && errno == ENOENT) return false;
  }
  if (folderWatch_ < 0) {
    if (!unwatchable_) {
      errors_ << "acl-agent: cannot follow namespaces in " << quoteName(dir) << ": "
              << std::strerror(errno) << " (only VRF default is followed)\n";
    }
    unwatchable_ = true;
    return false;
  }
  if (parentWatch_ >= 0) {
    inotify_rm_watch(inotify_, parentWatch_);
    parentWatch_ = -1;
  }
  return true;
}

void LiveMode::rescan() {
  std::set<std::string> present;
  if (DIR* folder = ::opendir(namespaces_.dir().c_str())) {
    while (const dirent* entry = ::readdir(folder)) {
      const std::string_view name = entry->d_name;
      if (name != "." && name != "..") present.emplace(name);
    }
    ::closedir(folder);
  } else if (errno != ENOENT) {
    errors_ << "acl-agent: cannot read " << quoteName(namespaces_.dir()) << ": "
            << std::strerror(errno) << "\n";
    return;
  }
  std::set<std::string> known = refused_;
  for (const auto& [vrf, monitor] : monitors_) {
    if (vrf != kDefaultVrf) known.insert(namespaces_.netnsOf(vrf));
  }
  for (const auto& [vrf, attempts] : pending_) known.insert(namespaces_.netnsOf(vrf));
  for (const std::string& name : known) {
    if (!present.count(name)) namespaceDel(name);
  }
  for (const std::string& name : present) {
    if (!known.count(name)) namespaceIs(name);
  }
}

void LiveMode::readNamespaceEvents() {
  alignas(inotify_event) char buffer[4096];
  bool lost = false;  // events were lost, or the folder came or went
  while (true) {
    const ssize_t n = read(inotify_, buffer, sizeof buffer);
    if (n <= 0) break;
    for (ssize_t at = 0; at < n;) {
      const auto* event = reinterpret_cast<const inotify_event*>(buffer + at);
      at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
      if (event->mask & IN_Q_OVERFLOW) {
        lost = true;
      } else if (event->wd == parentWatch_ && parentWatch_ >= 0) {
        lost |= event->len > 0 &&
                event->name == std::filesystem::path(namespaces_.dir()).filename().string();
      } else if (event->wd == folderWatch_ && folderWatch_ >= 0) {
        if (event->mask & (IN_DELETE_SELF | IN_MOVE_SELF | IN_IGNORED)) {
          // The folder went, and every namespace with it.
          if (!(event->mask & IN_IGNORED)) inotify_rm_watch(inotify_, folderWatch_);
          folderWatch_ = -1;
          lost = true;
        } else if (event->len > 0) {
          const std::string name = event->name;
          if (event->mask & (IN_CREATE | IN_MOVED_TO)) namespaceIs(name);
          if (event->mask & (IN_DELETE | IN_MOVED_FROM)) namespaceDel(name);
        }
      }
    }
  }
  if (!lost) return;
  if (folderWatch_ < 0) watchFolder();
  rescan();
}

}  // namespace AclAgent
