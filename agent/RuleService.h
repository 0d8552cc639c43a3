// RuleService: the agent's side of `Acl::PluginContext`, the service every
// loaded plugin hands its chain rules to.
//
// It keeps the rules that stand, keyed by the seven-value rule key, and stages
// registrations and withdrawals per batch (iptables type, ACL type, VRF,
// chain) until `finishRegistration` closes that batch. At the finish the
// batch's operations take effect in call order, so the last one staged on a
// key wins; rules the batch did not name are left as they stand. Operations
// staged and never finished are not in force. Nothing a plugin can send is an
// error: any VRF name (the empty one included), chain, owner or text is kept
// as given.
//
// Every call is also logged, so that the host can show what the plugins said
// and what stands, in the agent's output format:
//
//   Zov::Ptr<RuleService> rules(new RuleService(entityManager));
//   plugin->init(rules.ptr());
//   std::cout << rules->renderCalls() << rules->renderRules() << rules->renderIptables();
//
// Each operation costs O(log n) in the rules standing and staged; a finish
// costs that for each operation of its batch.
//
// Threading: every call comes from the agent's event thread.
#pragma once

#include <compare>
#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "platform/Acl.h"
#include "platform/Korvel.h"
#include "platform/L3.h"
#include "platform/Zov.h"

namespace AclAgent {

// The seven values that name one chain rule. Its order is the order in which
// `show rules` lists rules: ipt, acl, vrf, dir, chain, owner, seq, texts
// compared bytewise.
struct RuleKey {
  Acl::IptablesType iptablesType = Acl::IptablesType::kIptables;
  Acl::AclType aclType = Acl::AclType::kControlPlane;
  L3::VrfName vrf;
  Acl::AclDirection direction = Acl::AclDirection::kIn;
  Zov::String chain;
  Zov::String owner;
  unsigned int sequence = 0;

  friend bool operator==(const RuleKey&, const RuleKey&) = default;
  friend std::strong_ordering operator<=>(const RuleKey&, const RuleKey&) = default;
};

// What a registration puts under its key.
struct Rule {
  Zov::String text;
  Zov::String text2;
  Zov::String text3;
  bool flag = false;
  // Kept as the plugin gave it; the service assigns no ids of its own.
  Acl::UniqueId uniqueId;

  friend bool operator==(const Rule&, const Rule&) = default;
};

// One call on the service, as logged.
struct RuleCall {
  enum class Kind : std::uint8_t { kRegister, kUnregister, kFinish };
  Kind kind = Kind::kFinish;
  // For a finish only the batch's four values (iptables type, ACL type, VRF,
  // chain) are meaningful; the other three keep their defaults.
  RuleKey key;
  // Set for a registration only.
  Rule rule;
};

// What stands in one VRF for the kernel's filter table (iptables type 0, ACL
// type 0): each chain, in bytewise order, with its restorable rule texts
// (without their final newline) in the order `show iptables` gives.
using ChainRules = std::map<std::string, std::vector<std::string>>;

class RuleService : public Acl::PluginContext {
 public:
  // `entityManager` is what `entityManager()` hands the plugins; null is
  // allowed for hosts that offer no state database.
  explicit RuleService(Zov::Ptr<Korvel::EntityManager> entityManager);

  // Acl::PluginContext.
  Zov::Ptr<Korvel::EntityManager> entityManager() const override { return entityManager_; }
  void registerChainRule(Acl::IptablesType iptablesType, Acl::AclType aclType, L3::VrfName vrf,
                         Acl::AclDirection direction, const Zov::String& chain,
                         const Zov::String& owner, unsigned int sequence, const Zov::String& rule,
                         const Zov::String& text2, const Zov::String& text3, bool flag,
                         const Acl::UniqueId& uniqueId) override;
  void unregisterChainRule(Acl::IptablesType iptablesType, Acl::AclType aclType, L3::VrfName vrf,
                           Acl::AclDirection direction, const Zov::String& chain,
                           const Zov::String& owner, unsigned int sequence) override;
  void finishRegistration(Acl::IptablesType iptablesType, Acl::AclType aclType, L3::VrfName vrf,
                          const Zov::String& chain) override;

  // The rules in force, in `show rules` order.
  const std::map<RuleKey, Rule>& rules() const { return rules_; }
  // The filter table's rules in force in `vrf`; a rule that is not
  // restorable (see `renderIptables`) is left out.
  ChainRules vrfRules(const L3::VrfName& vrf) const;

  // Called after every finish with the VRF it named and whether it changed
  // what stands there. One listener; an empty function removes it.
  using FinishListener = std::function<void(const L3::VrfName& vrf, bool changed)>;
  void finishListenerIs(FinishListener listener) { finishListener_ = std::move(listener); }
  // Every call made since the service was created, shown or not.
  std::uint64_t calls() const { return calls_; }
  // The finishRegistration calls naming `vrf`, over all batches of that VRF.
  std::uint64_t finishes(const L3::VrfName& vrf) const;
  // Operations staged in batches not yet finished.
  std::size_t stagedOperations() const;

  // The calls logged since the last `renderCalls()`, oldest first.
  const std::vector<RuleCall>& unshownCalls() const { return log_; }
  // Whether calls are logged (on at creation). Long runs that never show
  // their calls, such as benchmarks, switch it off to bound memory; the call
  // count and the finish counters go on either way.
  void callLogIs(bool enabled);
  bool callLog() const { return callLog_; }

  // The agent's renderings, one line a line, each ending in '\n'.
  //
  // `show calls`: the logged calls, which this empties, or "no calls".
  std::string renderCalls();
  // `show rules`: the rules in force, or "no rules".
  std::string renderRules() const;
  // `show iptables`: per VRF, in bytewise order of its name, a comment line
  // naming the VRF and a `*filter` ... `COMMIT` block that
  // `iptables-restore --noflush` accepts, holding the VRF's rules of
  // iptables type 0 and ACL type 0, chains in bytewise order and each chain's
  // rules in order of owner, sequence number (then direction). Rules of any
  // other iptables or ACL type get a block of their own after it, headed
  // `# vrf "NAME" ipt=I acl=A`, for the restore program of that table.
  // A chain other than INPUT, FORWARD and OUTPUT is declared (":NAME - [0:0]")
  // before its rules. A rule whose text cannot stand as one line (a line
  // break before its end, or another control byte) or whose chain name is
  // empty or holds white space or control bytes is not restorable: it is
  // left out and a comment line in its place says which rule and why. Nothing
  // at all when no rule stands.
  std::string renderIptables() const;

 private:
  using BatchKey = std::tuple<Acl::IptablesType, Acl::AclType, L3::VrfName, Zov::String>;
  // A staged operation: a rule to put in force, or nothing to withdraw.
  using Batch = std::map<RuleKey, std::optional<Rule>>;

  void stage(const RuleKey& key, std::optional<Rule> rule);
  void logCall(RuleCall call);

  Zov::Ptr<Korvel::EntityManager> entityManager_;
  std::map<RuleKey, Rule> rules_;
  std::map<BatchKey, Batch> batches_;
  std::map<L3::VrfName, std::uint64_t> finishes_;
  std::vector<RuleCall> log_;
  std::uint64_t calls_ = 0;
  bool callLog_ = true;
  FinishListener finishListener_;
};

}  // namespace AclAgent
