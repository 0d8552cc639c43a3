// What every backend shares: `show applied`, and the choice of backend.
#include "agent/backend/Backend.h"

#include <unistd.h>

#include "agent/backend/VrfApplier.h"
#include "agent/backend/iptables/IptablesTable.h"
#include "agent/base/Text.h"

namespace AclAgent {
namespace {

const char* stateName(VrfStatus::State state) {
  switch (state) {
    case VrfStatus::State::kOk:
      return "ok";
    case VrfStatus::State::kWriting:
      return "writing";
    case VrfStatus::State::kWaiting:
      return "waiting";
    case VrfStatus::State::kFailed:
      return "failed";
  }
  return "?";
}

// The kernel table that `options` choose: the one place that names a table.
std::unique_ptr<KernelTable> makeTable(const Zov::Ptr<Pell::TaskSchedulerRoot>& loop,
                                       const BackendOptions& options) {
  return std::make_unique<IptablesTable>(loop, options);
}

}  // namespace

std::string appliedText(const std::vector<VrfStatus>& statuses) {
  if (statuses.empty()) return "no vrfs\n";
  std::string text;
  for (const VrfStatus& s : statuses) {
    text += "applied vrf=" + quoteName(s.vrf) + " netns=" + quoteName(s.netns) +
            " state=" + stateName(s.state) + " rules=" + std::to_string(s.rules) +
            " writes=" + std::to_string(s.writes) + " repairs=" + std::to_string(s.repairs);
    if (s.state != VrfStatus::State::kOk) text += " error=" + quoteName(s.error);
    text += '\n';
  }
  return text;
}

std::vector<VrfStatus> notInPlace(const std::vector<VrfStatus>& statuses) {
  std::vector<VrfStatus> missing;
  for (const VrfStatus& status : statuses) {
    if (status.rules > 0 && status.state != VrfStatus::State::kOk) missing.push_back(status);
  }
  return missing;
}

std::unique_ptr<Backend> makeBackend(const Zov::Ptr<Pell::TaskSchedulerRoot>& loop,
                                     const BackendOptions& options, std::ostream& errors) {
  return std::make_unique<VrfApplier>(loop, makeTable(loop, options), options, errors);
}

bool removeApplied(const BackendOptions& options, std::ostream& errors) {
  const std::unique_ptr<KernelTable> table =
      makeTable(Pell::TaskSchedulerRoot::findOrCreateScheduler(), options);
  bool removed = true;
  auto report = [&](const std::string& where, const std::string& message) {
    errors << "acl-agent: remove applied: " << where << ": " << message << std::endl;
    removed = false;
  };
  if (auto error = table->removeAll(-1)) report("the agent's own namespace", *error);
  std::string error;
  const std::vector<std::string> names = options.namespaces.listed(&error);
  if (!error.empty()) report("namespaces", error);
  for (const std::string& name : names) {
    const std::string where = "netns " + quoteName(name);
    const int fd = openNamespace(options.namespaces.pathOf(name), &error);
    if (fd < 0) {
      // One deleted since the listing has nothing left to remove.
      if (!error.empty()) report(where, error);
      continue;
    }
    if (auto failure = table->removeAll(fd)) report(where, *failure);
    ::close(fd);
  }
  return removed;
}

}  // namespace AclAgent
