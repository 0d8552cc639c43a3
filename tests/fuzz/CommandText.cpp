#include "FuzzSupport.h"

#include "agent/base/Overloaded.h"
#include "agent/base/Text.h"

namespace AclAgentFuzz {
namespace {

using namespace AclAgent;

std::string linkText(const LinkName& link) {
  std::string text = quoteName(link.intf);
  if (link.index != 0) text += "#" + std::to_string(link.index);
  return text;
}

std::string viewText(VrfView view) {
  return std::string(vrfViewName(view)) + " ";
}

}  // namespace

std::string commandText(const CommandArgs& args) {
  return std::visit(
      Overloaded{
          [](const GatewayEnabledCmd& c) {
            return std::string("config gateway-enabled ") + (c.enabled ? "true" : "false");
          },
          [](const GatewaySettingCmd& c) {
            return "config gateway-setting " + std::to_string(c.setting);
          },
          [](const LinkSetCmd& c) {
            return "link set " + linkText(c.link) + " " + std::to_string(c.state);
          },
          [](const LinkReplaceCmd& c) {
            return "link replace " + linkText(c.link) + " " + std::to_string(c.state);
          },
          [](const LinkDelCmd& c) { return "link del " + linkText(c.link); },
          [](const IntfSetCmd& c) {
            return "intf set " + quoteName(c.intf) + " " + quoteName(c.vrf);
          },
          [](const IntfReplaceCmd& c) {
            return "intf replace " + quoteName(c.intf) + " " + quoteName(c.vrf);
          },
          [](const IntfDelCmd& c) { return "intf del " + quoteName(c.intf); },
          [](const VrfAddCmd& c) { return "vrf add " + viewText(c.view) + quoteName(c.name); },
          [](const VrfDelCmd& c) { return "vrf del " + viewText(c.view) + quoteName(c.name); },
          [](const OmitCmd& c) { return "omit " + std::string(statePathName(c.path)); },
          [](const RecreateCmd& c) { return "recreate " + std::string(statePathName(c.path)); },
          [](const LoadCmd&) { return std::string("load"); },
          [](const UnloadCmd&) { return std::string("unload"); },
          [](const RemountCmd& c) {
            return std::string("remount ") +
                   (c.status == Korvel::MountStatus::kSuccess ? "ok" : "failed");
          },
          [](const AdvanceCmd& c) { return "advance " + std::to_string(c.nanoseconds) + "ns"; },
          [](const SettleCmd&) { return std::string("settle"); },
          [](const EchoCmd& c) { return "echo " + c.text; },
          [](const ShowCmd& c) { return "show " + std::string(showWord(c.what)); },
          [](const ClearCallsCmd&) { return std::string("clear calls"); },
          [](const ResyncCmd&) { return std::string("resync"); },
      },
      args);
}

}  // namespace AclAgentFuzz
