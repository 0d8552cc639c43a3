// The control-plane ACL state machine for one address family.
//
// A `CpAclSm` watches the mounted multicast DNS configuration and status, the
// layer-3 interface status directory and its own refresh timer, keeps one
// watcher per link status and per interface status, and turns every change
// that matters into one refresh `refreshAclsDelay()` later. The refresh
// (`handleRefreshAcls`) recomputes, from the mounted state alone, in which
// VRFs the multicast DNS rule must stand and whether the gateway rule stands
// in "default", and sends every decision to the plugin context.
//
//   auto sm = CpAclSm::CpAclSmIs(Dovix::AddressFamily::kIpv4, config, status,
//                                intfStatusDir, vrfGlobal, vrfLocal, context);
//   // The constructor has built the watchers and sent the first rules.
//
// Ownership: the state machine holds its inputs (the three watched ones only
// through their reactors), its reactors, its scheduler and its watchers.
// Reactors and watchers point back to it with plain pointers, which its
// destructor clears. Teardown sends nothing to the context: rules stand until
// someone else withdraws them.
//
// An input given as none leaves its reactor absent and is never dereferenced:
// an absent collection reads as empty and an absent configuration as the
// gateway off.
//
// Threading: everything runs on the agent's event thread; calls nest on it (a
// sweep creates a watcher, whose construction calls `handleLinkChange()`).
#pragma once

#include "platform/Acl.h"
#include "platform/Dovix.h"
#include "platform/Ip.h"
#include "platform/L3.h"
#include "platform/McastDns.h"
#include "platform/Pell.h"
#include "platform/Zov.h"

namespace McastDns {

class CpAclSm;
class L3IntfStatusAclSm;
class LinkStatusAclSm;

// The hash of the refresh's VRF table.
template <class T>
struct ZovHash;
template <>
struct ZovHash<L3::VrfName> {
  std::size_t operator()(const L3::VrfName& name) const noexcept {
    return Zov::hashSingleAttr(0, name);
  }
};

// How the watcher collections find, hash and chain their members.
struct LinkStatusAclSmKeyTraits {
  using Key = IntfKey;
  static constexpr std::uint32_t kHashConstant = 679078064u;
  static Key key(const LinkStatusAclSm& member);
  static std::uint64_t hash(const Key& key) {
    return key.hash(Zov::HashHelper::hashSeed32() ^ kHashConstant);
  }
  static Zov::Ptr<LinkStatusAclSm>& next(LinkStatusAclSm& member);
};

struct L3IntfStatusAclSmKeyTraits {
  using Key = Dovix::IntfId;
  static constexpr std::uint32_t kHashConstant = 3017495904u;
  static Key key(const L3IntfStatusAclSm& member);
  static std::uint64_t hash(const Key& key) {
    return Zov::hashSingleAttr(Zov::HashHelper::hashSeed32() ^ kHashConstant, key.value());
  }
  static Zov::Ptr<L3IntfStatusAclSm>& next(L3IntfStatusAclSm& member);
};

using LinkStatusAclSmMap = Zov::HashMapGeneric<LinkStatusAclSm, LinkStatusAclSmKeyTraits>;
using L3IntfStatusAclSmMap = Zov::HashMapGeneric<L3IntfStatusAclSm, L3IntfStatusAclSmKeyTraits>;

class CpAclSm : public Zov::PtrInterface {
  ZOV_TRACKED_ALLOCATION("McastDns::CpAclSm")

 public:
  class ZovMcastDnsConfig;
  class ZovMcastDnsStatus;
  class ZovL3IntfStatusDir;
  class ZovRefreshAclsTask;

  // Attribute ids, in declaration order.
  static constexpr Zov::AttributeId kAf = 130;
  static constexpr Zov::AttributeId kMcastDnsConfig = 131;
  static constexpr Zov::AttributeId kMcastDnsStatus = 132;
  static constexpr Zov::AttributeId kL3IntfStatusDir = 133;
  static constexpr Zov::AttributeId kAllVrfStatusGlobal = 134;
  static constexpr Zov::AttributeId kAllVrfStatusLocal = 135;
  static constexpr Zov::AttributeId kContext = 136;
  static constexpr Zov::AttributeId kMdnsIptRule = 137;
  static constexpr Zov::AttributeId kMdnsGwIptRule = 138;
  static constexpr Zov::AttributeId kDirtyAcl = 139;
  static constexpr Zov::AttributeId kRefreshAclsDelay = 140;
  static constexpr Zov::AttributeId kScheduler = 141;
  static constexpr Zov::AttributeId kRefreshAclsTask = 142;
  static constexpr Zov::AttributeId kHandleRefreshAcls = 143;
  static constexpr Zov::AttributeId kHandleLinkChange = 144;
  static constexpr Zov::AttributeId kL3IntfStatusAclSm = 145;
  static constexpr Zov::AttributeId kHandleL3IntfStatus = 146;
  static constexpr Zov::AttributeId kLinkStatusAclSm = 147;
  static constexpr Zov::AttributeId kHandleLinkStatus = 148;
  static constexpr Zov::AttributeId kInitialized = 149;
  static constexpr Zov::AttributeId kHandleInitialized = 150;

  static constexpr Pell::TaskPriority kRefreshTaskPriority{3};
  static constexpr const char* kRefreshTaskName = "refreshAclsTask";

  // Creates a state machine from exactly these values and switches its
  // notification on. The constructor has already built the watchers and run
  // the first, forced refresh.
  static Zov::Ptr<CpAclSm> CpAclSmIs(
      Dovix::AddressFamily af, const Zov::Ptr<const Config>& mcastDnsConfig,
      const Zov::Ptr<const Status>& mcastDnsStatus,
      const Zov::Ptr<const L3::Intf::StatusDir>& l3IntfStatusDir,
      const Zov::Ptr<const Ip::AllVrfStatusGlobal>& allVrfStatusGlobal,
      const Zov::Ptr<const Ip::AllVrfStatusLocal>& allVrfStatusLocal,
      const Zov::Ptr<Acl::PluginContext>& context);

  // Used only by `CpAclSmIs`.
  CpAclSm(Dovix::AddressFamily af, const Zov::Ptr<const Config>& mcastDnsConfig,
          const Zov::Ptr<const Status>& mcastDnsStatus,
          const Zov::Ptr<const L3::Intf::StatusDir>& l3IntfStatusDir,
          const Zov::Ptr<const Ip::AllVrfStatusGlobal>& allVrfStatusGlobal,
          const Zov::Ptr<const Ip::AllVrfStatusLocal>& allVrfStatusLocal,
          const Zov::Ptr<Acl::PluginContext>& context);

  // Switches notification on or off for the object, its reactors and every
  // watcher; does nothing when the object is already in that state.
  void hasNotificationActiveIs(bool active) override;
  Zov::FwkType fwkType() const override;
  ~CpAclSm() override;
  // Marks (or unmarks) the object and its four reactors as zombies; the
  // watchers are not visited.
  void zovDoZombieReactors(bool zombie) override;

  // --- attributes ---
  Dovix::AddressFamily af() const { return af_; }
  Zov::Ptr<const Config> mcastDnsConfig() const;
  Zov::Ptr<const Status> mcastDnsStatus() const;
  Zov::Ptr<const L3::Intf::StatusDir> l3IntfStatusDir() const;
  const Zov::Ptr<const Ip::AllVrfStatusGlobal>& allVrfStatusGlobal() const {
    return allVrfStatusGlobal_;
  }
  const Zov::Ptr<const Ip::AllVrfStatusLocal>& allVrfStatusLocal() const {
    return allVrfStatusLocal_;
  }
  const Zov::Ptr<Acl::PluginContext>& context() const { return context_; }

  // The rule texts. Setting one starts nothing: the next refresh sends it.
  const Zov::String& mdnsIptRule() const { return mdnsIptRule_; }
  void mdnsIptRuleIs(const Zov::String& rule) { mdnsIptRule_ = rule; }
  const Zov::String& mdnsGwIptRule() const { return mdnsGwIptRule_; }
  void mdnsGwIptRuleIs(const Zov::String& rule) { mdnsGwIptRule_ = rule; }

  // True from the arming of the refresh until the next refresh that goes ahead.
  bool dirtyAcl() const { return dirtyAcl_; }
  void dirtyAclIs(bool dirty) { dirtyAcl_ = dirty; }

  // The delay from the first change of a burst to its refresh; the same for
  // every instance.
  static constexpr Zov::Seconds refreshAclsDelay() { return 0.01; }

  const Zov::Ptr<Pell::TaskSchedulerRoot>& scheduler() const { return scheduler_; }
  // A plain setter: an existing refresh task keeps its scheduler.
  void schedulerIs(const Zov::Ptr<Pell::TaskSchedulerRoot>& scheduler) { scheduler_ = scheduler; }

  // The refresh timer task, or none before `handleInitialized()`.
  Zov::Ptr<Pell::TimerTask> refreshAclsTask() const;
  // Keeps the refresh task when it has this scheduler, priority and name;
  // otherwise replaces it (the old one's run then does nothing).
  Zov::Ptr<Pell::TimerTask> refreshAclsTaskIs(const Zov::Ptr<Pell::TaskScheduler>& taskScheduler,
                                              Pell::TaskPriority taskPriority,
                                              const Zov::String& taskName);
  // Removes the refresh task and returns its timer task, or none.
  Zov::Ptr<Pell::TimerTask> refreshAclsTaskDel();

  bool initialized() const { return initialized_; }
  void initializedIs(bool initialized) { initialized_ = initialized; }

  // --- watcher collections ---
  Zov::Ptr<L3IntfStatusAclSm> l3IntfStatusAclSm(Dovix::IntfId intfId) const;
  // The watcher of `l3IntfStatus`, created if none is held under its id.
  // Raises the null-argument error for none and the reinstantiation error
  // when its id is held by a watcher of another entity.
  Zov::Ptr<L3IntfStatusAclSm> l3IntfStatusAclSmIs(
      const Zov::Ptr<const L3::Intf::Status>& l3IntfStatus);
  Zov::Ptr<L3IntfStatusAclSm> l3IntfStatusAclSmDel(Dovix::IntfId intfId);
  void l3IntfStatusAclSmDelAll();
  const L3IntfStatusAclSmMap& l3IntfStatusAclSms() const { return l3IntfStatusAclSm_; }

  Zov::Ptr<LinkStatusAclSm> linkStatusAclSm(const IntfKey& intfKey) const;
  Zov::Ptr<LinkStatusAclSm> linkStatusAclSmIs(const Zov::Ptr<const LinkStatus>& linkStatus);
  Zov::Ptr<LinkStatusAclSm> linkStatusAclSmDel(const IntfKey& intfKey);
  void linkStatusAclSmDelAll();
  const LinkStatusAclSmMap& linkStatusAclSms() const { return linkStatusAclSm_; }

  // --- handlers ---
  // Recomputes and sends every rule decision; goes ahead only when
  // initialised and either dirty or forced.
  void handleRefreshAcls(bool force);
  // Arms the refresh once: only while initialised and no refresh is pending.
  void handleLinkChange();
  // Keeps the watcher of one interface status in step with the directory.
  void handleL3IntfStatus(Dovix::IntfId intfId);
  // Keeps the watcher of one link status in step with the status.
  void handleLinkStatus(const IntfKey& intfKey);
  // Creates the refresh task, sets `initialized`, sweeps both collections and
  // runs a forced refresh.
  void handleInitialized();
  // The sweeps: drop watchers whose key left the mounted collection, then
  // adopt every entry.
  void handleL3IntfStatus();
  void handleLinkStatus();
  void zov_handleRefreshAclsTask_taskRun();

 private:
  // The watched inputs and the refresh timer, each null when absent.
  const Config* config() const;
  const Status* status() const;
  const L3::Intf::StatusDir* intfStatusDir() const;
  Pell::TimerTask* timerTask() const;

  // Members are released in the reverse of this order, after the destructor's
  // body: the watcher collections' storage (links, then interfaces), the
  // refresh reactor, the scheduler, the rule texts, the context, the VRF
  // views, and last the input reactors with what they watch.
  Dovix::AddressFamily af_;
  Zov::Ptr<ZovMcastDnsConfig> zovMcastDnsConfig_;
  Zov::Ptr<ZovMcastDnsStatus> zovMcastDnsStatus_;
  Zov::Ptr<ZovL3IntfStatusDir> zovL3IntfStatusDir_;
  Zov::Ptr<const Ip::AllVrfStatusGlobal> allVrfStatusGlobal_;
  Zov::Ptr<const Ip::AllVrfStatusLocal> allVrfStatusLocal_;
  Zov::Ptr<Acl::PluginContext> context_;
  Zov::String mdnsIptRule_;
  Zov::String mdnsGwIptRule_;
  bool dirtyAcl_ = false;
  Zov::Ptr<Pell::TaskSchedulerRoot> scheduler_;
  Zov::Ptr<ZovRefreshAclsTask> refreshAclsTask_;
  L3IntfStatusAclSmMap l3IntfStatusAclSm_;
  LinkStatusAclSmMap linkStatusAclSm_;
  bool initialized_ = false;
};

// Forwards to `CpAclSm::CpAclSmIs`.
Zov::Ptr<CpAclSm> cpAclSmFactory(Dovix::AddressFamily af,
                                 const Zov::Ptr<const Config>& mcastDnsConfig,
                                 const Zov::Ptr<const Status>& mcastDnsStatus,
                                 const Zov::Ptr<const L3::Intf::StatusDir>& l3IntfStatusDir,
                                 const Zov::Ptr<const Ip::AllVrfStatusGlobal>& allVrfStatusGlobal,
                                 const Zov::Ptr<const Ip::AllVrfStatusLocal>& allVrfStatusLocal,
                                 const Zov::Ptr<Acl::PluginContext>& context);

}  // namespace McastDns
