#include "platform/McastDns.h"

namespace McastDns {
namespace {
Zov::String linkName(const IntfKey& key) {
  return Zov::String(key.intfId.name().str() + "#" + std::to_string(key.index));
}
}  // namespace

void Config::gatewayEnabledIs(bool enabled) {
  if (enabled == gatewayEnabled_) return;
  gatewayEnabled_ = enabled;
  notifieeList()->visit(kGatewayEnabled);
}

void Config::opaqueIs(const Opaque& value) {
  if (value == opaque_) return;
  opaque_ = value;
  notifieeList()->visit(kOpaque);
}

void Config::gatewaySettingIs(std::uint16_t setting) {
  if (setting == gatewaySetting_) return;
  gatewaySetting_ = setting;
  notifieeList()->visit(kGatewaySetting);
}

LinkStatus::LinkStatus(const IntfKey& intfKey, std::uint8_t state)
    : Entity(linkName(intfKey)), intfKey_(intfKey), state_(state) {}

void LinkStatus::stateIs(std::uint8_t state) {
  if (state == state_) return;
  state_ = state;
  notifieeList()->visit(kState);
}

void Status::enabledIs(bool enabled) {
  if (enabled == enabled_) return;
  enabled_ = enabled;
  notifieeList()->visit(kEnabled);
}

void Status::linkStatusIs(const Zov::Ptr<LinkStatus>& link) {
  const IntfKey key = link->intfKey();
  if (linkStatus_.entryIs(key, link)) notifieeList()->visit(kLinkStatus, &key);
}

void Status::linkStatusDel(const IntfKey& key) {
  if (linkStatus_.entryDel(key)) notifieeList()->visit(kLinkStatus, &key);
}

}  // namespace McastDns
