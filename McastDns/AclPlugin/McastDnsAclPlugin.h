// The plugin's shell: the object through which the ACL agent starts the
// plugin, and the root entity that mounts the plugin's state and owns its
// state machine.
//
// `McastDnsAclPlugin` is the shared object's one static object. Its
// constructor registers it with the agent's default plugin loader under the
// name "McastDnsAclPlugin"; the loader later calls `init` with the agent's
// context, which creates the root entity, an `AclPlugin` named "McastDns",
// and hands it the context.
//
// `AclPlugin` mounts, read-only, the five paths the plugin reads and closes
// its mount group. When the mounts complete it looks the five entities up and
// creates the IPv4 `CpAclSm` over them and the context; a later completion
// keeps that state machine when all seven inputs are the same objects and
// replaces it otherwise.
//
// Ownership: the plugin object holds the root entity; the root entity holds
// the context and the state machine. A root entity that is released (by a
// second `init`, or at unload) is destroyed at once with its state machine:
// the state database never keeps a mounter alive, so no completion reaches a
// released one.
//
// Threading: everything runs on the agent's event thread.
#pragma once

#include "McastDns/AclPlugin/CpAclSm.h"
#include "platform/Acl.h"
#include "platform/Korvel.h"
#include "platform/Zov.h"

namespace McastDns {

// The plugin's root entity.
class AclPlugin : public Korvel::Mounter {
  ZOV_TRACKED_ALLOCATION("McastDns::AclPlugin")

 public:
  // Attribute ids, in declaration order.
  static constexpr Zov::AttributeId kContext = 386;
  static constexpr Zov::AttributeId kInit = 387;
  static constexpr Zov::AttributeId kCpAclSm = 388;

  // A new entity named `name`, with its notification on.
  static Zov::Ptr<AclPlugin> AclPluginIs(const Zov::String& name);

  explicit AclPlugin(const Zov::String& name);
  Zov::FwkType fwkType() const override;
  // Deactivates and drops the state machine (announcing 388), then releases
  // the context.
  ~AclPlugin() override;

  const Zov::Ptr<Acl::PluginContext>& context() const { return context_; }
  // Holds `context`; announces 386 only when it is another object.
  void contextIs(const Zov::Ptr<Acl::PluginContext>& context);

  // Holds `context`, mounts the five paths with the flags "r" and closes the
  // mount group. Completion arrives later, from the event loop.
  // REQUIRES: `context` is not null.
  void init(const Zov::Ptr<Acl::PluginContext>& context);

  // Builds or keeps the state machine from the five mounted entities and the
  // context, whatever `status` says.
  void doMountsComplete(Korvel::MountStatus status,
                        const Zov::Ptr<Korvel::EntityManager>& entityManager) override;

  const Zov::Ptr<CpAclSm>& cpAclSm() const { return cpAclSm_; }
  // Keeps the state machine when its seven inputs are these very objects;
  // otherwise builds a new one, announces 388 and returns it.
  Zov::Ptr<CpAclSm> cpAclSmIs(Dovix::AddressFamily af, const Zov::Ptr<const Config>& config,
                              const Zov::Ptr<const Status>& status,
                              const Zov::Ptr<const L3::Intf::StatusDir>& l3IntfStatusDir,
                              const Zov::Ptr<const Ip::AllVrfStatusGlobal>& allVrfStatusGlobal,
                              const Zov::Ptr<const Ip::AllVrfStatusLocal>& allVrfStatusLocal,
                              const Zov::Ptr<Acl::PluginContext>& context);
  // Takes the state machine out, announces 388 and switches its notification
  // off; returns none and announces nothing when there is none.
  Zov::Ptr<CpAclSm> cpAclSmDel();

 private:
  Zov::Ptr<Acl::PluginContext> context_;
  Zov::Ptr<CpAclSm> cpAclSm_;
};

// Forwards to `AclPlugin::AclPluginIs`.
Zov::Ptr<AclPlugin> aclPluginFactory(const Zov::String& name);

// The plugin object: registers the plugin with the agent's default loader
// and, when started, creates the root entity.
// REQUIRES: constructed only as the shared object's static object, while the
// agent loads it; the loader keeps the registration until the agent closes
// the object.
class McastDnsAclPlugin : public Plugin::PluginBase<Acl::PluginContext> {
 public:
  static constexpr const char* kName = "McastDnsAclPlugin";

  McastDnsAclPlugin();
  // Releases the root entity and nothing else.
  ~McastDnsAclPlugin() override;

  // Traces at level 0, creates a new root entity named "McastDns" (releasing
  // any earlier one) and starts it with `context`.
  void init(Acl::PluginContext* context) override;

  const Zov::Ptr<AclPlugin>& aclPlugin() const { return aclPlugin_; }

 private:
  Zov::Ptr<AclPlugin> aclPlugin_;
};

}  // namespace McastDns
