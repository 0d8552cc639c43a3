// Plugin: how a host loads plugins from shared objects and starts them.
//
// A host keeps one `Loader<Ctx>` per kind of plugin it accepts; `Ctx` is the
// service it hands each plugin when it starts it. A plugin is a static object
// derived from `PluginBase<Ctx>` whose constructor registers it, so loading
// its shared object is all it takes to register it:
//
//   MyPlugin::MyPlugin() {
//     Plugin::Loader<Acl::PluginContext>* loader = Acl::DefaultPluginLoader();
//     Plugin::LoaderInitCaller* caller = loader->initCallerNodeIs(initCaller());
//     Plugin::Impl::LoaderImpl::registerPlugin(loader->kind(), "MyPlugin",
//                                              loader->version(), "", "", caller);
//   }
//   static MyPlugin plugin;  // in the shared object
//
// The host brackets each `dlopen` with `loadingObjectIs(token)` and
// `loadingObjectIs(previous)`: every registration made meanwhile is tagged
// with the token. Before it closes the object it calls `objectDel(token)`,
// which drops those registrations and frees their list nodes, so no init
// caller of an unloaded object can ever run. `runInitCallers(context)` then
// starts every live registration, in the order they were made.
//
// The five strings of a registration are, in order: the loader's kind, the
// plugin's name, the loader's version, the plugin's version and a one-line
// description of the plugin (the last two may be empty). A registration is
// accepted only by the live loader whose kind and version match, so a plugin
// built against another loader cannot slip in.
//
// Ownership: the loader owns its list nodes from the moment they are linked;
// the plugin object owns the init caller embedded in it. A plugin object must
// outlive its registration: it is destroyed only when its shared object is
// closed, after the host has dropped that object's registrations.
//
// Threading: registration happens while the host loads a shared object; the
// rest runs on the host's event thread. Nothing is locked.
#pragma once

#include <algorithm>
#include <cstddef>
#include <stdexcept>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace Plugin {

// What a loader runs to start one plugin.
class LoaderInitCaller {
 public:
  virtual void operator()() = 0;

 protected:
  LoaderInitCaller() = default;
  ~LoaderInitCaller() = default;
};

// What a plugin offers its loader: starting it with the host's service.
template <class Ctx>
class PluginInitCaller {
 public:
  virtual void operator()(Ctx* context) = 0;

 protected:
  PluginInitCaller() = default;
  ~PluginInitCaller() = default;
};

namespace Impl {

// What a loader knows of one registration.
struct Registration {
  std::string name;
  std::string pluginVersion;
  std::string description;
  LoaderInitCaller* caller = nullptr;
  // The token of the shared object being loaded when the plugin registered,
  // or null for a plugin linked into the host itself.
  const void* object = nullptr;
};

// The registrations of one loader. Every live loader is listed process-wide
// by kind and version, which is how `registerPlugin` finds it.
class LoaderImpl {
 public:
  LoaderImpl(std::string kind, std::string version);
  ~LoaderImpl();
  LoaderImpl(const LoaderImpl&) = delete;
  LoaderImpl& operator=(const LoaderImpl&) = delete;

  // Records plugin `name` with the loader of `loaderKind` and `loaderVersion`,
  // tagged with that loader's loading object. Registering the same caller
  // again changes nothing. A registration is refused when `initCaller` is
  // null, `name` is empty, no live loader has that kind and version, or
  // another live registration already has that name; nothing is recorded
  // then. While a shared object is loading, a refusal is kept for the host
  // (`refusalsDel`), since an error cannot travel out of the object's static
  // constructors; otherwise it raises `std::invalid_argument`.
  // REQUIRES: `initCaller` is a node of that loader (`initCallerNodeIs`).
  static void registerPlugin(const std::string& loaderKind, const std::string& name,
                             const std::string& loaderVersion, const std::string& pluginVersion,
                             const std::string& description, LoaderInitCaller* initCaller);

  // Sets the token that registrations are tagged with (null: none) and
  // returns the previous one, for the caller to restore.
  const void* loadingObjectIs(const void* object);
  const void* loadingObject() const { return loadingObject_; }

  const std::vector<Registration>& registrations() const { return registrations_; }
  const Registration* registration(const LoaderInitCaller* caller) const;
  // Removes the registrations tagged with `object`, and the refusals of
  // registrations made while it was loading, and returns their callers.
  std::vector<LoaderInitCaller*> registrationsDel(const void* object);
  // The reasons of the registrations refused while `object` was loading,
  // oldest first.
  std::vector<std::string> refusals(const void* object) const;

 private:
  struct Refusal {
    const void* object;
    LoaderInitCaller* caller;  // may be null
    std::string reason;
  };
  // Refuses a registration: keeps the reason while an object is loading,
  // raises otherwise.
  void refuse(LoaderInitCaller* caller, std::string reason);

  std::string kind_;
  std::string version_;
  const void* loadingObject_ = nullptr;
  std::vector<Registration> registrations_;
  std::vector<Refusal> refusals_;
};

}  // namespace Impl

// A loader of plugins that are started with a `Ctx*`.
template <class Ctx>
class Loader {
 public:
  // Starts one plugin with the context the loader holds when it runs.
  class LoaderInitCallerWithContext final : public LoaderInitCaller {
   public:
    LoaderInitCallerWithContext(Loader* loader, PluginInitCaller<Ctx>* initCaller)
        : loader_(loader), initCaller_(initCaller) {}
    void operator()() override { (*initCaller_)(loader_->context_); }

    Loader* loader() const { return loader_; }
    PluginInitCaller<Ctx>* initCaller() const { return initCaller_; }

   private:
    Loader* loader_;
    PluginInitCaller<Ctx>* initCaller_;
  };

  struct Node {
    Node* next;
    LoaderInitCallerWithContext caller;
  };

  Loader(std::string kind, std::string version)
      : kind_(std::move(kind)), version_(std::move(version)), impl_(kind_, version_) {}
  ~Loader() {
    while (head_) delete std::exchange(head_, head_->next);
  }
  Loader(const Loader&) = delete;
  Loader& operator=(const Loader&) = delete;

  const std::string& kind() const { return kind_; }
  const std::string& version() const { return version_; }
  // The context handed to init callers: the one of the last `runInitCallers`.
  Ctx* context() const { return context_; }

  // Plugin side: allocates a list node for `initCaller`, links it at the front
  // of the list and returns what to pass to `registerPlugin`.
  LoaderInitCaller* initCallerNodeIs(PluginInitCaller<Ctx>* initCaller) {
    head_ = new Node{head_, LoaderInitCallerWithContext(this, initCaller)};
    return &head_->caller;
  }

  // Host side. See `Impl::LoaderImpl::loadingObjectIs`.
  const void* loadingObjectIs(const void* object) { return impl_.loadingObjectIs(object); }

  // Host side: the reasons of registrations refused while `object` was
  // loading. `objectDel` forgets them.
  std::vector<std::string> refusals(const void* object) const { return impl_.refusals(object); }

  // Drops the registrations tagged with `object` and frees their nodes.
  void objectDel(const void* object) {
    const std::vector<LoaderInitCaller*> dropped = impl_.registrationsDel(object);
    for (Node** link = &head_; *link;) {
      Node* node = *link;
      if (std::find(dropped.begin(), dropped.end(), &node->caller) == dropped.end()) {
        link = &node->next;
      } else {
        *link = node->next;
        delete node;
      }
    }
  }

  // Holds `context` for the init callers and runs every live registration, in
  // the order they were made. A registration dropped by an earlier init
  // caller is not run. An exception from an init caller propagates and the
  // callers after it do not run.
  // REQUIRES: `context` is not null (raises `std::invalid_argument`).
  void runInitCallers(Ctx* context) {
    if (!context) throw std::invalid_argument("plugin loader " + kind_ + ": context is null");
    context_ = context;
    std::vector<LoaderInitCaller*> callers;
    for (const Impl::Registration& r : impl_.registrations()) {
      if (node(r.caller)) callers.push_back(r.caller);
    }
    for (LoaderInitCaller* caller : callers) {
      if (impl_.registration(caller)) (*caller)();
    }
  }

  const std::vector<Impl::Registration>& registrations() const { return impl_.registrations(); }

  // The plugin init caller of the first live registration named `name`, or
  // null.
  PluginInitCaller<Ctx>* initCaller(std::string_view name) const {
    for (const Impl::Registration& r : impl_.registrations()) {
      if (r.name != name) continue;
      if (const Node* n = node(r.caller)) return n->caller.initCaller();
    }
    return nullptr;
  }

  // The number of list nodes the loader holds.
  std::size_t nodes() const {
    std::size_t count = 0;
    for (const Node* n = head_; n; n = n->next) ++count;
    return count;
  }

 private:
  const Node* node(const LoaderInitCaller* caller) const {
    for (const Node* n = head_; n; n = n->next) {
      if (&n->caller == caller) return n;
    }
    return nullptr;
  }

  Ctx* context_ = nullptr;
  std::string kind_;
  std::string version_;
  Node* head_ = nullptr;
  Impl::LoaderImpl impl_;
};

// The base of a plugin object. Its embedded init caller starts the plugin.
template <class Ctx>
class PluginBase {
 public:
  class PluginBaseInitCaller final : public PluginInitCaller<Ctx> {
   public:
    explicit PluginBaseInitCaller(PluginBase* plugin) : plugin_(plugin) {}
    void operator()(Ctx* context) override { plugin_->init(context); }
    PluginBase* plugin() const { return plugin_; }

   private:
    PluginBase* plugin_;
  };

  PluginBase() : initCaller_(this) {}
  virtual ~PluginBase() = default;
  PluginBase(const PluginBase&) = delete;
  PluginBase& operator=(const PluginBase&) = delete;

  // Starts the plugin; called by the loader, possibly more than once.
  virtual void init(Ctx* context) = 0;

  PluginBaseInitCaller* initCaller() { return &initCaller_; }

 private:
  PluginBaseInitCaller initCaller_;
};

}  // namespace Plugin
