// The shared object's entry: what runs when the ACL agent loads it and when
// it closes it again.
//
// Loading registers the plugin's types with the framework and then builds the
// plugin object, whose constructor registers it with the agent's loader.
// Closing destroys the plugin object first (which releases the root entity
// and with it the state machine) and withdraws the types after it.
#include "McastDns/AclPlugin/CpAclSmReactors.h"
#include "McastDns/AclPlugin/L3IntfStatusAclSm.h"
#include "McastDns/AclPlugin/LinkStatusAclSm.h"
#include "McastDns/AclPlugin/McastDnsAclPlugin.h"
#include "McastDns/AclPlugin/PluginTrace.h"
#include "McastDns/AclPlugin/PluginTypes.h"

namespace {

// Objects with static storage go in the reverse order of their making. The
// trace handle and the allocation records are made here, before the plugin
// object, so that they outlive it: the teardown it starts at close still
// traces and still counts what it frees.
struct TypeRegistration {
  TypeRegistration() {
    Zov::zovModuleIs(&_McastDnsAclPlugin_95fe9596_zovModule);
    McastDns::_defaultTraceHandle();
    McastDns::AclPlugin::allocTrackTypeInfo();
    McastDns::CpAclSm::allocTrackTypeInfo();
    McastDns::CpAclSm::ZovMcastDnsConfig::allocTrackTypeInfo();
    McastDns::CpAclSm::ZovMcastDnsStatus::allocTrackTypeInfo();
    McastDns::CpAclSm::ZovL3IntfStatusDir::allocTrackTypeInfo();
    McastDns::CpAclSm::ZovRefreshAclsTask::allocTrackTypeInfo();
    McastDns::LinkStatusAclSm::allocTrackTypeInfo();
    McastDns::LinkStatusAclSm::ZovLinkStatus::allocTrackTypeInfo();
    McastDns::L3IntfStatusAclSm::allocTrackTypeInfo();
    McastDns::L3IntfStatusAclSm::ZovL3IntfStatus::allocTrackTypeInfo();
  }
  ~TypeRegistration() { Zov::zovModuleDel(&_McastDnsAclPlugin_95fe9596_zovModule); }
  TypeRegistration(const TypeRegistration&) = delete;
  TypeRegistration& operator=(const TypeRegistration&) = delete;
};

// Made in this order, destroyed in the reverse one.
TypeRegistration typeRegistration;
McastDns::McastDnsAclPlugin plugin;

}  // namespace
