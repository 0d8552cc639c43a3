// McastDns: the state that the multicast DNS agent publishes.
//
// `McastDns::Config` ("mdns/config") carries the gateway settings;
// `McastDns::Status` ("mdns/status") holds one `McastDns::LinkStatus` per link
// on which multicast DNS runs, keyed by `McastDns::IntfKey`. Writers change
// them through the mutators; each real change is announced with the ids
// below (a collection change with the entry's key); a setter given what is
// held notifies nobody.
#pragma once

#include <array>

#include "platform/Dovix.h"
#include "platform/Zov.h"

namespace McastDns {

// The key of one link: an interface and a 32-bit field whose meaning is the
// publishing agent's (several links may run on one interface).
struct IntfKey {
  Dovix::IntfId intfId;
  std::uint32_t index = 0;

  std::uint64_t hash(unsigned seed) const {
    return Zov::hashSingleAttr(seed, intfId.value() * 0x9e3779b97f4a7c15ULL ^ index);
  }
  friend bool operator==(const IntfKey&, const IntfKey&) = default;
  friend auto operator<=>(const IntfKey&, const IntfKey&) = default;
};

struct IntfKeyHash {
  std::size_t operator()(const IntfKey& k) const noexcept { return k.hash(0); }
};

// The multicast DNS configuration.
class Config : public Zov::Entity {
  ZOV_TRACKED_ALLOCATION("McastDns::Config")

 public:
  static constexpr Zov::AttributeId kGatewayEnabled = 258;
  static constexpr Zov::AttributeId kOpaque = 259;
  static constexpr Zov::AttributeId kGatewaySetting = 260;
  using Opaque = std::array<std::uint8_t, 12>;

  explicit Config(const Zov::String& name) : Entity(name) {}

  bool gatewayEnabled() const { return gatewayEnabled_; }
  void gatewayEnabledIs(bool enabled);
  // A twelve-byte value of the configuring agent's that readers ignore.
  const Opaque& opaque() const { return opaque_; }
  void opaqueIs(const Opaque& value);
  std::uint16_t gatewaySetting() const { return gatewaySetting_; }
  void gatewaySettingIs(std::uint16_t setting);

 private:
  bool gatewayEnabled_ = false;
  Opaque opaque_{};
  std::uint16_t gatewaySetting_ = 0;
};

// One link on which multicast DNS runs. Its key is fixed at creation.
class LinkStatus : public Zov::Entity {
  ZOV_TRACKED_ALLOCATION("McastDns::LinkStatus")

 public:
  static constexpr Zov::AttributeId kState = 259;
  // The state in which the link needs multicast DNS packets let in.
  static constexpr std::uint8_t kStateUp = 1;

  explicit LinkStatus(const IntfKey& intfKey, std::uint8_t state = 0);

  const IntfKey& intfKey() const { return intfKey_; }
  std::uint8_t state() const { return state_; }
  void stateIs(std::uint8_t state);

 private:
  IntfKey intfKey_;
  std::uint8_t state_;
};

// The multicast DNS agent's status: its links.
class Status : public Zov::Entity {
  ZOV_TRACKED_ALLOCATION("McastDns::Status")

 public:
  static constexpr Zov::AttributeId kEnabled = 258;
  static constexpr Zov::AttributeId kLinkStatus = 260;
  using LinkStatusMap = Zov::HashMap2018Generic<IntfKey, LinkStatus, IntfKeyHash>;

  explicit Status(const Zov::String& name) : Entity(name) {}

  // Whether the agent runs; readers of links need not look at it.
  bool enabled() const { return enabled_; }
  void enabledIs(bool enabled);

  const LinkStatusMap& linkStatus() const { return linkStatus_; }
  LinkStatus* linkStatus(const IntfKey& key) const { return linkStatus_.lookup(key); }
  // Puts `link` under its own key (announced with 260 and the key).
  // REQUIRES: `link` is not null.
  void linkStatusIs(const Zov::Ptr<LinkStatus>& link);
  // Removes the entry under `key`, announcing it when there was one.
  void linkStatusDel(const IntfKey& key);

 private:
  bool enabled_ = false;
  LinkStatusMap linkStatus_;
};

}  // namespace McastDns
