// A plugin whose shared object cannot be unmapped (it is linked with
// "-z nodelete"): closing it leaves it mapped, which the host must report.
#include "platform/Acl.h"

namespace {

class StickyPlugin : public Plugin::PluginBase<Acl::PluginContext> {
 public:
  StickyPlugin() {
    Plugin::Loader<Acl::PluginContext>* loader = Acl::DefaultPluginLoader();
    Plugin::LoaderInitCaller* caller = loader->initCallerNodeIs(initCaller());
    Plugin::Impl::LoaderImpl::registerPlugin(loader->kind(), "StickyPlugin", loader->version(), "",
                                             "", caller);
  }
  void init(Acl::PluginContext*) override {}
};

StickyPlugin plugin;

}  // namespace
