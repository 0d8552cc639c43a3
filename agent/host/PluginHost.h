// PluginHost: the agent's side of loading plugins.
//
// The host opens plugin shared objects, starts the plugins they register
// with the agent's plugin loader, and closes the objects again:
//
//   AclAgent::PluginHost host;
//   host.load("/usr/lib/acl/McastDnsAclPlugin.so");   // registers the plugin
//   host.runInitCallers(context);                      // starts it
//   host.unloadAll();                                  // tears it down
//
// Each `dlopen` is bracketed with the loader's loading-object token, so the
// loader knows which registrations each object made. Closing an object drops
// its registrations (and their list nodes) before `dlclose`, so no init
// caller of a closed object is ever run; the object's static destructors,
// run by `dlclose`, tear its plugins down.
//
// Loading a path that is already open changes nothing. An object that
// registers no plugin is closed again and refused. An object that stays
// mapped after its close (it cannot be unloaded) is reported as an error once
// it has been dropped: the plugin's static objects then live on, but the
// loader never starts them again.
//
// Threading: the agent's event thread only.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "platform/Acl.h"

namespace AclAgent {

// A plugin shared object could not be opened, or is not a plugin; the text
// names the object and carries the dynamic loader's own message.
class PluginLoadError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// A plugin shared object could not be closed, or stayed mapped after its
// close. Its plugins are dropped all the same: the text names the object.
class PluginUnloadError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

class PluginHost {
 public:
  explicit PluginHost(Plugin::Loader<Acl::PluginContext>* loader = Acl::DefaultPluginLoader());
  // Closes every object still open, newest first.
  ~PluginHost();
  PluginHost(const PluginHost&) = delete;
  PluginHost& operator=(const PluginHost&) = delete;

  // Opens the shared object at `path`, whose static objects register its
  // plugins with the loader. `path` is used as given: one without a slash is
  // looked up the dynamic loader's way. Raises `PluginLoadError` with the
  // dynamic loader's message when it cannot be opened, or when it registers
  // no plugin; nothing changes then.
  void load(const std::string& path);

  // Opens every object of `paths`, in order, or none: when one cannot be
  // opened, those this call opened are closed again before the error
  // propagates.
  void loadAll(const std::vector<std::string>& paths);

  // Runs the init caller of every plugin of every open object, in the order
  // they registered, with `context`.
  // REQUIRES: `context` is not null (raises `std::invalid_argument`).
  void runInitCallers(Acl::PluginContext* context);

  // Closes every open object, newest first. Raises `PluginUnloadError` after
  // all are closed when any of them could not be closed or stayed mapped.
  void unloadAll();

  // The paths of the open objects, in the order they were opened.
  std::vector<std::string> paths() const;
  bool loaded() const { return !objects_.empty(); }
  Plugin::Loader<Acl::PluginContext>* loader() const { return loader_; }

 private:
  struct Object {
    std::string path;
    void* handle = nullptr;
  };
  // Closes one object; returns what went wrong, or an empty string.
  std::string close(const Object& object);

  Plugin::Loader<Acl::PluginContext>* loader_;
  // The address of each `Object` is the token its registrations carry.
  std::vector<std::unique_ptr<Object>> objects_;
};

}  // namespace AclAgent
