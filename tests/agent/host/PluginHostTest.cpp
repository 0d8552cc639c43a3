// The plugin host against shared objects that are not what it expects: one
// that registers no plugin, one that cannot be unmapped, and a load of several
// objects of which one fails.
#include <dlfcn.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <filesystem>

#include "agent/host/Agent.h"
#include "agent/host/PluginHost.h"
#include "tests/platform/PlatformTesting.h"

namespace AclAgent {
namespace {

bool mapped(const char* path) {
  void* handle = dlopen(path, RTLD_NOW | RTLD_NOLOAD);
  if (handle) dlclose(handle);
  return handle != nullptr;
}

bool registered(const char* name) {
  const auto& registrations = Acl::DefaultPluginLoader()->registrations();
  return std::any_of(registrations.begin(), registrations.end(),
                     [&](const Plugin::Impl::Registration& r) { return r.name == name; });
}

using ZovTesting::whatOf;

// Two objects may not register plugins of the same name: the second (here a
// copy of the plugin under another path) is refused, and the first stays.
TEST(PluginHostTest, ASecondPluginOfTheSameNameIsRefused) {
  const std::filesystem::path copy =
      std::filesystem::temp_directory_path() / ("plugin-copy-" + std::to_string(getpid()) + ".so");
  std::filesystem::copy_file(MCASTDNS_ACL_PLUGIN_PATH, copy);
  PluginHost host;
  host.load(MCASTDNS_ACL_PLUGIN_PATH);
  EXPECT_EQ(whatOf<PluginLoadError>([&] { host.load(copy); }),
            "cannot load plugin " + copy.string() +
                ": plugin \"McastDnsAclPlugin\" is already registered with the Acl loader");
  EXPECT_EQ(host.paths(), std::vector<std::string>{MCASTDNS_ACL_PLUGIN_PATH});
  EXPECT_FALSE(mapped(copy.c_str()));
  EXPECT_EQ(Acl::DefaultPluginLoader()->registrations().size(), 1u);
  host.unloadAll();
  std::filesystem::remove(copy);
}

// A load of several plugins is whole or nothing, so a second load tries them
// all again instead of going on with those the first one opened. The one that
// registers no plugin is closed too.
TEST(PluginHostTest, ALoadThatFailsPartWayLeavesNothingLoaded) {
  Agent agent({MCASTDNS_ACL_PLUGIN_PATH, NO_PLUGIN_PATH});
  const Command load{3, LoadCmd{}};
  for (int attempt = 0; attempt < 2; ++attempt) {
    EXPECT_THROW(agent.run(load, std::cout), PluginLoadError) << "attempt " << attempt;
    EXPECT_FALSE(agent.pluginHost().loaded());
    EXPECT_FALSE(registered("McastDnsAclPlugin"));
    EXPECT_FALSE(mapped(MCASTDNS_ACL_PLUGIN_PATH));
    EXPECT_FALSE(mapped(NO_PLUGIN_PATH));
  }
}

// An object that stays mapped is an unload error, not a load error: the host
// drops it all the same, and its plugin is never started again.
TEST(PluginHostTest, AnObjectThatStaysMappedIsReportedAndDropped) {
  PluginHost host;
  host.load(STICKY_PLUGIN_PATH);
  ASSERT_TRUE(registered("StickyPlugin"));
  EXPECT_EQ(whatOf<PluginUnloadError>([&] { host.unloadAll(); }),
            std::string("plugin ") + STICKY_PLUGIN_PATH + " stayed loaded after it was closed");
  EXPECT_FALSE(host.loaded());
  EXPECT_FALSE(registered("StickyPlugin"));
  EXPECT_TRUE(mapped(STICKY_PLUGIN_PATH));
}

}  // namespace
}  // namespace AclAgent
