#include "agent/host/PluginHost.h"

#include <dlfcn.h>

#include <algorithm>

namespace AclAgent {

namespace {

std::string dlerrorText() {
  const char* text = dlerror();
  return text ? text : "unknown error";
}

}  // namespace

PluginHost::PluginHost(Plugin::Loader<Acl::PluginContext>* loader) : loader_(loader) {
  if (!loader_) throw std::invalid_argument("plugin host: no plugin loader");
}

PluginHost::~PluginHost() {
  while (!objects_.empty()) {
    close(*objects_.back());
    objects_.pop_back();
  }
}

void PluginHost::load(const std::string& path) {
  auto object = std::make_unique<Object>();
  object->path = path;
  // Registrations made by the object's static constructors, which run inside
  // dlopen, are tagged with the new object's address.
  const void* previous = loader_->loadingObjectIs(object.get());
  dlerror();
  void* handle = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
  const std::string error = handle ? std::string() : dlerrorText();
  loader_->loadingObjectIs(previous);
  if (!handle) {
    loader_->objectDel(object.get());
    throw PluginLoadError("cannot load plugin " + path + ": " + error);
  }
  const bool alreadyOpen = std::any_of(objects_.begin(), objects_.end(),
                                       [&](const auto& o) { return o->handle == handle; });
  if (alreadyOpen) {
    // The dynamic loader counted a second opening and ran no constructor.
    loader_->objectDel(object.get());
    dlclose(handle);
    return;
  }
  const std::vector<std::string> refusals = loader_->refusals(object.get());
  if (!refusals.empty()) {
    loader_->objectDel(object.get());
    dlclose(handle);
    std::string reasons;
    for (const std::string& r : refusals) reasons += (reasons.empty() ? "" : "; ") + r;
    throw PluginLoadError("cannot load plugin " + path + ": " + reasons);
  }
  const auto& registrations = loader_->registrations();
  const bool registered =
      std::any_of(registrations.begin(), registrations.end(),
                  [&](const Plugin::Impl::Registration& r) { return r.object == object.get(); });
  if (!registered) {
    dlclose(handle);
    throw PluginLoadError("cannot load plugin " + path + ": it registers no plugin with the " +
                          loader_->kind() + " loader");
  }
  object->handle = handle;
  objects_.push_back(std::move(object));
}

void PluginHost::loadAll(const std::vector<std::string>& paths) {
  const std::size_t before = objects_.size();
  try {
    for (const std::string& path : paths) load(path);
  } catch (const PluginLoadError&) {
    while (objects_.size() > before) {
      close(*objects_.back());
      objects_.pop_back();
    }
    throw;
  }
}

void PluginHost::runInitCallers(Acl::PluginContext* context) {
  loader_->runInitCallers(context);
}

std::string PluginHost::close(const Object& object) {
  loader_->objectDel(&object);
  dlerror();
  if (dlclose(object.handle) != 0)
    return "cannot unload plugin " + object.path + ": " + dlerrorText();
  // Asking without loading tells whether the object really went.
  if (void* still = dlopen(object.path.c_str(), RTLD_NOW | RTLD_NOLOAD)) {
    dlclose(still);
    return "plugin " + object.path + " stayed loaded after it was closed";
  }
  return {};
}

void PluginHost::unloadAll() {
  std::string errors;
  while (!objects_.empty()) {
    const std::string error = close(*objects_.back());
    objects_.pop_back();
    if (error.empty()) continue;
    if (!errors.empty()) errors += "; ";
    errors += error;
  }
  if (!errors.empty()) throw PluginUnloadError(errors);
}

std::vector<std::string> PluginHost::paths() const {
  std::vector<std::string> result;
  for (const auto& object : objects_) result.push_back(object->path);
  return result;
}

}  // namespace AclAgent
