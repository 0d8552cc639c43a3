// The plugin loader without shared objects: a test loader, plugins built on
// the stack, and tokens standing in for the objects a host would open.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "platform/Plugin.h"

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

TEST(PluginLoaderTest, RegistrationsRunInOrderWithTheContextOfTheRun) {
  TestLoader loader("Test", "7");
  TestLoader other("Test", "8");
  TestPlugin first(loader, "first");
  TestPlugin onOther(other, "other");
  TestPlugin second(loader, "second");
  TestPlugin firstAgain(loader, "first");  // a name may be registered twice

  ASSERT_EQ(loader.registrations().size(), 3u);
  const Plugin::Impl::Registration& r = loader.registrations()[1];
  EXPECT_EQ(r.name, "second");
  EXPECT_EQ(r.pluginVersion, "2.1");
  EXPECT_EQ(r.description, "a test plugin");
  EXPECT_EQ(r.object, nullptr);
  EXPECT_EQ(loader.initCaller("second"), second.initCaller());
  EXPECT_EQ(loader.initCaller("first"), first.initCaller());
  EXPECT_EQ(loader.initCaller("other"), nullptr);

  // Registering the same caller again changes nothing.
  Plugin::Impl::LoaderImpl::registerPlugin("Test", "renamed", "7", "", "", r.caller);
  EXPECT_EQ(loader.registrations().size(), 3u);

  Context a;
  Context b;
  loader.runInitCallers(&a);
  loader.runInitCallers(&b);
  EXPECT_EQ(a.started, (std::vector<std::string>{"first", "second", "first"}));
  EXPECT_EQ(b.started, a.started);
  EXPECT_EQ(loader.context(), &b);
}

TEST(PluginLoaderTest, ObjectsRegistrationsAreDroppedWithTheirNodes) {
  TestLoader loader("Test", "7");
  int objectA = 0;
  int objectB = 0;
  TestPlugin host(loader, "host");  // linked in: tagged with no object

  EXPECT_EQ(loader.loadingObjectIs(&objectA), nullptr);
  TestPlugin a1(loader, "a1");
  TestPlugin a2(loader, "a2");
  EXPECT_EQ(loader.loadingObjectIs(&objectB), &objectA);
  TestPlugin b(loader, "b");
  loader.loadingObjectIs(nullptr);
  EXPECT_EQ(loader.nodes(), 4u);

  Context context;
  loader.runInitCallers(&context);
  EXPECT_EQ(context.started, (std::vector<std::string>{"host", "a1", "a2", "b"}));
  EXPECT_EQ(loader.context(), &context);

  loader.objectDel(&objectA);
  EXPECT_EQ(loader.nodes(), 2u);
  EXPECT_EQ(loader.initCaller("a1"), nullptr);
  Context again;
  loader.runInitCallers(&again);
  EXPECT_EQ(again.started, (std::vector<std::string>{"host", "b"}));

  loader.objectDel(nullptr);  // the host's own plugins stay
  loader.objectDel(&objectA);
  EXPECT_EQ(loader.nodes(), 2u);
  loader.objectDel(&objectB);
  EXPECT_EQ(loader.nodes(), 1u);
}

TEST(PluginLoaderTest, BadRegistrationsAndContextsAreRefused) {
  TestLoader loader("Test", "7");
  try {
    TestPlugin wrong(loader, "wrong", "Test", "6");
    FAIL() << "a registration for another loader version was accepted";
  } catch (const std::invalid_argument& e) {
    EXPECT_NE(std::string(e.what()).find("\"wrong\""), std::string::npos) << e.what();
    EXPECT_NE(std::string(e.what()).find("version \"6\""), std::string::npos) << e.what();
  }
  EXPECT_TRUE(loader.registrations().empty());
  EXPECT_THROW(Plugin::Impl::LoaderImpl::registerPlugin("Test", "x", "7", "", "", nullptr),
               std::invalid_argument);
  EXPECT_THROW(loader.runInitCallers(nullptr), std::invalid_argument);
  EXPECT_EQ(loader.context(), nullptr);
  EXPECT_TRUE(loader.registrations().empty());
}

}  // namespace
