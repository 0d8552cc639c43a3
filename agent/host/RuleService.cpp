#include "agent/host/RuleService.h"

#include <set>
#include <string_view>
#include <utility>

#include "agent/base/ChainRules.h"
#include "agent/base/Text.h"

namespace AclAgent {
namespace {

unsigned number(Acl::IptablesType v) {
  return static_cast<unsigned>(v);
}
unsigned number(Acl::AclType v) {
  return static_cast<unsigned>(v);
}
unsigned number(Acl::AclDirection v) {
  return static_cast<unsigned>(v);
}

}  // namespace

std::string ruleKeyText(const RuleKey& key) {
  return "ipt=" + std::to_string(number(key.iptablesType)) +
         " acl=" + std::to_string(number(key.aclType)) + " vrf=" + quoteName(key.vrf.view()) +
         " dir=" + std::to_string(number(key.direction)) + " chain=" + quoteName(key.chain.view()) +
         " owner=" + quoteName(key.owner.view()) + " seq=" + std::to_string(key.sequence);
}

RuleService::RuleService(Zov::Ptr<Korvel::EntityManager> entityManager)
    : entityManager_(std::move(entityManager)) {}

void RuleService::registerChainRule(Acl::IptablesType iptablesType, Acl::AclType aclType,
                                    L3::VrfName vrf, Acl::AclDirection direction,
                                    const Zov::String& chain, const Zov::String& owner,
                                    unsigned int sequence, const Zov::String& rule,
                                    const Zov::String& text2, const Zov::String& text3, bool flag,
                                    const Acl::UniqueId& uniqueId) {
  Slot& slot =
      namedSlot(batchOf(iptablesType, aclType, vrf, chain).second, direction, sequence, owner);
  const Rule& standing = slot.standingRule;
  if (slot.standing != rules_.end() && standing.text == rule && standing.text2 == text2 &&
      standing.text3 == text3 && standing.flag == flag && standing.uniqueId == uniqueId) {
    if (slot.staged == Slot::Staged::kPut) slot.pending = Rule{};
    slot.staged = Slot::Staged::kKeep;
  } else {
    slot.staged = Slot::Staged::kPut;
    slot.pending = Rule{rule, text2, text3, flag, uniqueId};
  }
  ++calls_;
  if (callLog_) {
    log_.push_back(
        RuleCall{RuleCall::Kind::kRegister,
                 RuleKey{iptablesType, aclType, std::move(vrf), direction, chain, owner, sequence},
                 Rule{rule, text2, text3, flag, uniqueId}});
  }
}

void RuleService::unregisterChainRule(Acl::IptablesType iptablesType, Acl::AclType aclType,
                                      L3::VrfName vrf, Acl::AclDirection direction,
                                      const Zov::String& chain, const Zov::String& owner,
                                      unsigned int sequence) {
  Slot& slot =
      namedSlot(batchOf(iptablesType, aclType, vrf, chain).second, direction, sequence, owner);
  if (slot.staged == Slot::Staged::kPut) slot.pending = Rule{};
  slot.staged = slot.standing == rules_.end() ? Slot::Staged::kKeep : Slot::Staged::kWithdraw;
  ++calls_;
  if (callLog_) {
    log_.push_back(RuleCall{
        RuleCall::Kind::kUnregister,
        RuleKey{iptablesType, aclType, std::move(vrf), direction, chain, owner, sequence}, Rule{}});
  }
}

void RuleService::finishRegistration(Acl::IptablesType iptablesType, Acl::AclType aclType,
                                     L3::VrfName vrf, const Zov::String& chain) {
  auto& [key, batch] = batchOf(iptablesType, aclType, vrf, chain);
  ++batch.finishes;
  bool changed = false;
  if (batch.first.staged != Slot::Staged::kNothing) {
    changed = applyStaged(key, *batch.firstKey, batch.first);
  }
  for (const SlotMap::iterator& it : batch.staged) {
    const bool stood = it->second.standing != rules_.end();
    if (!applyStaged(key, it->first, it->second)) continue;
    changed = true;
    if (stood != (it->second.standing != rules_.end())) {
      stood ? ++batch.emptySlots : --batch.emptySlots;
    }
  }
  batch.staged.clear();
  dropEmptySlots(batch);
  if (finishListener_) finishListener_(vrf, changed);
  ++calls_;
  if (callLog_) {
    RuleCall call;
    call.kind = RuleCall::Kind::kFinish;
    call.key.iptablesType = iptablesType;
    call.key.aclType = aclType;
    call.key.vrf = std::move(vrf);
    call.key.chain = chain;
    log_.push_back(std::move(call));
  }
}

bool RuleService::applyStaged(const BatchKey& batch, const SlotKey& key, Slot& slot) {
  // Only what changes what stands reaches the ordered map.
  const Slot::Staged staged = slot.staged;
  slot.staged = Slot::Staged::kNothing;
  switch (staged) {
    case Slot::Staged::kPut:
      if (slot.standing == rules_.end()) {
        slot.standing = rules_
                            .emplace(RuleKey{batch.iptablesType, batch.aclType, batch.vrf,
                                             key.direction, batch.chain, key.owner, key.sequence},
                                     slot.pending)
                            .first;
      } else {
        slot.standing->second = slot.pending;
      }
      slot.standingRule = std::move(slot.pending);
      slot.pending = Rule{};
      return true;
    case Slot::Staged::kWithdraw:
      rules_.erase(slot.standing);
      slot.standing = rules_.end();
      slot.standingRule = Rule{};
      return true;
    case Slot::Staged::kKeep:
    case Slot::Staged::kNothing:
      break;
  }
  return false;
}

std::size_t RuleService::BatchKeyHash::operator()(const BatchKeyRef& key) const noexcept {
  const std::hash<std::string_view> text;
  std::size_t h = text(key.vrf.view());
  h ^= text(key.chain.view()) + 0x9e3779b97f4a7c15ULL + (h << 6) + (h >> 2);
  return h ^
         (static_cast<std::size_t>(key.iptablesType) << 8 | static_cast<std::size_t>(key.aclType));
}

RuleService::BatchMap::value_type& RuleService::batchOf(Acl::IptablesType iptablesType,
                                                        Acl::AclType aclType,
                                                        const L3::VrfName& vrf,
                                                        const Zov::String& chain) {
  // The guesses go by shared text only, which costs no byte comparison; an
  // equal name that is another copy takes the lookup.
  auto same = [&](const BatchMap::value_type* batch) {
    const BatchKey& key = batch->first;
    return key.vrf.sharesDataWith(vrf) && key.chain.sharesDataWith(chain) &&
           key.iptablesType == iptablesType && key.aclType == aclType;
  };
  if (lastBatch_) {
    if (same(lastBatch_)) return *lastBatch_;
    if (BatchMap::value_type* next = lastBatch_->second.next; next && same(next)) {
      lastBatch_ = next;
      return *next;
    }
  }
  auto it = batches_.find(BatchKeyRef{iptablesType, aclType, vrf, chain});
  if (it == batches_.end()) {
    it = batches_.emplace(BatchKey{iptablesType, aclType, vrf, chain}, Batch{}).first;
  }
  if (lastBatch_) lastBatch_->second.next = &*it;
  lastBatch_ = &*it;
  return *it;
}

RuleService::Slot& RuleService::namedSlot(Batch& batch, Acl::AclDirection direction,
                                          unsigned int sequence, const Zov::String& owner) {
  const SlotKeyRef key{direction, sequence, owner};
  const SlotKeyLess less;
  Slot* slot = nullptr;
  if (!batch.firstKey) {
    batch.firstKey.emplace(SlotKey{direction, sequence, owner});
    batch.first.standing = rules_.end();
    slot = &batch.first;
  } else if (!less(key, *batch.firstKey) && !less(*batch.firstKey, key)) {
    slot = &batch.first;
  } else {
    auto it = batch.more.lower_bound(key);
    if (it == batch.more.end() || less(key, it->first)) {
      Slot empty;
      empty.standing = rules_.end();
      it = batch.more.emplace_hint(it, SlotKey{direction, sequence, owner}, std::move(empty));
      ++batch.emptySlots;
    }
    if (it->second.staged == Slot::Staged::kNothing) batch.staged.push_back(it);
    slot = &it->second;
  }
  slot->named = batch.finishes + 1;
  return *slot;
}

void RuleService::dropEmptySlots(Batch& batch) {
  // Keys withdrawn at every refresh keep their slots: they are named again
  // before each finish.
  if (batch.emptySlots <= kEmptySlotsKept || 2 * batch.emptySlots <= batch.more.size()) return;
  for (auto it = batch.more.begin(); it != batch.more.end();) {
    if (it->second.standing == rules_.end() && it->second.named != batch.finishes) {
      it = batch.more.erase(it);
      --batch.emptySlots;
    } else {
      ++it;
    }
  }
}

bool RuleService::vrfRulesDel(const L3::VrfName& vrf) {
  std::set<const BatchMap::value_type*> gone;
  bool stood = false;
  for (auto& entry : batches_) {
    if (entry.first.vrf != vrf) continue;
    gone.insert(&entry);
    Batch& batch = entry.second;
    if (batch.firstKey && batch.first.standing != rules_.end()) {
      rules_.erase(batch.first.standing);
      stood = true;
    }
    for (auto& [key, slot] : batch.more) {
      if (slot.standing == rules_.end()) continue;
      rules_.erase(slot.standing);
      stood = true;
    }
  }
  if (gone.empty()) return false;
  // The guesses of which batch comes next must not lead to one that went.
  if (gone.count(lastBatch_)) lastBatch_ = nullptr;
  for (auto& [key, batch] : batches_) {
    if (gone.count(batch.next)) batch.next = nullptr;
  }
  std::erase_if(batches_, [&](const auto& entry) { return gone.count(&entry) > 0; });
  return stood;
}

std::uint64_t RuleService::finishes(const L3::VrfName& vrf) const {
  std::uint64_t finishes = 0;
  for (const auto& [key, batch] : batches_) {
    if (key.vrf == vrf) finishes += batch.finishes;
  }
  return finishes;
}

std::size_t RuleService::stagedOperations() const {
  std::size_t staged = 0;
  for (const auto& [key, batch] : batches_) {
    staged += batch.staged.size() + (batch.first.staged != Slot::Staged::kNothing);
  }
  return staged;
}

void RuleService::callLogIs(bool enabled) {
  if (enabled == callLog_) return;
  callLog_ = enabled;
  if (!enabled) log_.clear();
}

std::string RuleService::renderCalls() {
  if (log_.empty()) return "no calls\n";
  std::string out;
  for (const RuleCall& call : log_) {
    switch (call.kind) {
      case RuleCall::Kind::kRegister:
        out += "register " + ruleKeyText(call.key) + " rule=" + quoteName(call.rule.text.view()) +
               " text2=" + quoteName(call.rule.text2.view()) +
               " text3=" + quoteName(call.rule.text3.view()) +
               " flag=" + (call.rule.flag ? "true" : "false") + "\n";
        break;
      case RuleCall::Kind::kUnregister:
        out += "unregister " + ruleKeyText(call.key) + "\n";
        break;
      case RuleCall::Kind::kFinish:
        out += "finish ipt=" + std::to_string(number(call.key.iptablesType)) +
               " acl=" + std::to_string(number(call.key.aclType)) +
               " vrf=" + quoteName(call.key.vrf.view()) +
               " chain=" + quoteName(call.key.chain.view()) + "\n";
        break;
    }
  }
  log_.clear();
  return out;
}

ChainRules RuleService::vrfRules(const L3::VrfName& vrf) const {
  // The same order as `renderIptables`: chain, owner, sequence, direction.
  using Placement = std::tuple<Zov::String, Zov::String, unsigned int, Acl::AclDirection>;
  std::map<Placement, std::string_view> placed;
  const RuleKey first{Acl::IptablesType::kIptables,
                      Acl::AclType::kControlPlane,
                      vrf,
                      Acl::AclDirection::kIn,
                      Zov::String(),
                      Zov::String(),
                      0};
  for (auto it = rules_.lower_bound(first); it != rules_.end(); ++it) {
    const auto& [key, rule] = *it;
    if (key.iptablesType != first.iptablesType || key.aclType != first.aclType || key.vrf != vrf) {
      break;
    }
    std::string_view text = rule.text.view();
    if (!text.empty() && text.back() == '\n') text.remove_suffix(1);
    if (chainNameFault(key.chain.view()) || ruleTextFault(text)) continue;
    placed.emplace(Placement{key.chain, key.owner, key.sequence, key.direction}, text);
  }
  ChainRules chains;
  for (const auto& [placement, text] : placed) {
    chains[std::get<0>(placement).str()].emplace_back(text);
  }
  return chains;
}

std::string RuleService::renderRules() const {
  if (rules_.empty()) return "no rules\n";
  std::string out;
  for (const auto& [key, rule] : rules_) {
    out += "rule " + ruleKeyText(key) + " rule=" + quoteName(rule.text.view()) + "\n";
  }
  return out;
}

}  // namespace AclAgent
