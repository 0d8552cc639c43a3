// The plugin loaders' registrations, and the ACL agent's default loader.
#include "platform/Plugin.h"

#include <new>

#include "platform/Acl.h"

namespace Plugin::Impl {
namespace {

// Every live loader. Plugins register from static constructors, in whatever
// order the shared objects run them, so the list is built on first use and
// never destroyed: its storage is static, and whatever it points to stays
// reachable until the process ends.
std::vector<LoaderImpl*>& liveLoaders() {
  alignas(std::vector<LoaderImpl*>) static unsigned char storage[sizeof(std::vector<LoaderImpl*>)];
  static auto* loaders = new (storage) std::vector<LoaderImpl*>();
  return *loaders;
}

}  // namespace

LoaderImpl::LoaderImpl(std::string kind, std::string version)
    : kind_(std::move(kind)), version_(std::move(version)) {
  liveLoaders().push_back(this);
}

LoaderImpl::~LoaderImpl() {
  std::erase(liveLoaders(), this);
}

void LoaderImpl::registerPlugin(const std::string& loaderKind, const std::string& name,
                                const std::string& loaderVersion, const std::string& pluginVersion,
                                const std::string& description, LoaderInitCaller* initCaller) {
  if (!initCaller) {
    throw std::invalid_argument("plugin \"" + name + "\" registered without an init caller");
  }
  if (name.empty()) throw std::invalid_argument("a plugin registered without a name");
  LoaderImpl* loader = nullptr;
  for (LoaderImpl* l : liveLoaders()) {
    if (l->kind_ == loaderKind && l->version_ == loaderVersion) loader = l;
  }
  if (!loader) {
    throw std::invalid_argument("plugin \"" + name +
                                "\" registered with no live loader of kind \"" + loaderKind +
                                "\" and version \"" + loaderVersion + "\"");
  }
  if (loader->registration(initCaller)) return;
  loader->registrations_.push_back(
      Registration{name, pluginVersion, description, initCaller, loader->loadingObject_});
}

const void* LoaderImpl::loadingObjectIs(const void* object) {
  return std::exchange(loadingObject_, object);
}

const Registration* LoaderImpl::registration(const LoaderInitCaller* caller) const {
  for (const Registration& r : registrations_) {
    if (r.caller == caller) return &r;
  }
  return nullptr;
}

std::vector<LoaderInitCaller*> LoaderImpl::registrationsDel(const void* object) {
  std::vector<LoaderInitCaller*> dropped;
  if (!object) return dropped;
  std::erase_if(registrations_, [&](const Registration& r) {
    if (r.object != object) return false;
    dropped.push_back(r.caller);
    return true;
  });
  return dropped;
}

}  // namespace Plugin::Impl

template class Plugin::Loader<Acl::PluginContext>;
template class Plugin::PluginBase<Acl::PluginContext>;

namespace Acl {

Plugin::Loader<PluginContext>* DefaultPluginLoader() {
  // Created by the first plugin (or host) that asks, and never destroyed, so
  // that no order of static construction or destruction can leave a plugin
  // without its loader.
  alignas(Plugin::Loader<PluginContext>) static unsigned char
      storage[sizeof(Plugin::Loader<PluginContext>)];
  static auto* loader =
      new (storage) Plugin::Loader<PluginContext>(kPluginLoaderKind, kPluginLoaderVersion);
  return loader;
}

}  // namespace Acl
