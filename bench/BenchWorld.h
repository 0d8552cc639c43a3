// Shared pieces of the benchmarks: published state of a given size, a plugin
// context that does nothing, a state machine built over both, and the
// refresh's floor.
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
#include <unordered_map>
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

// The published state of a world as plain data, for the floors: link key to
// state, interface id to VRF name, the known VRFs, and the gateway settings.
struct FloorState {
  explicit FloorState(const World& world);

  std::unordered_map<McastDns::IntfKey, std::uint8_t, McastDns::IntfKeyHash> linkState;
  std::unordered_map<Dovix::IntfId, L3::VrfName> intfVrf;
  std::vector<L3::VrfName> knownVrfs;
  bool gatewayEnabled = false;
  std::uint16_t gatewaySetting = 0;
  Zov::String mdnsRule{"-p udp --dport 5353 -d 224.0.0.251 -j ACCEPT\n"};
  Zov::String gatewayRule{"-p tcp --dport 8853 -j ACCEPT\n"};
  Zov::String chain{"INPUT"};
  Zov::String owner{"McastDnsAclPlugin"};
  Zov::String empty;
  L3::VrfName defaultVrf = L3::VrfName::defaultVrf();
};

// The refresh's decisions over `floor`, computed the plainest way: the same
// lookups, the same VRF table and the same 2V + 2 calls on `context` as the
// refresh, and nothing of the framework. Out of line, so that it is a call
// like the one it is compared with.
void floorRefresh(const FloorState& floor, Acl::PluginContext& context);

// Drops the state machine and runs whatever it left armed, so that the next
// benchmark starts from an idle loop.
void releaseStateMachine(Zov::Ptr<McastDns::CpAclSm>& sm);

// Moves the virtual clock by the refresh delay, running the pending refresh.
void runRefreshTimer();

}  // namespace bench
