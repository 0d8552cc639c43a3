// The agent's state database: omitted paths and the state as text. The golden
// scenarios and the fuzz replay (regressions/recreate-every-path.scn) show the
// rest; the published types' own tests show whom a change notifies.
#include <gtest/gtest.h>

#include "agent/scenario/Scenario.h"
#include "agent/host/StateDatabase.h"
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
