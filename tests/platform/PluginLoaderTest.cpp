// The plugin loader without shared objects: a test loader, plugins built on
// the stack, and tokens standing in for the objects a host would open.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/Plugin.h"
#include "tests/platform/PlatformTesting.h"

namespace {

struct Context {
  std::vector<std::string> started;
};

using TestLoader = Plugin::Loader<Context>;

// A plugin that registers with `loader` like a real one and records its
// starts in the context it is given.
class TestPlugin : public Plugin::PluginBase<Context> {
 public:
  TestPlugin(TestLoader& loader, const std::string& name, const std::string& kind,
             const std::string& version)
      : name_(name) {
    Plugin::LoaderInitCaller* caller = loader.initCallerNodeIs(initCaller());
    Plugin::Impl::LoaderImpl::registerPlugin(kind, name, version, "2.1", "a test plugin", caller);
  }
  TestPlugin(TestLoader& loader, const std::string& name)
      : TestPlugin(loader, name, loader.kind(), loader.version()) {}
  void init(Context* context) override { context->started.push_back(name_); }

 private:
  std::string name_;
};

TEST(PluginLoaderTest, RegistrationsRunInOrderWithTheContextOfTheRunAndBadOnesAreRefused) {
  TestLoader loader("Test", "7");
  TestLoader other("Test", "8");
  TestPlugin first(loader, "first");
  TestPlugin onOther(other, "other");
  TestPlugin second(loader, "second");

  EXPECT_EQ(loader.initCaller("other"), nullptr);
  // Registering the same caller again changes nothing.
  Plugin::Impl::LoaderImpl::registerPlugin("Test", "renamed", "7", "", "",
                                           loader.registrations()[1].caller);
  EXPECT_EQ(loader.registrations().size(), 2u);

  Context a, b;
  loader.runInitCallers(&a);
  loader.runInitCallers(&b);
  EXPECT_EQ(b.started, (std::vector<std::string>{"first", "second"}));

  // Bad registrations and contexts are refused and change nothing.
  EXPECT_EQ(
      ZovTesting::whatOf<std::invalid_argument>([&] { TestPlugin(loader, "x", "Test", "6"); }),
      "plugin \"x\" registered with no live loader of kind \"Test\" and version \"6\"");
  EXPECT_THROW(Plugin::Impl::LoaderImpl::registerPlugin("Test", "x", "7", "", "", nullptr),
               std::invalid_argument);
  EXPECT_EQ(ZovTesting::whatOf<std::invalid_argument>([&] { TestPlugin(loader, "first"); }),
            "plugin \"first\" is already registered with the Test loader");
  EXPECT_THROW(loader.runInitCallers(nullptr), std::invalid_argument);
  EXPECT_EQ(loader.context(), &b) << "the last good run's context stays";
  EXPECT_EQ(loader.registrations().size(), 2u);
}

TEST(PluginLoaderTest, ObjectsRegistrationsAreDroppedWithTheirNodes) {
  TestLoader loader("Test", "7");
  int objectA = 0, objectB = 0;
  TestPlugin host(loader, "host");  // linked in: tagged with no object

  EXPECT_EQ(loader.loadingObjectIs(&objectA), nullptr);
  TestPlugin a1(loader, "a1");
  TestPlugin a2(loader, "a2");
  EXPECT_EQ(loader.loadingObjectIs(&objectB), &objectA);
  TestPlugin b(loader, "b");
  // Refused while an object loads: kept for the host instead of raised, and
  // its node goes with the object.
  TestPlugin duplicate(loader, "a1");
  EXPECT_EQ(loader.refusals(&objectB),
            std::vector<std::string>{"plugin \"a1\" is already registered with the Test loader"});
  EXPECT_TRUE(loader.refusals(&objectA).empty());
  loader.loadingObjectIs(nullptr);

  loader.objectDel(&objectA);
  EXPECT_EQ(loader.nodes(), 3u);
  Context context;
  loader.runInitCallers(&context);
  EXPECT_EQ(context.started, (std::vector<std::string>{"host", "b"}));

  loader.objectDel(nullptr);  // the host's own plugins stay
  loader.objectDel(&objectA);
  EXPECT_EQ(loader.nodes(), 3u);
  loader.objectDel(&objectB);
  EXPECT_EQ(loader.nodes(), 1u);
  EXPECT_TRUE(loader.refusals(&objectB).empty());
}

}  // namespace
