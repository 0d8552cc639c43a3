#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "platform/Cell.h"
#include "platform/Ip.h"
#include "platform/L3.h"
#include "platform/McastDns.h"
#include "tests/platform/PlatformTesting.h"

namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ZovTesting::Listener;

// What a listener heard: the attribute id and, for a keyed attribute, a copy
// of the key (the pointer itself is only valid during the notification).
template <class Key>
struct Heard {
  Zov::AttributeId id;
  std::optional<Key> key;
  friend bool operator==(const Heard&, const Heard&) = default;
};
template <class Key>
Zov::Ptr<Listener> recordInto(const Zov::PtrInterface* notifier, std::vector<Heard<Key>>& heard) {
  return Listener::listenerIs(notifier, [&heard](Zov::AttributeId id, const void* key) {
    heard.push_back({id, key ? std::optional<Key>(*static_cast<const Key*>(key)) : std::nullopt});
  });
}

McastDns::IntfKey keyOf(const char* intf, std::uint32_t index) {
  return {Dovix::IntfId(Zov::String(intf)), index};
}

TEST(PublishedTypesTest, ConfigAnnouncesEachSettingOnlyWhenItChanges) {
  using H = Heard<int>;
  Zov::Ptr<McastDns::Config> config(new McastDns::Config("config"));
  std::vector<H> heard;
  auto listener = recordInto(config.ptr(), heard);
  config->gatewayEnabledIs(true);
  config->gatewayEnabledIs(true);
  config->opaqueIs({1, 2, 3});
  config->opaqueIs({1, 2, 3});
  config->gatewaySettingIs(8853);
  config->gatewaySettingIs(8853);
  config->gatewayEnabledIs(false);
  EXPECT_THAT(heard, ElementsAre(H{258, {}}, H{259, {}}, H{260, {}}, H{258, {}}));
  EXPECT_EQ(config->gatewaySetting(), 8853);
  EXPECT_FALSE(config->gatewayEnabled());
}

TEST(PublishedTypesTest, StatusAndLinkStatusAnnounceWithTheirKeys) {
  using H = Heard<McastDns::IntfKey>;
  Zov::Ptr<McastDns::Status> status(new McastDns::Status("status"));
  std::vector<H> heard;
  auto listener = recordInto(status.ptr(), heard);
  const auto key = keyOf("Ethernet1", 7);
  {
    Zov::Ptr<McastDns::LinkStatus> link(new McastDns::LinkStatus(key));
    std::vector<H> linkHeard;
    auto linkListener = recordInto(link.ptr(), linkHeard);
    status->enabledIs(true);
    status->enabledIs(true);
    status->linkStatusIs(link);
    status->linkStatusIs(link);
    EXPECT_EQ(status->linkStatus(key), link.ptr());
    EXPECT_EQ(status->linkStatus(keyOf("Ethernet1", 8)), nullptr);
    link->stateIs(McastDns::LinkStatus::kStateUp);
    link->stateIs(McastDns::LinkStatus::kStateUp);
    EXPECT_THAT(linkHeard, ElementsAre(Heard<McastDns::IntfKey>{259, {}}));
  }
  // A new entity under the same key is a change; removing twice announces once.
  status->linkStatusIs(Zov::Ptr<McastDns::LinkStatus>(new McastDns::LinkStatus(key, 1)));
  status->linkStatusDel(key);
  status->linkStatusDel(key);
  EXPECT_THAT(heard, ElementsAre(H{258, {}}, H{260, key}, H{260, key}, H{260, key}));
  EXPECT_EQ(McastDns::LinkStatus::allocTrackTypeInfo().liveObjects(), 0u);
}

TEST(PublishedTypesTest, L3InterfacesAnnounceIdsAndVrfChanges) {
  using H = Heard<Dovix::IntfId>;
  const Dovix::IntfId eth1(Zov::String("Ethernet1"));
  Zov::Ptr<L3::Intf::StatusDir> dir(new L3::Intf::StatusDir("dir"));
  std::vector<H> heard;
  auto listener = recordInto(dir.ptr(), heard);
  {
    Zov::Ptr<L3::Intf::Status> intf(new L3::Intf::Status(eth1, "red"));
    EXPECT_EQ(intf->name(), Zov::String("Ethernet1"));
    std::vector<H> intfHeard;
    auto intfListener = recordInto(intf.ptr(), intfHeard);
    dir->intfStatusIs(intf);
    dir->intfStatusIs(intf);
    intf->vrfIs(L3::VrfName(std::string("red")));  // Same text, other data.
    intf->vrfIs("blue");
    EXPECT_THAT(intfHeard, ElementsAre(H{259, {}}));
    EXPECT_EQ(dir->intfStatus(eth1)->vrf(), L3::VrfName("blue"));
  }
  dir->intfStatusDel(eth1);
  dir->intfStatusDel(eth1);
  EXPECT_THAT(heard, ElementsAre(H{258, eth1}, H{258, eth1}));
  EXPECT_EQ(L3::Intf::Status::allocTrackTypeInfo().liveObjects(), 0u);
}

template <class T>
class AllVrfStatusTest : public ::testing::Test {};
using VrfViews = ::testing::Types<Ip::AllVrfStatusGlobal, Ip::AllVrfStatusLocal>;
TYPED_TEST_SUITE(AllVrfStatusTest, VrfViews);

TYPED_TEST(AllVrfStatusTest, VrfsAnnounceWithTheirNames) {
  using H = Heard<L3::VrfName>;
  Zov::Ptr<TypeParam> all(new TypeParam("vrfs"));
  std::vector<H> heard;
  auto listener = recordInto(all.ptr(), heard);
  all->vrfIs("red");
  all->vrfIs("red");
  all->vrfIs(L3::VrfName::defaultVrf());
  ASSERT_NE(all->vrf("red"), nullptr);
  EXPECT_EQ(all->vrf("red")->vrfName(), L3::VrfName("red"));
  EXPECT_EQ(all->vrf().size(), 2u);
  all->vrfDel("red");
  all->vrfDel("red");
  EXPECT_THAT(heard, ElementsAre(H{258, L3::VrfName("red")}, H{258, L3::VrfName("default")},
                                 H{258, L3::VrfName("red")}));
}

TEST(PublishedTypesTest, InterfaceIdsComeFromNames) {
  const Dovix::IntfId a(Zov::String("Ethernet3/1"));
  const Dovix::IntfId b(Zov::String("Ethernet3/2"));
  EXPECT_EQ(a, Dovix::IntfId(Zov::String("Ethernet3/1")));
  EXPECT_NE(a, b);
  EXPECT_NE(a.value(), 0u);
  EXPECT_EQ(Dovix::IntfId(Zov::String()).value(), 0u);
  EXPECT_EQ(a.name(), Zov::String("Ethernet3/1"));
  EXPECT_THAT(Dovix::IntfId().name().view(), IsEmpty());
  Dovix::IntfId c;
  c.handleInitialized("Ethernet3/2");
  EXPECT_EQ(c, b);
  c.handleInitialized("");
  EXPECT_EQ(c.value(), 0u);

  EXPECT_EQ(keyOf("Ethernet3/1", 1), keyOf("Ethernet3/1", 1));
  EXPECT_NE(keyOf("Ethernet3/1", 1), keyOf("Ethernet3/1", 2));
  EXPECT_LT(keyOf("Ethernet3/1", 1), keyOf("Ethernet3/1", 2));
  EXPECT_EQ(keyOf("Ethernet3/1", 1).hash(5), keyOf("Ethernet3/1", 1).hash(5));
  EXPECT_EQ(Cell::path("ip/vrf/status/local", 0), Zov::String("cell/0/ip/vrf/status/local"));
}

}  // namespace
