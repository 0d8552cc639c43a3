// Namespaces: where each VRF lives, as network namespaces.
//
// VRF "default" is the agent's own network namespace. Any other VRF NAME is
// the named namespace (as `ip netns` names them, a file under `dir`) that the
// template gives: "%s" stands for NAME and "%%" for a '%'. `--apply`,
// `--live` and `--remove-applied` all go through one `NamespaceMap`, so they
// agree on every name, whatever the template:
//
//   NamespaceMap map("vrf-%s");
//   map.netnsOf("red");        // "vrf-red"
//   map.vrfOf("vrf-red");      // "red"
//   map.vrfOf("other");        // nothing: not a VRF's namespace
//
// Threading: none; values.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace AclAgent {

// The VRF whose namespace is the agent's own.
inline constexpr std::string_view kDefaultVrf = "default";

class NamespaceMap {
 public:
  // REQUIRES: !templateFault(netnsTemplate) (raises std::invalid_argument).
  explicit NamespaceMap(std::string netnsTemplate = "%s", std::string dir = "/run/netns");

  // Why `netnsTemplate` cannot name VRF namespaces: it holds no "%s", or a
  // '%' followed by something other than 's' or '%'. Nothing when it can.
  static std::optional<std::string> templateFault(std::string_view netnsTemplate);
  // Why `name` cannot be a network namespace name (empty, "." or "..",
  // holding '/' or a NUL byte, over 255 bytes); nothing when it can.
  static std::optional<std::string> nameFault(std::string_view name);

  const std::string& netnsTemplate() const { return template_; }
  const std::string& dir() const { return dir_; }

  // The namespace of VRF `vrf`: "" for VRF default, else what the template
  // gives, which `nameFault` may still refuse.
  std::string netnsOf(std::string_view vrf) const;
  // The VRF whose namespace is `netns`: the non-empty name, other than
  // "default", that the template turns into `netns`; nothing if there is
  // none or `netns` cannot be a namespace name.
  std::optional<std::string> vrfOf(std::string_view netns) const;
  // Whether `netns` is what the template makes of the name "default": a
  // namespace no VRF has, since VRF default is the agent's own namespace.
  bool namesDefault(std::string_view netns) const;
  // The file of namespace `netns`.
  std::string pathOf(std::string_view netns) const;
  // The namespaces under `dir` that are some VRF's, in bytewise order;
  // `*error` says why the folder could not be read (left empty when it does
  // not exist).
  std::vector<std::string> listed(std::string* error) const;

 private:
  // What the template makes of `vrf`, "default" included.
  std::string templated(std::string_view vrf) const;

  std::string template_;
  std::string dir_;
  // The template cut at each "%s", with "%%" already turned into '%'.
  std::vector<std::string> literals_;
};

// Opens the network namespace file `path` to enter it or hand it to a child
// process; -1 when it cannot, with `*error` set, or left empty when no such
// file exists. Only a file that can be a namespace is opened: anything else
// (a FIFO, a folder) is refused without blocking.
int openNamespace(const std::string& path, std::string* error);

}  // namespace AclAgent
