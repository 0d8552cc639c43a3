// A fixture for the state machine's tests: the five published entities, a
// mocked plugin context, and helpers that read like the domain ("a link in
// state 1 on an interface in VRF red").
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "McastDns/AclPlugin/CpAclSm.h"
#include "McastDns/AclPlugin/L3IntfStatusAclSm.h"
#include "McastDns/AclPlugin/LinkStatusAclSm.h"
#include "mocks/MockPluginContext.h"

namespace McastDns::test {

class StateMachineTest : public ::testing::Test {
 protected:
  StateMachineTest()
      : config_(new Config("config")),
        status_(new Status("status")),
        intfDir_(new L3::Intf::StatusDir("intf")),
        vrfGlobal_(new Ip::AllVrfStatusGlobal("global")),
        vrfLocal_(new Ip::AllVrfStatusLocal("local")),
        context_(new ::testing::NiceMock<MockPluginContext>()),
        scheduler_(Pell::TaskSchedulerRoot::findOrCreateScheduler()) {}

  ~StateMachineTest() override {
    sm_ = nullptr;
    scheduler_->settle();
  }

  ::testing::NiceMock<MockPluginContext>& context() { return *context_; }

  // Builds the state machine over the fixture's entities.
  CpAclSm& start() {
    sm_ = CpAclSm::CpAclSmIs(Dovix::AddressFamily::kIpv4, config_, status_, intfDir_, vrfGlobal_,
                             vrfLocal_, context_);
    return *sm_;
  }

  static IntfKey keyOf(const char* intf, std::uint32_t index = 0) {
    return IntfKey{Dovix::IntfId(Zov::String(intf)), index};
  }

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
    const Dovix::IntfId id{Zov::String(name)};
    if (const L3::Intf::Status* held = intfDir_->intfStatus(id)) {
      const_cast<L3::Intf::Status*>(held)->vrfIs(L3::VrfName(vrf));
      return Zov::Ptr<const L3::Intf::Status>(held);
    }
    Zov::Ptr<const L3::Intf::Status> created(new L3::Intf::Status(id, L3::VrfName(vrf)));
    intfDir_->intfStatusIs(created);
    return created;
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
};

}  // namespace McastDns::test
