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
//   std::cout << rules->renderCalls() << rules->renderRules();
//
// Each batch keeps what its last finishes made stand under the keys it has
// named, so that a registration or withdrawal finds out at once whether it
// would change anything: it costs a hash lookup of its batch and O(log k) in
// the k keys that batch has named. A finish costs O(log n) in the rules
// standing for each operation of its batch that changes what stands, and
// nothing more for the others: a refresh that sends every decision again and
// changes nothing touches no ordered map.
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
#include <unordered_map>
#include <vector>

#include "agent/base/ChainRules.h"
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

// The text shared by every line that names a whole rule key:
// ipt=0 acl=0 vrf="red" dir=0 chain="INPUT" owner="McastDnsAclPlugin" seq=0
std::string ruleKeyText(const RuleKey& key);

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
  // What must stand in `vrf`: the rules in force of iptables type 0 and ACL
  // type 0, each chain's in order of owner, sequence number (then
  // direction). A rule whose chain name or text cannot be one rule line
  // (`chainNameFault`, `ruleTextFault`) is left out.
  ChainRules vrfRules(const L3::VrfName& vrf) const;

  // Drops every rule of `vrf`, standing or staged, and every batch that
  // names it, as though no plugin had named the VRF yet: for a VRF the
  // device no longer has. Nothing is logged and no finish is reported, and
  // its finishes are counted from 0 again. Returns whether a rule stood
  // there.
  bool vrfRulesDel(const L3::VrfName& vrf);

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

 private:
  using RuleMap = std::map<RuleKey, Rule>;

  // The four values that name a batch; every rule key belongs to exactly one.
  struct BatchKey {
    Acl::IptablesType iptablesType;
    Acl::AclType aclType;
    L3::VrfName vrf;
    Zov::String chain;
  };
  // The same, borrowed from a call's arguments, to look a batch up without
  // copying its names.
  struct BatchKeyRef {
    Acl::IptablesType iptablesType;
    Acl::AclType aclType;
    const L3::VrfName& vrf;
    const Zov::String& chain;
  };
  struct BatchKeyHash {
    using is_transparent = void;
    std::size_t operator()(const BatchKey& key) const noexcept {
      return (*this)(BatchKeyRef{key.iptablesType, key.aclType, key.vrf, key.chain});
    }
    std::size_t operator()(const BatchKeyRef& key) const noexcept;
  };
  struct BatchKeyEqual {
    using is_transparent = void;
    template <class A, class B>
    bool operator()(const A& a, const B& b) const noexcept {
      return a.iptablesType == b.iptablesType && a.aclType == b.aclType && a.vrf == b.vrf &&
             a.chain == b.chain;
    }
  };

  // The rest of a rule key, within its batch.
  struct SlotKey {
    Acl::AclDirection direction;
    unsigned int sequence;
    Zov::String owner;
  };
  struct SlotKeyRef {
    Acl::AclDirection direction;
    unsigned int sequence;
    const Zov::String& owner;
  };
  struct SlotKeyLess {
    using is_transparent = void;
    template <class A, class B>
    bool operator()(const A& a, const B& b) const noexcept {
      if (a.direction != b.direction) return a.direction < b.direction;
      if (a.sequence != b.sequence) return a.sequence < b.sequence;
      return !a.owner.sharesDataWith(b.owner) && a.owner.view() < b.owner.view();
    }
  };

  // One key a batch has named: the rule standing under it, and what the
  // batch has staged for it since its last finish (the last call wins).
  struct Slot {
    enum class Staged : std::uint8_t {
      kNothing,   // not named since the last finish
      kKeep,      // named, and what the call asked for stands already
      kPut,       // `pending` is to stand
      kWithdraw,  // the rule standing is to go
    };
    Staged staged = Staged::kNothing;
    // The finish (counted from 1) that last found it named.
    std::uint64_t named = 0;
    RuleMap::iterator standing;  // into `rules_`; its end when nothing stands
    // A copy of what stands (the texts are shared), so that a call is
    // weighed against it without a visit to `rules_`.
    Rule standingRule;
    Rule pending;  // while kPut; empty otherwise
  };
  using SlotMap = std::map<SlotKey, Slot, SlotKeyLess>;

  // What a call looks at comes first, so that a refresh that changes nothing
  // touches as few cache lines of each batch as it can.
  struct Batch {
    // The batch that was called on after this one last time. A plugin that
    // refreshes names its batches in the same order every time, so this
    // spares the lookup.
    std::pair<const BatchKey, Batch>* next = nullptr;
    std::uint64_t finishes = 0;
    // Every key that stands in this batch has a slot, so a key without one
    // holds no rule. The first key the batch named has its slot here, with
    // the batch (most batches only ever name one); the others are in `more`.
    // Slots of keys that hold no rule are kept while they are named again
    // and again (every refresh withdraws what is not wanted).
    std::optional<SlotKey> firstKey;
    Slot first;
    // The slots of `more` with something staged, in the order first named.
    std::vector<SlotMap::iterator> staged;
    SlotMap more;
    std::size_t emptySlots = 0;  // slots of `more` under which nothing stands
  };
  using BatchMap = std::unordered_map<BatchKey, Batch, BatchKeyHash, BatchKeyEqual>;

  BatchMap::value_type& batchOf(Acl::IptablesType iptablesType, Acl::AclType aclType,
                                const L3::VrfName& vrf, const Zov::String& chain);
  // The slot of a key in `batch`, made when the batch has none, marked as
  // named before the batch's next finish.
  Slot& namedSlot(Batch& batch, Acl::AclDirection direction, unsigned int sequence,
                  const Zov::String& owner);
  // Makes what `slot` has staged stand; whether that changed anything.
  bool applyStaged(const BatchKey& batch, const SlotKey& key, Slot& slot);
  // Drops slots that hold no rule and were not named by the finish just made,
  // once there are more than `kEmptySlotsKept` of them and they are the
  // majority: a key named once and withdrawn does not cost memory forever.
  void dropEmptySlots(Batch& batch);
  static constexpr std::size_t kEmptySlotsKept = 16;

  Zov::Ptr<Korvel::EntityManager> entityManager_;
  RuleMap rules_;
  BatchMap batches_;
  // The batch of the last call: a finish names the batch its operations
  // just did, and the next call most likely the batch after it.
  BatchMap::value_type* lastBatch_ = nullptr;
  std::vector<RuleCall> log_;
  std::uint64_t calls_ = 0;
  bool callLog_ = true;
  FinishListener finishListener_;
};

}  // namespace AclAgent
