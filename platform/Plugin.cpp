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
  LoaderImpl* loader = nullptr;
  for (LoaderImpl* l : liveLoaders()) {
    if (l->kind_ == loaderKind && l->version_ == loaderVersion) loader = l;
  }
  // Without a loader of its own, a refusal goes to whichever loader is
  // loading an object, if any.
  LoaderImpl* refuser = loader;
  for (LoaderImpl* l : liveLoaders()) {
    if (!refuser && l->loadingObject_) refuser = l;
  }
  const auto refuse = [&](std::string reason) {
    if (refuser) return refuser->refuse(initCaller, std::move(reason));
    throw std::invalid_argument(reason);
  };
  const std::string plugin = "plugin \"" + name + "\"";
  if (!initCaller) return refuse(plugin + " registered without an init caller");
  if (name.empty()) return refuse("a plugin registered without a name");
  if (!loader) {
    return refuse(plugin + " registered with no live loader of kind \"" + loaderKind +
                  "\" and version \"" + loaderVersion + "\"");
  }
  if (loader->registration(initCaller)) return;
  for (const Registration& r : loader->registrations_) {
    if (r.name == name)
      return refuse(plugin + " is already registered with the " + loaderKind + " loader");
  }
  loader->registrations_.push_back(
      Registration{name, pluginVersion, description, initCaller, loader->loadingObject_});
}

void LoaderImpl::refuse(LoaderInitCaller* caller, std::string reason) {
  if (!loadingObject_) throw std::invalid_argument(reason);
  refusals_.push_back(Refusal{loadingObject_, caller, std::move(reason)});
}

std::vector<std::string> LoaderImpl::refusals(const void* object) const {
  std::vector<std::string> reasons;
  for (const Refusal& r : refusals_) {
    if (r.object == object) reasons.push_back(r.reason);
  }
  return reasons;
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
  std::erase_if(refusals_, [&](const Refusal& r) {
    if (r.object != object) return false;
    if (r.caller) dropped.push_back(r.caller);
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
