// `IptablesBackend::removeApplied`: everything the agent owns goes, from its
// own namespace and from each VRF namespace the template names, one
// namespace after the other and without an event loop.
#include <dirent.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "agent/os/ChildProcess.h"
#include "agent/backend/iptables/IptablesBackend.h"
#include "agent/backend/iptables/IptablesText.h"
#include "agent/base/Text.h"

namespace AclAgent {
namespace {

// The namespaces under `options.netnsDir` whose names the template gives, in
// bytewise order.
std::vector<std::string> templateNamespaces(const IptablesBackendOptions& options,
                                            std::string* error) {
  std::vector<std::string> names;
  DIR* dir = ::opendir(options.netnsDir.c_str());
  if (!dir) {
    if (errno != ENOENT) {
      *error = "cannot read " + quoteName(options.netnsDir) + ": " + std::strerror(errno);
    }
    return names;
  }
  while (const dirent* entry = ::readdir(dir)) {
    const std::string name = entry->d_name;
    if (name != "." && name != ".." && netnsTemplateMatches(options.netnsTemplate, name)) {
      names.push_back(name);
    }
  }
  ::closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

// Removes the owned chains and their jumps from the namespace `netnsFd`
// (-1: the agent's own); the reason when that failed.
std::optional<std::string> removeIn(const IptablesBackendOptions& options, int netnsFd) {
  const ChildResult read = ChildProcess::run({options.iptablesSave, {"-t", "filter"}, netnsFd, {}},
                                             options.childTimeout);
  if (!read.ok()) {
    return read.whyFailed(options.iptablesSave, options.childTimeout, errorSummary(read.err));
  }
  const SavedTable saved = parseSave(read.out);
  if (inPlace(saved, {})) return std::nullopt;
  const ChildResult written = ChildProcess::run(
      {options.iptablesRestore, {"--noflush"}, netnsFd, restoreInput(saved, {}).text},
      options.childTimeout);
  if (!written.ok()) {
    return written.whyFailed(options.iptablesRestore, options.childTimeout,
                             errorSummary(written.err));
  }
  return std::nullopt;
}

}  // namespace

bool IptablesBackend::removeApplied(const IptablesBackendOptions& options, std::ostream& errors) {
  bool removed = true;
  auto report = [&](const std::string& where, const std::string& message) {
    errors << "acl-agent: remove applied: " << where << ": " << message << std::endl;
    removed = false;
  };
  if (auto error = removeIn(options, -1)) report("the agent's own namespace", *error);
  std::string error;
  const std::vector<std::string> names = templateNamespaces(options, &error);
  if (!error.empty()) report("namespaces", error);
  for (const std::string& name : names) {
    const std::string where = "netns " + quoteName(name);
    const int fd = ChildProcess::openNamespace(options.netnsDir + "/" + name, &error);
    if (fd < 0) {
      // One deleted since the listing has nothing left to remove.
      if (!error.empty()) report(where, error);
      continue;
    }
    if (auto failure = removeIn(options, fd)) report(where, *failure);
    ::close(fd);
  }
  return removed;
}

}  // namespace AclAgent
