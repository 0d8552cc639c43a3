// The published types announce real changes only, each with the key of the
// entry that changed; the reactors of the plugin rely on both.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "platform/Ip.h"
#include "platform/L3.h"
#include "platform/McastDns.h"
#include "tests/platform/PlatformTesting.h"

namespace {

using ::testing::ElementsAre;

// What a listener heard: the attribute id and, for a keyed attribute, a copy
// of the key (the pointer itself is only valid during the notification).
template <class Key>
struct Heard {
  Zov::AttributeId id;
  std::optional<Key> key;
  friend bool operator==(const Heard&, const Heard&) = default;
};
template <class Key>
Zov::Ptr<ZovTesting::Listener> recordInto(const Zov::PtrInterface* notifier,
                                          std::vector<Heard<Key>>& heard) {
  return ZovTesting::Listener::listenerIs(notifier, [&heard](Zov::AttributeId id, const void* key) {
    heard.push_back({id, key ? std::optional<Key>(*static_cast<const Key*>(key)) : std::nullopt});
  });
}

TEST(PublishedTypesTest, StatusAndLinkStatusAnnounceWithTheirKeys) {
  using H = Heard<McastDns::IntfKey>;
  Zov::Ptr<McastDns::Status> status(new McastDns::Status("status"));
  std::vector<H> heard, linkHeard;
  auto listener = recordInto(status.ptr(), heard);
  const McastDns::IntfKey key{Dovix::IntfId(Zov::String("Ethernet1")), 7};
  Zov::Ptr<McastDns::LinkStatus> link(new McastDns::LinkStatus(key));
  auto linkListener = recordInto(link.ptr(), linkHeard);
  for (int i = 0; i < 2; ++i) {
    status->enabledIs(true);
    status->linkStatusIs(link);
    link->stateIs(McastDns::LinkStatus::kStateUp);
  }
  EXPECT_EQ(status->linkStatus(key), link.ptr());
  EXPECT_THAT(linkHeard, ElementsAre(H{259, {}}));

  // A new entity under the same key is a change; removing twice announces once.
  status->linkStatusIs(Zov::Ptr<McastDns::LinkStatus>(new McastDns::LinkStatus(key, 1)));
  status->linkStatusDel(key);
  status->linkStatusDel(key);
  EXPECT_THAT(heard, ElementsAre(H{258, {}}, H{260, key}, H{260, key}, H{260, key}));
}

TEST(PublishedTypesTest, L3InterfacesAnnounceIdsAndVrfChanges) {
  using H = Heard<Dovix::IntfId>;
  const Dovix::IntfId eth1(Zov::String("Ethernet1"));
  Zov::Ptr<L3::Intf::StatusDir> dir(new L3::Intf::StatusDir("dir"));
  Zov::Ptr<L3::Intf::Status> intf(new L3::Intf::Status(eth1, "red"));
  std::vector<H> heard, intfHeard;
  auto listener = recordInto(dir.ptr(), heard);
  auto intfListener = recordInto(intf.ptr(), intfHeard);
  for (int i = 0; i < 2; ++i) {
    dir->intfStatusIs(intf);
    intf->vrfIs(L3::VrfName(std::string("red")));  // Same text, other data.
  }
  intf->vrfIs("blue");
  for (int i = 0; i < 2; ++i) dir->intfStatusDel(eth1);
  EXPECT_THAT(heard, ElementsAre(H{258, eth1}, H{258, eth1}));
  EXPECT_THAT(intfHeard, ElementsAre(H{259, {}}));
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
  for (int i = 0; i < 2; ++i) all->vrfIs("red");
  for (int i = 0; i < 2; ++i) all->vrfDel("red");
  EXPECT_THAT(heard, ElementsAre(H{258, L3::VrfName("red")}, H{258, L3::VrfName("red")}));
}

}  // namespace
