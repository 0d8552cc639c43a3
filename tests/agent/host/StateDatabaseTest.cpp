// The agent's state database: omitted paths and the state as text. The golden
// scenarios and the fuzz replay (regressions/recreate-every-path.scn) show the
// rest; the published types' own tests show whom a change notifies.
#include <gtest/gtest.h>

#include <memory>
#include <vector>

#include "agent/host/StateDatabase.h"
#include "agent/scenario/Scenario.h"
#include "tests/platform/PlatformTesting.h"

namespace AclAgent {
namespace {

using ZovTesting::whatOf;

TEST(StateDatabaseTest, WritesToAnOmittedPathRaiseAndChangeNothing) {
  StateDatabase db;
  db.entityDel(StatePath::kMdnsStatus);
  db.entityDel(StatePath::kVrfStatusLocal);

  // The golden omit-* cases show the other writes, and omit after load.
  using E = StateDatabaseException;
  const std::string omitted = "mdns/status holds no entity (it was omitted)";
  EXPECT_EQ(whatOf<E>([&] { db.linkStatusIs({"Ethernet1", 0}, 1); }), omitted);
  EXPECT_EQ(whatOf<E>([&] { db.linkStatusDel({"Ethernet1", 0}); }), omitted);
  EXPECT_EQ(whatOf<E>([&] { db.entityCopyIs(StatePath::kMdnsStatus); }), omitted);
  // The omitted path is named even when the name would be refused too.
  EXPECT_EQ(whatOf<E>([&] { db.vrfIs(VrfView::kLocal, std::string(101, 'v')); }),
            "ip/vrf/status/local holds no entity (it was omitted)");
  EXPECT_EQ(db.entityManager()->entities().size(), 3u);
}

// A state source's claim: its own writes go through, anyone else's are
// refused before they change anything, and the paths are free again when
// the claim goes.
TEST(StateDatabaseTest, ClaimedPathsTakeWritesFromTheirSourceOnly) {
  StateDatabase db;
  auto claim = std::make_unique<StateDatabase::Claim>(
      db, std::vector{StatePath::kMdnsStatus, StatePath::kVrfStatusGlobal}, "the kernel owns it");
  claim->write([](StateDatabase& d) {
    d.linkStateIs({"eth0", 0}, 1);
    d.vrfIs(VrfView::kGlobal, "red");
  });
  using E = ClaimedPathException;
  EXPECT_EQ(whatOf<E>([&] { db.linkStateIs({"eth0", 0}, 0); }), "the kernel owns it");
  EXPECT_EQ(whatOf<E>([&] { db.vrfDel(VrfView::kGlobal, "red"); }), "the kernel owns it");
  EXPECT_EQ(whatOf<E>([&] { db.entityDel(StatePath::kMdnsStatus); }), "the kernel owns it");
  EXPECT_EQ(whatOf<E>([&] { db.entityCopyIs(StatePath::kVrfStatusGlobal); }), "the kernel owns it");
  // A write the source raises on leaves the claim as it was.
  EXPECT_THROW(
      claim->write([](StateDatabase& d) { d.vrfIs(VrfView::kGlobal, std::string(101, 'v')); }),
      Zov::RangeException);
  EXPECT_THROW(db.linkStatusDel({"eth0", 0}), E);
  // Paths nobody claimed stay open to all, and a path has one claimer.
  db.intfVrfIs("eth0", "red");
  db.vrfIs(VrfView::kLocal, "blue");
  EXPECT_THROW(StateDatabase::Claim(db, {StatePath::kMdnsStatus}, "again"), StateDatabaseException);
  EXPECT_EQ(db.stateText(),
            "config gateway-enabled false\n"
            "config gateway-setting 0\n"
            "link set \"eth0\"#0 1\n"
            "intf set \"eth0\" \"red\"\n"
            "vrf add global \"red\"\n"
            "vrf add local \"blue\"\n");
  claim.reset();
  db.linkStatusDel({"eth0", 0});
  db.entityDel(StatePath::kVrfStatusGlobal);
}

TEST(StateDatabaseTest, StateTextIsSortedAndReadsBackAsAScenario) {
  StateDatabase db;
  db.gatewaySettingIs(1);
  db.linkStateIs({"b", 1}, 1);
  db.linkStateIs({"a", 10}, 2);
  db.linkStateIs({"a", 9}, 3);
  db.intfVrfIs("b", "red");
  db.intfVrfIs("a \"x\"", "");
  db.vrfIs(VrfView::kLocal, "z");
  db.vrfIs(VrfView::kLocal, "m");
  db.vrfIs(VrfView::kGlobal, "z");
  db.entityDel(StatePath::kVrfStatusGlobal);
  const std::string text = db.stateText();
  EXPECT_EQ(text,
            "config gateway-enabled false\n"
            "config gateway-setting 1\n"
            "link set \"a\"#9 3\n"
            "link set \"a\"#10 2\n"
            "link set \"b\"#1 1\n"
            "intf set \"a \\\"x\\\"\" \"\"\n"
            "intf set \"b\" \"red\"\n"
            "vrf add local \"m\"\n"
            "vrf add local \"z\"\n"
            "omit ip/vrf/status/global\n");
  EXPECT_TRUE(parseScenario(text, "state").ok());
}

}  // namespace
}  // namespace AclAgent
