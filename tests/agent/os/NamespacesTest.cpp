// The one map between VRFs and namespaces that --apply, --live and
// --remove-applied share, over templates and names; and the namespace files
// it will and will not open.
#include "agent/os/Namespaces.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace AclAgent {
namespace {

using ::testing::ElementsAre;
using ::testing::HasSubstr;

TEST(NamespacesTest, EveryTemplateGivesNamesThatLeadBackToTheirVrf) {
  struct Case {
    const char* netnsTemplate;
    const char* vrf;
    const char* netns;
  };
  const std::string longest(255, 'n');
  for (const Case& c : {
           Case{"%s", "red", "red"},
           Case{"vrf-%s", "red", "vrf-red"},
           Case{"%s-%s", "red", "red-red"},
           Case{"%s.%s.x", "a.b", "a.b.a.b.x"},
           Case{"100%%-%s", "red", "100%-red"},
           Case{"%%s%s", "red", "%sred"},
           Case{"%s", longest.c_str(), nullptr},
       }) {
    const NamespaceMap map(c.netnsTemplate);
    const std::string netns = map.netnsOf(c.vrf);
    if (c.netns) {
      EXPECT_EQ(netns, c.netns) << c.netnsTemplate;
    }
    EXPECT_EQ(map.vrfOf(netns), c.vrf) << c.netnsTemplate << " " << netns;
    EXPECT_EQ(map.pathOf(netns), "/run/netns/" + netns);
    // VRF default is the agent's own namespace, whatever the template.
    EXPECT_EQ(map.netnsOf("default"), "");
  }
}

TEST(NamespacesTest, NamesNoVrfHasAreNoVrfs) {
  const NamespaceMap pair("%s-%s");
  for (const char* name : {"red-blue", "red", "-", "ab-a", ""}) {
    EXPECT_EQ(pair.vrfOf(name), std::nullopt) << name;
  }
  const NamespaceMap prefixed("vrf-%s");
  for (const char* name : {"vrf-", "red", "vrf", "xvrf-red", "vrf-default"}) {
    EXPECT_EQ(prefixed.vrfOf(name), std::nullopt) << name;
  }
  // A name that cannot be a namespace's is no VRF's, though a VRF may be
  // given it (and is then refused when applied).
  const NamespaceMap plain;
  for (const std::string& name : {std::string("."), std::string(".."), std::string("a/b"),
                                  std::string("a\0b", 3), std::string(256, 'n')}) {
    EXPECT_EQ(plain.vrfOf(name), std::nullopt);
    EXPECT_NE(NamespaceMap::nameFault(name), std::nullopt);
  }
  EXPECT_EQ(NamespaceMap::nameFault(std::string(255, 'n')), std::nullopt);
}

TEST(NamespacesTest, TemplatesWithoutTheNameOrWithAStrayPercentAreRefused) {
  for (const char* bad : {"fixed", "", "%d-%s", "%s%", "%%s"}) {
    const auto fault = NamespaceMap::templateFault(bad);
    ASSERT_NE(fault, std::nullopt) << bad;
    EXPECT_THAT(*fault, HasSubstr("%s")) << bad;
    EXPECT_THROW(NamespaceMap{bad}, std::invalid_argument) << bad;
  }
}

TEST(NamespacesTest, ListsTheVrfNamespacesAndOpensOnlyNamespaceFiles) {
  char folder[] = "/tmp/acl-netns-XXXXXX";
  ASSERT_NE(::mkdtemp(folder), nullptr);
  const std::string dir = folder;
  for (const char* name : {"vrf-b", "vrf-a", "other", "vrf-default"}) {
    std::ofstream(dir + "/" + name) << "";
  }
  ASSERT_EQ(::mkfifo((dir + "/vrf-fifo").c_str(), 0600), 0);
  const NamespaceMap map("vrf-%s", dir);
  std::string error;
  EXPECT_THAT(map.listed(&error), ElementsAre("vrf-a", "vrf-b", "vrf-fifo"));
  EXPECT_EQ(error, "");

  // A FIFO is refused at once instead of waiting for a writer.
  EXPECT_EQ(openNamespace(map.pathOf("vrf-fifo"), &error), -1);
  EXPECT_THAT(error, HasSubstr("is not a namespace file"));
  error.clear();
  EXPECT_EQ(openNamespace(map.pathOf("vrf-gone"), &error), -1);
  EXPECT_EQ(error, "") << "a namespace that does not exist is no error";
  const int fd = openNamespace(map.pathOf("vrf-a"), &error);
  EXPECT_GT(fd, 2);
  ::close(fd);

  std::filesystem::remove_all(dir);
  EXPECT_TRUE(NamespaceMap("%s", dir).listed(&error).empty());
  EXPECT_EQ(error, "") << "a folder that does not exist lists nothing";
}

}  // namespace
}  // namespace AclAgent
