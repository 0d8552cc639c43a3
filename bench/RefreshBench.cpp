// The refresh against its floor.
//
// `BM_Refresh/L/V` times `handleRefreshAcls(true)` over L links in state 1 on
// L interfaces spread over V VRFs. `BM_RefreshFloor/L/V` does the same work
// over plain hash maps holding the same data: the same lookups, the same VRF
// table, the same 2V + 2 calls on the same context, and nothing of the
// framework (no published entities, no counted entries, no trace test). The
// ratio of the two is what the framework costs; the summary after the run
// prints it.
#include <benchmark/benchmark.h>

#include <unordered_map>
#include <vector>

#include "bench/BenchWorld.h"

namespace bench {
namespace {

// The published state as plain data: link key to state, interface id to VRF
// name, the known VRFs, and the gateway settings.
struct FloorState {
  explicit FloorState(const World& world) {
    for (const auto& [key, link] : world.status->linkStatus())
      linkState.emplace(key, link->state());
    for (const auto& [id, intf] : world.intfDir->intfStatus()) intfVrf.emplace(id, intf->vrf());
    for (const auto& entry : world.vrfGlobal->vrf()) knownVrfs.push_back(entry.first);
    for (const auto& entry : world.vrfLocal->vrf()) knownVrfs.push_back(entry.first);
    gatewayEnabled = world.config->gatewayEnabled();
    gatewaySetting = world.config->gatewaySetting();
  }

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

constexpr auto kIpt = Acl::IptablesType::kIptables;
constexpr auto kAcl = Acl::AclType::kControlPlane;
constexpr auto kIn = Acl::AclDirection::kIn;

// The refresh's decisions, computed the plainest way. Kept out of line so
// that it is a call like the one it is compared with.
[[gnu::noipa]] void floorRefresh(const FloorState& s, Acl::PluginContext& context) {
  std::unordered_map<L3::VrfName, bool, McastDns::ZovHash<L3::VrfName>> vrfs;
  for (const auto& [key, state] : s.linkState) {
    auto intf = s.intfVrf.find(key.intfId);
    if (intf != s.intfVrf.end() && state == McastDns::LinkStatus::kStateUp)
      vrfs[intf->second] = true;
  }
  for (const auto& vrf : s.knownVrfs) vrfs.try_emplace(vrf, false);
  vrfs.try_emplace(s.defaultVrf, false);
  for (const auto& [vrf, needed] : vrfs) {
    if (needed) {
      context.registerChainRule(kIpt, kAcl, vrf, kIn, s.chain, s.owner, 0, s.mdnsRule, s.empty,
                                s.empty, false, Acl::UniqueId());
    } else {
      context.unregisterChainRule(kIpt, kAcl, vrf, kIn, s.chain, s.owner, 0);
    }
    context.finishRegistration(kIpt, kAcl, vrf, s.chain);
  }
  if (s.gatewayEnabled && s.gatewaySetting != 0) {
    context.registerChainRule(kIpt, kAcl, s.defaultVrf, kIn, s.chain, s.owner, 1, s.gatewayRule,
                              s.empty, s.empty, false, Acl::UniqueId());
  } else {
    context.unregisterChainRule(kIpt, kAcl, s.defaultVrf, kIn, s.chain, s.owner, 1);
  }
  context.finishRegistration(kIpt, kAcl, s.defaultVrf, s.chain);
}

// Both benchmarks check, before timing, that one pass makes exactly the calls
// a refresh of this world must make; a mismatch would make the ratio
// meaningless.
bool expectCalls(benchmark::State& state, const NoopContext& context, int links, int vrfs) {
  const std::uint64_t registers = std::min(links, vrfs) + 1;  // the needed VRFs and the gateway
  const std::uint64_t total = 2 * static_cast<std::uint64_t>(vrfs) + 2;
  if (context.registers() == registers && context.calls() == total) return true;
  state.SkipWithError("the pass made other calls than the refresh must make");
  return false;
}

void BM_Refresh(benchmark::State& state) {
  const int links = static_cast<int>(state.range(0));
  const int vrfs = static_cast<int>(state.range(1));
  World world(links, vrfs);
  Zov::Ptr<NoopContext> context(new NoopContext);
  Zov::Ptr<McastDns::CpAclSm> sm = world.stateMachine(context);
  // The constructor's forced refresh is the check's single pass.
  if (expectCalls(state, *context, links, vrfs)) {
    for (auto _ : state) sm->handleRefreshAcls(true);
    state.counters["calls"] = 2.0 * vrfs + 2;
  }
  releaseStateMachine(sm);
}

void BM_RefreshFloor(benchmark::State& state) {
  const int links = static_cast<int>(state.range(0));
  const int vrfs = static_cast<int>(state.range(1));
  // The world stays, as it does beside the refresh, so that both run over a
  // heap in the same state.
  World world(links, vrfs);
  FloorState floor(world);
  Zov::Ptr<NoopContext> context(new NoopContext);
  floorRefresh(floor, *context);
  if (expectCalls(state, *context, links, vrfs)) {
    for (auto _ : state) floorRefresh(floor, *context);
    state.counters["calls"] = 2.0 * vrfs + 2;
  }
}

BENCHMARK(BM_Refresh)
    ->ArgNames({"L", "V"})
    ->ArgsProduct({{16, 1024, 16384}, {1, 64, 1024}})
    ->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_RefreshFloor)
    ->ArgNames({"L", "V"})
    ->ArgsProduct({{16, 1024, 16384}, {1, 64, 1024}})
    ->Unit(benchmark::kMicrosecond);

}  // namespace
}  // namespace bench
