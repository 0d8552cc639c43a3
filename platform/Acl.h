// Acl: what the ACL agent offers the plugins it loads.
//
// `Acl::PluginContext` is the service handed to each plugin's init: it gives
// access to the agent's state database (`entityManager`) and accepts iptables
// chain rules. A chain rule is named by its rule key, seven values: iptables
// type, ACL type, VRF, direction, chain, owner and sequence number.
//
// Registrations and withdrawals are batches: they take effect when the batch
// of their (iptables type, ACL type, VRF, chain) is finished with
// `finishRegistration`. A finish touches only the rules its batch named; a
// rule registered in an earlier batch and left alone stays. Registering the
// same text again under a key leaves one rule; withdrawing a key that holds
// no rule is harmless.
//
// Plugins find the agent through its default plugin loader,
// `DefaultPluginLoader()`, a `Plugin::Loader<PluginContext>` of kind "Acl"
// and version "1": they register with it when their shared object loads, and
// the agent starts them with its context through it.
//
// Threading: every call comes from the agent's event thread, synchronously.
#pragma once

#include "platform/Korvel.h"
#include "platform/L3.h"
#include "platform/Plugin.h"
#include "platform/Zov.h"

namespace Acl {

enum class IptablesType : std::uint8_t {
  kIptables = 0,  // IPv4 iptables
  kIp6tables = 1,
};

enum class AclType : std::uint8_t {
  kControlPlane = 0,
  kDataPlane = 1,
};

enum class AclDirection : std::uint8_t {
  kIn = 0,
  kOut = 1,
};

// The id under which the service may track a registration. A default id has
// every bit of both words set, which asks the service to choose one.
class UniqueId {
 public:
  UniqueId() : word0_(~0u), word1_(~0u) { doInit(); }
  UniqueId(std::uint32_t word0, std::uint32_t word1) : word0_(word0), word1_(word1) {}

  // Completes a default id. The all-ones words already say "unassigned", so
  // there is nothing further to set; the hook exists for ids whose service
  // keeps more state.
  void doInit() {}

  std::uint32_t word0() const { return word0_; }
  std::uint32_t word1() const { return word1_; }
  bool unassigned() const { return word0_ == ~0u && word1_ == ~0u; }
  friend bool operator==(const UniqueId&, const UniqueId&) = default;

 private:
  std::uint32_t word0_;
  std::uint32_t word1_;
};

class PluginContext : public Zov::PtrInterface {
 public:
  // The agent's state database, from which plugins open their mounts.
  virtual Zov::Ptr<Korvel::EntityManager> entityManager() const = 0;

  // Asks that `rule` stand under the rule key once the batch is finished.
  virtual void registerChainRule(IptablesType iptablesType, AclType aclType, L3::VrfName vrf,
                                 AclDirection direction, const Zov::String& chain,
                                 const Zov::String& owner, unsigned int sequence,
                                 const Zov::String& rule, const Zov::String& text2,
                                 const Zov::String& text3, bool flag, const UniqueId& uniqueId) = 0;
  // Asks that no rule stand under the rule key once the batch is finished.
  virtual void unregisterChainRule(IptablesType iptablesType, AclType aclType, L3::VrfName vrf,
                                   AclDirection direction, const Zov::String& chain,
                                   const Zov::String& owner, unsigned int sequence) = 0;
  // Closes the batch of (iptables type, ACL type, VRF, chain): its
  // registrations and withdrawals take effect.
  virtual void finishRegistration(IptablesType iptablesType, AclType aclType, L3::VrfName vrf,
                                  const Zov::String& chain) = 0;
};

// The identity of the agent's plugin loader: the kind of plugins it starts
// and the version of the interface it offers them (this header). A plugin
// passes both back when it registers; a plugin built against another version
// is refused.
inline constexpr const char* kPluginLoaderKind = "Acl";
inline constexpr const char* kPluginLoaderVersion = "1";

// The agent's plugin loader: created on first use, never destroyed.
Plugin::Loader<PluginContext>* DefaultPluginLoader();

}  // namespace Acl

extern template class Plugin::Loader<Acl::PluginContext>;
extern template class Plugin::PluginBase<Acl::PluginContext>;
