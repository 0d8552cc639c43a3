#include "PublishedModel.h"

#include "agent/Overloaded.h"
#include "agent/Text.h"

namespace AclAgentFuzz {
namespace {

using namespace AclAgent;

constexpr std::size_t kMaxVrfName = 100;
const std::string kDefaultVrf = "default";
const std::string kRuleFields = " dir=0 chain=\"INPUT\" owner=\"McastDnsAclPlugin\" seq=";
const std::string kMdnsRule = "-p udp --dport 5353 -d 224.0.0.251 -j ACCEPT\n";
const std::string kGatewayRule = "-p tcp --dport 8853 -j ACCEPT\n";

std::size_t slot(StatePath path) {
  return static_cast<std::size_t>(path);
}

StatePath vrfPath(VrfView view) {
  return view == VrfView::kGlobal ? StatePath::kVrfStatusGlobal : StatePath::kVrfStatusLocal;
}

template <class... Cmd>
bool isOneOf(const CommandArgs& args) {
  return (std::holds_alternative<Cmd>(args) || ...);
}

// The path a publishing command writes to.
std::optional<StatePath> pathWritten(const CommandArgs& args) {
  if (isOneOf<GatewayEnabledCmd, GatewaySettingCmd>(args)) return StatePath::kMdnsConfig;
  if (isOneOf<LinkSetCmd, LinkReplaceCmd, LinkDelCmd>(args)) return StatePath::kMdnsStatus;
  if (isOneOf<IntfSetCmd, IntfReplaceCmd, IntfDelCmd>(args)) return StatePath::kL3IntfStatus;
  if (const auto* c = std::get_if<VrfAddCmd>(&args)) return vrfPath(c->view);
  if (const auto* c = std::get_if<VrfDelCmd>(&args)) return vrfPath(c->view);
  return std::nullopt;
}

}  // namespace

PublishedModel::PublishedModel() {
  for (auto& content : current_) content = std::make_shared<Content>();
}

bool PublishedModel::mustFail(const CommandArgs& args) const {
  if (const auto path = pathWritten(args); path && !current_[slot(*path)]) return true;
  if (std::holds_alternative<OmitCmd>(args)) return loaded_;
  // The agent under test applies nothing to the kernel.
  if (std::holds_alternative<ResyncCmd>(args)) return true;
  if (const auto* c = std::get_if<RecreateCmd>(&args)) return !current_[slot(c->path)];
  if (const auto* c = std::get_if<IntfSetCmd>(&args)) return c->vrf.size() > kMaxVrfName;
  if (const auto* c = std::get_if<IntfReplaceCmd>(&args)) return c->vrf.size() > kMaxVrfName;
  if (const auto* c = std::get_if<VrfAddCmd>(&args)) return c->name.size() > kMaxVrfName;
  if (const auto* c = std::get_if<VrfDelCmd>(&args)) return c->name.size() > kMaxVrfName;
  return false;
}

bool PublishedModel::mayBeRefusedByPlugin(const CommandArgs& args) const {
  const auto* c = std::get_if<LinkReplaceCmd>(&args);
  const std::size_t status = slot(StatePath::kMdnsStatus);
  return c && running_ && current_[status] && current_[status] == bound_[status] &&
         current_[status]->links.contains({c->link.intf, c->link.index});
}

void PublishedModel::publish(const CommandArgs& args, Content& content) {
  std::visit(Overloaded{
                 [&](const GatewayEnabledCmd& c) { content.gatewayEnabled = c.enabled; },
                 [&](const GatewaySettingCmd& c) { content.gatewaySetting = c.setting; },
                 [&](const LinkSetCmd& c) {
                   content.links[{c.link.intf, c.link.index}] = c.state;
                 },
                 [&](const LinkReplaceCmd& c) {
                   content.links[{c.link.intf, c.link.index}] = c.state;
                 },
                 [&](const LinkDelCmd& c) {
                   content.links.erase({c.link.intf, c.link.index});
                 },
                 [&](const IntfSetCmd& c) { content.intfVrf[c.intf] = c.vrf; },
                 [&](const IntfReplaceCmd& c) { content.intfVrf[c.intf] = c.vrf; },
                 [&](const IntfDelCmd& c) { content.intfVrf.erase(c.intf); },
                 [&](const VrfAddCmd& c) { content.vrfs.insert(c.name); },
                 [&](const VrfDelCmd& c) { content.vrfs.erase(c.name); },
                 [](const auto&) {},
             },
             args);
}

void PublishedModel::ran(const CommandArgs& args, bool refused) {
  if (const auto path = pathWritten(args)) {
    std::shared_ptr<Content>& content = current_[slot(*path)];
    const Content before = *content;
    publish(args, *content);
    // The plugin hears changes of what it mounted, except of the VRF lists,
    // which it reads only when it refreshes, and of links it refused.
    bool heard = running_ && content == bound_[slot(*path)] &&
                 *path != StatePath::kVrfStatusGlobal && *path != StatePath::kVrfStatusLocal;
    if (const auto* c = std::get_if<LinkReplaceCmd>(&args)) {
      if (refused) unwatched_.insert({c->link.intf, c->link.index});
      heard = heard && !unwatched_.contains({c->link.intf, c->link.index});
    } else if (const auto* c = std::get_if<LinkSetCmd>(&args)) {
      heard = heard && !unwatched_.contains({c->link.intf, c->link.index});
    } else if (const auto* c = std::get_if<LinkDelCmd>(&args); c && heard) {
      unwatched_.erase({c->link.intf, c->link.index});
    }
    if (heard && !(before == *content)) refreshDue_ = true;
    return;
  }
  std::visit(Overloaded{
                 [&](const OmitCmd& c) { current_[slot(c.path)] = nullptr; },
                 [&](const RecreateCmd& c) {
                   auto& content = current_[slot(c.path)];
                   content = std::make_shared<Content>(*content);
                 },
                 [&](const LoadCmd&) {
                   loaded_ = true;
                   completionDue_ = true;
                 },
                 [&](const UnloadCmd&) {
                   loaded_ = completionDue_ = running_ = refreshDue_ = false;
                   bound_ = {};
                   unwatched_.clear();
                 },
                 [&](const RemountCmd&) {
                   if (loaded_) bind();
                 },
                 // The completion that `load` made due runs on the loop; a
                 // `remount` before it does not take its place.
                 [&](const AdvanceCmd&) { completionRuns(); },
                 [&](const SettleCmd&) { completionRuns(); },
                 [](const auto&) {},
             },
             args);
}

void PublishedModel::completionRuns() {
  if (!completionDue_) return;
  completionDue_ = false;
  bind();
}

void PublishedModel::bind() {
  // A completion that finds the same entities keeps the state machine.
  if (running_ && bound_ == current_) return;
  bound_ = current_;
  unwatched_.clear();
  running_ = true;
  refreshDue_ = true;  // the new state machine's first refresh
}

void PublishedModel::refreshed() {
  refreshDue_ = false;
  const Content none;
  auto input = [&](StatePath path) -> const Content& {
    const auto& content = bound_[slot(path)];
    return content ? *content : none;
  };
  std::map<std::string, bool> table;
  const Content& intfs = input(StatePath::kL3IntfStatus);
  for (const auto& [link, state] : input(StatePath::kMdnsStatus).links) {
    const auto intf = intfs.intfVrf.find(link.first);
    if (state == 1 && intf != intfs.intfVrf.end()) table[intf->second] = true;
  }
  for (StatePath path : {StatePath::kVrfStatusGlobal, StatePath::kVrfStatusLocal}) {
    for (const std::string& vrf : input(path).vrfs) table.emplace(vrf, false);
  }
  table.emplace(kDefaultVrf, false);
  for (const auto& [vrf, needed] : table) mdnsRule_[vrf] = needed;
  const Content& config = input(StatePath::kMdnsConfig);
  gatewayRule_ = config.gatewayEnabled && config.gatewaySetting != 0;
}

std::string PublishedModel::rulesText() const {
  // In the service's order: by VRF, then sequence number.
  std::map<std::pair<std::string, unsigned>, const std::string*> rules;
  for (const auto& [vrf, stands] : mdnsRule_) {
    if (stands) rules[{vrf, 0}] = &kMdnsRule;
  }
  if (gatewayRule_) rules[{kDefaultVrf, 1}] = &kGatewayRule;
  std::string text;
  for (const auto& [key, rule] : rules) {
    text += "rule ipt=0 acl=0 vrf=" + quoteName(key.first) + kRuleFields +
            std::to_string(key.second) + " rule=" + quoteName(*rule) + "\n";
  }
  return text.empty() ? "no rules\n" : text;
}

}  // namespace AclAgentFuzz
