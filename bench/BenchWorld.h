// Shared pieces of the benchmarks: published state of a given size, a plugin
// context that does nothing, and a state machine built over both.
//
//   World world(1024, 64);                       // 1024 links in state 1, 64 VRFs
//   Zov::Ptr<NoopContext> context(new NoopContext);
//   auto sm = world.stateMachine(context);       // sweeps, watchers, forced refresh
//   ...
//   releaseStateMachine(sm);                     // tears down, settles the loop
//
// Link i runs on interface "et<i>", which lies in VRF i % V. VRF 0 is
// "default" and the others are "vrf<j>", so a refresh's VRF table holds
// exactly V entries and makes 2V + 2 calls. Every VRF is listed in the global
// VRF view; the local view is empty. The gateway is on, so the refresh takes
// both the register and the withdraw path.
//
// Threading: the benchmark thread only; the scheduler root is process-wide.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "McastDns/AclPlugin/CpAclSm.h"
#include "platform/Acl.h"
#include "platform/Ip.h"
#include "platform/L3.h"
#include "platform/McastDns.h"
#include "platform/Pell.h"

namespace bench {

// A plugin context whose calls only count themselves. Its operations are
// defined in another translation unit, so that no caller can inline them: the
// framework and the floor pay the same virtual call.
class NoopContext : public Acl::PluginContext {
 public:
  // The state database handed to a plugin that mounts; none by default.
  Zov::Ptr<Korvel::EntityManager> entityManager() const override;
  void entityManagerIs(const Zov::Ptr<Korvel::EntityManager>& entityManager) {
    entityManager_ = entityManager;
  }
  void registerChainRule(Acl::IptablesType, Acl::AclType, L3::VrfName, Acl::AclDirection,
                         const Zov::String&, const Zov::String&, unsigned int, const Zov::String&,
                         const Zov::String&, const Zov::String&, bool,
                         const Acl::UniqueId&) override;
  void unregisterChainRule(Acl::IptablesType, Acl::AclType, L3::VrfName, Acl::AclDirection,
                           const Zov::String&, const Zov::String&, unsigned int) override;
  void finishRegistration(Acl::IptablesType, Acl::AclType, L3::VrfName,
                          const Zov::String&) override;

  std::uint64_t registers() const { return registers_; }
  std::uint64_t unregisters() const { return unregisters_; }
  std::uint64_t finishes() const { return finishes_; }
  std::uint64_t calls() const { return registers_ + unregisters_ + finishes_; }

 private:
  Zov::Ptr<Korvel::EntityManager> entityManager_;
  std::uint64_t registers_ = 0;
  std::uint64_t unregisters_ = 0;
  std::uint64_t finishes_ = 0;
};

// The five published entities, filled with `links` links in state 1 on as
// many interfaces spread over `vrfs` VRFs.
struct World {
  World(int links, int vrfs);
  World(const World&) = delete;
  World& operator=(const World&) = delete;

  static std::string intfName(int i) { return "et" + std::to_string(i); }
  static L3::VrfName vrfName(int j) {
    return j == 0 ? L3::VrfName::defaultVrf() : L3::VrfName("vrf" + std::to_string(j));
  }
  // One finish per VRF, then the gateway decision's finish of "default".
  static std::uint64_t finishesPerRefresh(int vrfs) { return static_cast<std::uint64_t>(vrfs) + 1; }

  Zov::Ptr<McastDns::CpAclSm> stateMachine(const Zov::Ptr<Acl::PluginContext>& context) const;
  // A state database holding the five entities at the paths the plugin
  // mounts.
  Zov::Ptr<Korvel::EntityManager> entityManager() const;

  Zov::Ptr<McastDns::Config> config;
  Zov::Ptr<McastDns::Status> status;
  Zov::Ptr<L3::Intf::StatusDir> intfDir;
  Zov::Ptr<Ip::AllVrfStatusGlobal> vrfGlobal;
  Zov::Ptr<Ip::AllVrfStatusLocal> vrfLocal;
  // The published links, by index, for writers that change them.
  std::vector<Zov::Ptr<McastDns::LinkStatus>> links;
};

// Drops the state machine and runs whatever it left armed, so that the next
// benchmark starts from an idle loop.
void releaseStateMachine(Zov::Ptr<McastDns::CpAclSm>& sm);

// Moves the virtual clock by the refresh delay, running the pending refresh.
void runRefreshTimer();

}  // namespace bench
