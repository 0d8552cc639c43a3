#include "agent/os/Namespaces.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "agent/base/Text.h"

namespace AclAgent {

std::optional<std::string> NamespaceMap::templateFault(std::string_view netnsTemplate) {
  bool named = false;
  for (std::size_t i = 0; i < netnsTemplate.size(); ++i) {
    if (netnsTemplate[i] != '%') continue;
    const char next = i + 1 < netnsTemplate.size() ? netnsTemplate[i + 1] : '\0';
    if (next != 's' && next != '%') {
      return "a template holds %s for the VRF's name and %% for a '%', got " +
             shownName(netnsTemplate);
    }
    named |= next == 's';
    ++i;
  }
  if (!named) return "a template holds %s for the VRF's name, got " + shownName(netnsTemplate);
  return std::nullopt;
}

std::optional<std::string> NamespaceMap::nameFault(std::string_view name) {
  if (name.empty()) return "the namespace name is empty";
  if (name == "." || name == "..") {
    // Built by appending: GCC 12 at -O3 warns wrongly on a concatenation here.
    std::string fault = "\"";
    fault += name;
    fault += "\" is not a namespace name";
    return fault;
  }
  if (name.find('/') != std::string_view::npos) return "a namespace name cannot hold '/'";
  if (name.find('\0') != std::string_view::npos) return "a namespace name cannot hold a NUL byte";
  if (name.size() > 255) {
    return "a namespace name is at most 255 bytes; this one is " + std::to_string(name.size());
  }
  return std::nullopt;
}

NamespaceMap::NamespaceMap(std::string netnsTemplate, std::string dir)
    : template_(std::move(netnsTemplate)), dir_(std::move(dir)) {
  if (auto fault = templateFault(template_)) throw std::invalid_argument(*fault);
  literals_.emplace_back();
  for (std::size_t i = 0; i < template_.size(); ++i) {
    if (template_[i] != '%') {
      literals_.back() += template_[i];
    } else if (template_[++i] == '%') {
      literals_.back() += '%';
    } else {
      literals_.emplace_back();
    }
  }
}

std::string NamespaceMap::netnsOf(std::string_view vrf) const {
  return vrf == kDefaultVrf ? std::string() : templated(vrf);
}

bool NamespaceMap::namesDefault(std::string_view netns) const {
  return netns == templated(kDefaultVrf);
}

std::string NamespaceMap::templated(std::string_view vrf) const {
  std::string name = literals_.front();
  for (std::size_t i = 1; i < literals_.size(); ++i) {
    name += vrf;
    name += literals_[i];
  }
  return name;
}

std::optional<std::string> NamespaceMap::vrfOf(std::string_view netns) const {
  if (nameFault(netns)) return std::nullopt;
  // Every "%s" stands for the same name, so its length follows from the
  // length of the literals around them.
  std::size_t literal = 0;
  for (const std::string& part : literals_) literal += part.size();
  const std::size_t names = literals_.size() - 1;
  if (netns.size() <= literal || (netns.size() - literal) % names != 0) return std::nullopt;
  const std::size_t length = (netns.size() - literal) / names;
  std::string vrf(netns.substr(literals_.front().size(), length));
  if (vrf == kDefaultVrf || netnsOf(vrf) != netns) return std::nullopt;
  return vrf;
}

std::string NamespaceMap::pathOf(std::string_view netns) const {
  return dir_ + "/" + std::string(netns);
}

std::vector<std::string> NamespaceMap::listed(std::string* error) const {
  std::vector<std::string> names;
  DIR* folder = ::opendir(dir_.c_str());
  if (!folder) {
    if (errno != ENOENT) *error = "cannot read " + quoteName(dir_) + ": " + std::strerror(errno);
    return names;
  }
  while (const dirent* entry = ::readdir(folder)) {
    if (vrfOf(entry->d_name)) names.emplace_back(entry->d_name);
  }
  ::closedir(folder);
  std::sort(names.begin(), names.end());
  return names;
}

int openNamespace(const std::string& path, std::string* error) {
  // Not blocking: opening a FIFO someone left there would wait for a writer.
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
  if (fd < 0) {
    *error = errno == ENOENT ? "" : "cannot open " + quoteName(path) + ": " + std::strerror(errno);
    return -1;
  }
  struct stat st;
  if (::fstat(fd, &st) != 0 || !S_ISREG(st.st_mode)) {
    ::close(fd);
    *error = quoteName(path) + " is not a namespace file";
    return -1;
  }
  // A descriptor on 0, 1 or 2 (the agent's own were closed) moves above
  // them, so that setting up a child's never overwrites it.
  if (fd <= 2) {
    const int moved = ::fcntl(fd, F_DUPFD_CLOEXEC, 3);
    ::close(fd);
    fd = moved;
    if (fd < 0) *error = "cannot open " + quoteName(path) + ": " + std::strerror(errno);
  }
  return fd;
}

}  // namespace AclAgent
