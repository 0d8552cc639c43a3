// The plugin's type module: one table per type, one row per attribute in the
// order of its id, saying what kind of attribute it is and through which of
// the type's own accessors, setters and handlers the generic interface
// reaches it.
#include "McastDns/AclPlugin/PluginTypes.h"

#include <array>

#include "McastDns/AclPlugin/GenericIf.h"
#include "McastDns/AclPlugin/L3IntfStatusAclSm.h"
#include "McastDns/AclPlugin/LinkStatusAclSm.h"
#include "McastDns/AclPlugin/McastDnsAclPlugin.h"

namespace McastDns {
namespace {

namespace G = Zov::Generic;
using Zov::AttributeAccess;
using Zov::AttributeId;
using Zov::AttributeInfo;
using Zov::AttributeKind;
using Names = std::span<const char* const>;

constexpr AttributeInfo valueAttr(const char* name, AttributeId id, AttributeAccess access) {
  return {name, id, AttributeKind::kValue, nullptr, {}, access};
}
constexpr AttributeInfo referenceAttr(const char* name, AttributeId id, AttributeAccess access) {
  return {name, id, AttributeKind::kReference, nullptr, {}, access};
}
constexpr AttributeInfo operationAttr(const char* name, AttributeId id, Names args,
                                      AttributeAccess access) {
  return {name, id, AttributeKind::kOperation, nullptr, args, access};
}
// A keyed collection: lookup by key, adding from what a member is built
// from, removal by key, and the walk.
template <auto lookup, auto add, auto remove, auto collection>
constexpr AttributeInfo collectionAttr(const char* name, AttributeId id, const char* keyName) {
  return {name,
          id,
          AttributeKind::kCollection,
          keyName,
          {},
          {.member = G::member<lookup>,
           .memberIs = G::call<add>,
           .memberDel = G::call<remove>,
           .members = G::members<collection>}};
}

constexpr Names kNoArgs = {};
constexpr const char* kForceArgs[] = {"force"};
constexpr const char* kIntfIdArgs[] = {"intfId"};
constexpr const char* kIntfKeyArgs[] = {"intfKey"};
constexpr const char* kContextArgs[] = {"context"};

// The twins differ only in their names; their ids and accesses are the same.
template <class Watcher>
constexpr std::array<AttributeInfo, 7> watcherAttributes(const char* watched, const char* key,
                                                         const char* change) {
  using W = Watcher;
  return {{
      referenceAttr(watched, W::kWatched, {.read = G::read<&W::watched>}),
      valueAttr(key, W::kKey, {.read = G::read<&W::key>}),
      valueAttr("parent", W::kParent, {.read = G::read<&W::parent>}),
      operationAttr(change, W::kHandleChange, kNoArgs, {.call = G::call<&W::handleChange>}),
      operationAttr("destroy", W::kDestroy, kNoArgs, {.call = G::call<&W::destroy>}),
      valueAttr("initialized", W::kInitialized,
                {.read = G::read<&W::initialized>, .write = G::write<&W::initializedIs>}),
      operationAttr("handleInitialized", W::kHandleInitialized, kNoArgs,
                    {.call = G::call<&W::handleInitialized>}),
  }};
}

constexpr auto kL3IntfStatusAclSmAttributes =
    watcherAttributes<L3IntfStatusAclSm>("l3IntfStatus", "intfId", "handleVrf");
constexpr auto kLinkStatusAclSmAttributes =
    watcherAttributes<LinkStatusAclSm>("linkStatus", "intfKey", "handleState");

using Sm = CpAclSm;
constexpr AttributeInfo kCpAclSmAttributes[] = {
    valueAttr("af", Sm::kAf, {.read = G::read<&Sm::af>}),
    referenceAttr("mcastDnsConfig", Sm::kMcastDnsConfig, {.read = G::read<&Sm::mcastDnsConfig>}),
    referenceAttr("mcastDnsStatus", Sm::kMcastDnsStatus, {.read = G::read<&Sm::mcastDnsStatus>}),
    referenceAttr("l3IntfStatusDir", Sm::kL3IntfStatusDir, {.read = G::read<&Sm::l3IntfStatusDir>}),
    referenceAttr("allVrfStatusGlobal", Sm::kAllVrfStatusGlobal,
                  {.read = G::read<&Sm::allVrfStatusGlobal>}),
    referenceAttr("allVrfStatusLocal", Sm::kAllVrfStatusLocal,
                  {.read = G::read<&Sm::allVrfStatusLocal>}),
    referenceAttr("context", Sm::kContext, {.read = G::read<&Sm::context>}),
    valueAttr("mdnsIptRule", Sm::kMdnsIptRule,
              {.read = G::read<&Sm::mdnsIptRule>, .write = G::write<&Sm::mdnsIptRuleIs>}),
    valueAttr("mdnsGwIptRule", Sm::kMdnsGwIptRule,
              {.read = G::read<&Sm::mdnsGwIptRule>, .write = G::write<&Sm::mdnsGwIptRuleIs>}),
    valueAttr("dirtyAcl", Sm::kDirtyAcl,
              {.read = G::read<&Sm::dirtyAcl>, .write = G::write<&Sm::dirtyAclIs>}),
    valueAttr("refreshAclsDelay", Sm::kRefreshAclsDelay, {.read = G::read<&Sm::refreshAclsDelay>}),
    referenceAttr("scheduler", Sm::kScheduler,
                  {.read = G::read<&Sm::scheduler>, .write = G::write<&Sm::schedulerIs>}),
    referenceAttr("refreshAclsTask", Sm::kRefreshAclsTask,
                  {.read = G::read<&Sm::refreshAclsTask>,
                   .write = G::write<&Sm::refreshAclsTaskIs>,
                   .del = G::del<&Sm::refreshAclsTaskDel>}),
    operationAttr("handleRefreshAcls", Sm::kHandleRefreshAcls, kForceArgs,
                  {.call = G::call<&Sm::handleRefreshAcls>}),
    operationAttr("handleLinkChange", Sm::kHandleLinkChange, kNoArgs,
                  {.call = G::call<&Sm::handleLinkChange>}),
    collectionAttr<&Sm::l3IntfStatusAclSm, &Sm::l3IntfStatusAclSmIs, &Sm::l3IntfStatusAclSmDel,
                   &Sm::l3IntfStatusAclSms>("l3IntfStatusAclSm", Sm::kL3IntfStatusAclSm, "intfId"),
    operationAttr(
        "handleL3IntfStatus", Sm::kHandleL3IntfStatus, kIntfIdArgs,
        {.call = G::call<static_cast<void (Sm::*)(Dovix::IntfId)>(&Sm::handleL3IntfStatus)>}),
    collectionAttr<&Sm::linkStatusAclSm, &Sm::linkStatusAclSmIs, &Sm::linkStatusAclSmDel,
                   &Sm::linkStatusAclSms>("linkStatusAclSm", Sm::kLinkStatusAclSm, "intfKey"),
    operationAttr(
        "handleLinkStatus", Sm::kHandleLinkStatus, kIntfKeyArgs,
        {.call = G::call<static_cast<void (Sm::*)(const IntfKey&)>(&Sm::handleLinkStatus)>}),
    valueAttr("initialized", Sm::kInitialized,
              {.read = G::read<&Sm::initialized>, .write = G::write<&Sm::initializedIs>}),
    operationAttr("handleInitialized", Sm::kHandleInitialized, kNoArgs,
                  {.call = G::call<&Sm::handleInitialized>}),
};

constexpr AttributeInfo kAclPluginAttributes[] = {
    referenceAttr("context", AclPlugin::kContext,
                  {.read = G::read<&AclPlugin::context>, .write = G::write<&AclPlugin::contextIs>}),
    operationAttr("init", AclPlugin::kInit, kContextArgs, {.call = G::call<&AclPlugin::init>}),
    referenceAttr("cpAclSm", AclPlugin::kCpAclSm,
                  {.read = G::read<&AclPlugin::cpAclSm>,
                   .write = G::write<&AclPlugin::cpAclSmIs>,
                   .del = G::del<&AclPlugin::cpAclSmDel>}),
};

// Generic construction takes the values of each type's creation, in order.
constexpr const char* kWatcherL3CtorArgs[] = {"l3IntfStatus", "parent"};
constexpr const char* kWatcherLinkCtorArgs[] = {"linkStatus", "parent"};
constexpr const char* kCpAclSmCtorArgs[] = {"af",
                                            "mcastDnsConfig",
                                            "mcastDnsStatus",
                                            "l3IntfStatusDir",
                                            "allVrfStatusGlobal",
                                            "allVrfStatusLocal",
                                            "context"};
constexpr const char* kAclPluginCtorArgs[] = {"name"};

constexpr Zov::ZovTypeInfo kTypes[] = {
    {"McastDns::L3IntfStatusAclSm", kL3IntfStatusAclSmAttributes, kWatcherL3CtorArgs,
     G::construct<&L3IntfStatusAclSm::L3IntfStatusAclSmIs>},
    {"McastDns::LinkStatusAclSm", kLinkStatusAclSmAttributes, kWatcherLinkCtorArgs,
     G::construct<&LinkStatusAclSm::LinkStatusAclSmIs>},
    {"McastDns::CpAclSm", kCpAclSmAttributes, kCpAclSmCtorArgs, G::construct<&Sm::CpAclSmIs>},
    {"McastDns::AclPlugin", kAclPluginAttributes, kAclPluginCtorArgs, genericIfConstructAclPlugin},
};

}  // namespace
}  // namespace McastDns

extern "C" const Zov::ZovModule _McastDnsAclPlugin_95fe9596_zovModule{"McastDnsAclPlugin",
                                                                      McastDns::kTypes};

namespace McastDns {

Zov::FwkType fwkTypeOf(TypeIndex index) {
  return {&_McastDnsAclPlugin_95fe9596_zovModule, index};
}

}  // namespace McastDns
