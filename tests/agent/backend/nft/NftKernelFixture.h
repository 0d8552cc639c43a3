// NftKernelTest: the fixture of the nft backend's real-kernel tests, run by
// nft-kernel-test.sh (see KernelTestSupport.h), able to make either backend
// so that each can be judged against the other.
//
//   TEST_F(NftKernelTest, Something) {
//     namespaceIs("red");
//     backend(BackendOptions::Kind::kNft).vrfRulesIs("red", rules);
//     settle();
//     EXPECT_TRUE(holds("red", rules));
//   }
#pragma once

#include <algorithm>
#include <chrono>

#include "agent/backend/VrfApplier.h"
#include "agent/backend/nft/NftTable.h"
#include "tests/agent/kernel/KernelTestSupport.h"

namespace AclAgent {

class NftKernelTest : public KernelBackendTest {
 protected:
  using Kind = BackendOptions::Kind;

  void SetUp() override {
    if (!inPrivateNamespaces()) {
      GTEST_SKIP() << "runs only inside the private namespaces that nft-kernel-test.sh makes";
    }
    options_.resyncPeriod = 0;
    options_.iptablesRestore = "iptables-nft-restore";
    options_.iptablesSave = "iptables-nft-save";
  }
  void TearDown() override {
    backend_.reset();
    if (!inPrivateNamespaces()) return;
    shell("ip -all netns delete; nft flush ruleset");
  }

  // A backend of `kind`, the one before it gone.
  Backend& backend(Kind kind) {
    backend_.reset();
    options_.kind = kind;
    if (kind == Kind::kNft) {
      auto table = std::make_unique<NftTable>(loop_);
      table_ = table.get();
      backend_ = std::make_unique<VrfApplier>(loop_, std::move(table), options_, errors_);
    } else {
      table_ = nullptr;
      backend_ = makeBackend(loop_, options_, errors_);
    }
    return *backend_;
  }
  // Namespaces red and blue, each holding rules of someone else's and
  // `rules` written by the nft backend.
  void redAndBlueHold(const ChainRules& rules) {
    namespaceIs("red");
    namespaceIs("blue");
    backend(Kind::kNft).vrfRulesIs("red", rules);
    backend_->vrfRulesIs("blue", rules);
    settle();
  }
  // Runs the loop's descriptor handlers, as the agent does between
  // commands (no resync, no task), until `done` holds; false when it still
  // does not after 30 s. With `timers`, the virtual clock also moves on as
  // the wall clock does, so that retries come when they are due.
  bool awaitLoop(const std::function<bool()>& done, bool timers = false) {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::seconds(30);
    auto last = Clock::now();
    while (Clock::now() < deadline) {
      if (done()) return true;
      Pell::Nanoseconds wait = 10'000'000;
      if (timers && loop_->nextDue() >= 0) {
        wait = std::clamp<Pell::Nanoseconds>(loop_->nextDue() - loop_->now(), 0, wait);
      }
      loop_->pollFds(wait);
      if (!timers) continue;
      const auto now = Clock::now();
      loop_->advance(std::chrono::duration_cast<std::chrono::nanoseconds>(now - last).count());
      last = now;
    }
    return done();
  }

  NftTable* table_ = nullptr;
};

}  // namespace AclAgent
