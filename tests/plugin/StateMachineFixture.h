// A fixture for the state machine's tests: the five published entities, a
// mocked plugin context that records every call, and helpers that read like
// the domain ("a link in state 1 on an interface in VRF red").
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <string>
#include <vector>

#include "McastDns/AclPlugin/CpAclSm.h"
#include "McastDns/AclPlugin/L3IntfStatusAclSm.h"
#include "McastDns/AclPlugin/LinkStatusAclSm.h"
#include "mocks/MockPluginContext.h"
#include "plugin/PluginTesting.h"

namespace McastDns::test {

using PluginTesting::TraceCapture;

// One call on the context, reduced to what varies between calls.
struct Call {
  enum Kind { kRegister, kUnregister, kFinish };
  Kind kind;
  std::string vrf;
  unsigned sequence = 0;
  friend bool operator==(const Call&, const Call&) = default;
  friend std::ostream& operator<<(std::ostream& os, const Call& c) {
    static const char* const kNames[] = {"register", "unregister", "finish"};
    return os << kNames[c.kind] << "('" << c.vrf << "', " << c.sequence << ")";
  }
};

// Handler signatures, as the handlers trace them on entry.
inline constexpr const char* kLinkChangeTrace = "void McastDns::CpAclSm::handleLinkChange()";
inline constexpr const char* kRefreshTrace = "void McastDns::CpAclSm::handleRefreshAcls(bool)";
inline constexpr const char* kStateTrace = "void McastDns::LinkStatusAclSm::handleState()";
inline constexpr const char* kVrfTrace = "void McastDns::L3IntfStatusAclSm::handleVrf()";
inline constexpr unsigned kHandlerLevels = 1u << 8;

class StateMachineTest : public ::testing::Test {
 protected:
  StateMachineTest()
      : config_(new Config("config")),
        status_(new Status("status")),
        intfDir_(new L3::Intf::StatusDir("intf")),
        vrfGlobal_(new Ip::AllVrfStatusGlobal("global")),
        vrfLocal_(new Ip::AllVrfStatusLocal("local")),
        context_(new ::testing::NiceMock<MockPluginContext>()),
        scheduler_(Pell::TaskSchedulerRoot::findOrCreateScheduler()) {
    ON_CALL(*context_, registerChainRule)
        .WillByDefault([this](auto, auto, L3::VrfName vrf, auto, auto&, auto&, unsigned sequence,
                              const auto&...) {
          calls_.push_back({Call::kRegister, vrf.str(), sequence});
        });
    ON_CALL(*context_, unregisterChainRule)
        .WillByDefault([this](auto, auto, L3::VrfName vrf, auto, auto&, auto&, unsigned sequence) {
          calls_.push_back({Call::kUnregister, vrf.str(), sequence});
        });
    ON_CALL(*context_, finishRegistration)
        .WillByDefault([this](auto, auto, L3::VrfName vrf, const auto&) {
          calls_.push_back({Call::kFinish, vrf.str()});
        });
  }

  ~StateMachineTest() override {
    sm_ = nullptr;
    scheduler_->settle();
  }

  CpAclSm& start() {
    sm_ = CpAclSm::CpAclSmIs(Dovix::AddressFamily::kIpv4, config_, status_, intfDir_, vrfGlobal_,
                             vrfLocal_, context_);
    return *sm_;
  }

  // Refreshes that went ahead: each ends with the gateway decision, the only
  // call of sequence 1.
  long refreshes() const {
    return std::count_if(calls_.begin(), calls_.end(),
                         [](const Call& c) { return c.kind != Call::kFinish && c.sequence == 1; });
  }

  static IntfKey keyOf(const char* intf, std::uint32_t index = 0) {
    return IntfKey{idOf(intf), index};
  }
  static Dovix::IntfId idOf(const char* intf) { return Dovix::IntfId(Zov::String(intf)); }

  // Publishes (or changes) a link on `intf` in `state`.
  Zov::Ptr<LinkStatus> link(const char* intf, std::uint8_t state, std::uint32_t index = 0) {
    if (LinkStatus* held = status_->linkStatus(keyOf(intf, index))) {
      held->stateIs(state);
      return Zov::Ptr<LinkStatus>(held);
    }
    Zov::Ptr<LinkStatus> created(new LinkStatus(keyOf(intf, index), state));
    status_->linkStatusIs(created);
    return created;
  }

  // Publishes (or moves) a layer-3 interface into `vrf`.
  Zov::Ptr<const L3::Intf::Status> intf(const char* name, const char* vrf) {
    if (const L3::Intf::Status* held = intfDir_->intfStatus(idOf(name))) {
      const_cast<L3::Intf::Status*>(held)->vrfIs(L3::VrfName(vrf));
      return Zov::Ptr<const L3::Intf::Status>(held);
    }
    Zov::Ptr<const L3::Intf::Status> created(new L3::Intf::Status(idOf(name), L3::VrfName(vrf)));
    intfDir_->intfStatusIs(created);
    return created;
  }

  // Changes the published state behind the state machine's back: its handlers
  // are kept out while `change` runs.
  template <class Change>
  void unseen(Change&& change) {
    sm_->initializedIs(false);
    change();
    sm_->initializedIs(true);
  }

  // Moves the clock by `ms` milliseconds, running what falls due.
  void advanceMs(double ms) { scheduler_->advance(Pell::nanoseconds(ms / 1000)); }

  Zov::Ptr<Config> config_;
  Zov::Ptr<Status> status_;
  Zov::Ptr<L3::Intf::StatusDir> intfDir_;
  Zov::Ptr<Ip::AllVrfStatusGlobal> vrfGlobal_;
  Zov::Ptr<Ip::AllVrfStatusLocal> vrfLocal_;
  Zov::Ptr<::testing::NiceMock<MockPluginContext>> context_;
  Zov::Ptr<Pell::TaskSchedulerRoot> scheduler_;
  Zov::Ptr<CpAclSm> sm_;
  // Every call on the context, in the order made.
  std::vector<Call> calls_;
};

}  // namespace McastDns::test
