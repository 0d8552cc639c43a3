// What every backend shares: `show applied`, and the choice of backend.
#include "agent/backend/Backend.h"

#include <unistd.h>

#include "agent/backend/VrfApplier.h"
#include "agent/backend/iptables/IptablesTable.h"
#include "agent/backend/nft/NftTable.h"
#include "agent/base/Text.h"
#include "agent/os/ChildProcess.h"

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

// How long `iptables --version` may take.
constexpr Pell::Nanoseconds kVersionTimeout = 5'000'000'000;

// Why the `iptables` on PATH is not the nf_tables variant; nothing when it
// is.
std::optional<std::string> notNftIptables() {
  const ChildResult version =
      ChildProcess::run({"iptables", {"--version"}, -1, {}}, kVersionTimeout);
  if (!version.ok()) return version.whyFailed("iptables --version", kVersionTimeout, version.err);
  if (version.out.find("(nf_tables)") != std::string::npos) return std::nullopt;
  std::string line = version.out.substr(0, version.out.find('\n'));
  return "the iptables on PATH is not the nf_tables variant (" + line + ")";
}

// The kernel table of `kind`: the one place that names a table.
std::unique_ptr<KernelTable> makeTable(const Zov::Ptr<Pell::TaskSchedulerRoot>& loop,
                                       const BackendOptions& options, BackendOptions::Kind kind) {
  if (kind == BackendOptions::Kind::kNft) return std::make_unique<NftTable>(loop);
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
    if (!s.backend.empty()) text += " backend=" + s.backend;
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

BackendOptions::Kind chosenKind(const BackendOptions& options, std::string* why) {
  using Kind = BackendOptions::Kind;
  if (options.kind != Kind::kAuto) {
    *why = "asked for";
    return options.kind;
  }
  const BackendOptions defaults;
  if (options.iptablesNamed || options.iptablesRestore != defaults.iptablesRestore ||
      options.iptablesSave != defaults.iptablesSave) {
    *why = "auto: --iptables-restore or --iptables-save was given";
    return Kind::kIptables;
  }
  if (auto fault = NftTable::unavailable()) {
    *why = "auto: nf_tables cannot be used: " + *fault;
    return Kind::kIptables;
  }
  if (auto fault = notNftIptables()) {
    *why = "auto: " + *fault;
    return Kind::kIptables;
  }
  *why = "auto: the kernel has nf_tables and the iptables on PATH is its nf_tables variant";
  return Kind::kNft;
}

std::unique_ptr<Backend> makeBackend(const Zov::Ptr<Pell::TaskSchedulerRoot>& loop,
                                     const BackendOptions& options, std::ostream& errors) {
  std::string why;
  const BackendOptions::Kind kind = chosenKind(options, &why);
  return std::make_unique<VrfApplier>(loop, makeTable(loop, options, kind), options, errors);
}

bool removeApplied(const BackendOptions& options, std::ostream& errors) {
  // Either table removes what either wrote.
  std::string why;
  const std::unique_ptr<KernelTable> table = makeTable(
      Pell::TaskSchedulerRoot::findOrCreateScheduler(), options, chosenKind(options, &why));
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
