// Reference implementation of the object framework's out-of-line parts.
#include "platform/Zov.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <mutex>
#include <random>
#include <set>

namespace Zov {

bool VFPtrInterface::threadSafePointers_ = false;

// --- precondition checks ----------------------------------------------------------

void Impl::dcheckFailed(const char* file, int line, const char* condition,
                        const char* message) noexcept {
  std::fprintf(stderr, "%s:%d: check failed: %s: %s\n", file, line, condition, message);
  std::fflush(stderr);
  std::abort();
}

// --- errors -----------------------------------------------------------------

std::string FwkType::name() const {
  if (!module || index >= module->types.size()) return "(unregistered type)";
  return module->types[index].name;
}

void throwMutatorArgNullPointerException(const char* name, FwkType type, AttributeId id) {
  throw NullPointerException(type.name() + " attribute " + std::to_string(id) + ": argument '" +
                             name + "' is null");
}

void throwNewEntityArgsException(FwkType type) {
  throw NewEntityArgsException(type.name() + " (type index " + std::to_string(type.index) +
                               "): generic creation takes no constructor arguments");
}

void throwRangeException(const char* text) {
  throw RangeException(text);
}

void throwRangeException(const char* text, std::string_view value, std::size_t limit) {
  throw RangeException(text, value, limit);
}

namespace Impl {
namespace {
std::string describe(const PtrInterface* p) {
  char address[32];
  std::snprintf(address, sizeof address, "%p", static_cast<const void*>(p));
  if (auto* entity = dynamic_cast<const Entity*>(p)) {
    return "entity \"" + entity->name().str() + "\" at " + address;
  }
  return std::string("object at ") + address;
}
}  // namespace

void throwMutatorReinstantiating(FwkType type, AttributeId id, const PtrInterface* offered,
                                 const PtrInterface* held) {
  throw ReinstantiationException(type.name() + " attribute " + std::to_string(id) +
                                 ": cannot reinstantiate with " + describe(offered) +
                                 ": its key is held by one built from " + describe(held));
}
}  // namespace Impl

// --- counted objects ----------------------------------------------------------

PtrInterface::~PtrInterface() = default;

void* PtrInterface::zovMemAlloc(std::size_t size) {
  return ::operator new(size);
}

void PtrInterface::zovMemFree(void* p, std::size_t size) noexcept {
  ::operator delete(p, size);
}

void PtrInterface::handleZeroRef() const noexcept {
  auto* self = const_cast<PtrInterface*>(this);
  self->zeroReferencesIs(true);
  delete self;
}

// --- notifiee lists -------------------------------------------------------------

NotifieeList::~NotifieeList() {
  // A registered reactor holds its notifier, so a notifier can only die with
  // reactors in its list when someone destroyed it past its count; they would
  // then hold a freed object.
  ZOV_DCHECK(visiting_ == 0, "a notifier was destroyed while its notifiee list was being visited");
  ZOV_DCHECK(empty(), "a notifier was destroyed with notifiees still in its list");
}

std::size_t NotifieeList::size() const {
  return static_cast<std::size_t>(
      std::count_if(entries_.begin(), entries_.end(), [](auto* n) { return n != nullptr; }));
}

void NotifieeList::add(PtrInterface* notifiee) {
  entries_.push_back(notifiee);
}

void NotifieeList::remove(PtrInterface* notifiee) {
  auto it = std::find(entries_.begin(), entries_.end(), notifiee);
  if (it == entries_.end()) return;
  if (visiting_ != 0) {
    *it = nullptr;
    hasHoles_ = true;
  } else {
    entries_.erase(it);
  }
}

void NotifieeList::visit(AttributeId id, const void* key) const {
  ++visiting_;
  struct EndVisit {
    const NotifieeList& list;
    ~EndVisit() {
      if (--list.visiting_ == 0 && list.hasHoles_) {
        std::erase(list.entries_, nullptr);
        list.hasHoles_ = false;
      }
    }
  } endVisit{*this};
  // Entries added during the visit are past `end` and wait for the next one.
  const std::size_t end = entries_.size();
  for (std::size_t i = 0; i < end; ++i) {
    auto* notifiee = static_cast<PtrInterface::NotifieeConst*>(entries_[i]);
    if (notifiee && notifiee->hasNotificationActive()) notifiee->onAttribute(id, key);
  }
}

PtrInterface::NotifieeConst::~NotifieeConst() {
  unlink();
}

void PtrInterface::NotifieeConst::notifierIs(const PtrInterface* notifier) {
  if (notifier == notifier_.ptr()) return;
  unlink();
  notifier_ = notifier;
  link();
}

void PtrInterface::NotifieeConst::isRegisteredNotifieeIs(bool registered) {
  if (registered == registered_) return;
  registered_ = registered;
  if (registered) {
    link();
  } else {
    unlink();
  }
}

void PtrInterface::NotifieeConst::link() {
  if (linked_ || !registered_ || !notifier_) return;
  notifier_->notifieeList()->add(this);
  linked_ = true;
}

void PtrInterface::NotifieeConst::unlink() {
  if (!linked_) return;
  notifier_->notifieeList()->remove(this);
  linked_ = false;
}

// --- strings and hashing ----------------------------------------------------------

String::String(std::string_view text) {
  if (!text.empty()) data_ = std::make_shared<const std::string>(text);
}

std::uint32_t HashHelper::hashSeed32() {
  static const std::uint32_t seed = std::random_device{}();
  return seed;
}

std::uint64_t hashSingleAttr(unsigned seed, std::string_view text) noexcept {
  // FNV-1a over the bytes, then the common mix: short names dominate here.
  std::uint64_t h = 0xcbf29ce484222325ULL ^ seed;
  for (unsigned char c : text) {
    h ^= c;
    h *= 0x100000001b3ULL;
  }
  return HashHelper::rehash(h);
}

// --- allocation records ------------------------------------------------------------

namespace {
std::vector<const AllocTrackTypeInfo*>& allocRecords() {
  static std::vector<const AllocTrackTypeInfo*> records;
  return records;
}
}  // namespace

AllocTrackTypeInfo::AllocTrackTypeInfo(const char* typeName) : typeName_(typeName) {
  allocRecords().push_back(this);
}

AllocTrackTypeInfo::~AllocTrackTypeInfo() {
  std::erase(allocRecords(), this);
}

const AllocTrackTypeInfo* AllocTrackTypeInfo::find(std::string_view typeName) {
  for (auto* record : allocRecords()) {
    if (typeName == record->typeName()) return record;
  }
  return nullptr;
}

std::vector<const AllocTrackTypeInfo*> AllocTrackTypeInfo::all() {
  return allocRecords();
}

// --- type modules ---------------------------------------------------------------

namespace {
std::vector<const ZovModule*>& modules() {
  static std::vector<const ZovModule*> registered;
  return registered;
}
}  // namespace

const AttributeInfo* ZovTypeInfo::attribute(AttributeId id) const {
  for (const auto& a : attributes) {
    if (a.id == id) return &a;
  }
  return nullptr;
}

const AttributeInfo* ZovTypeInfo::attribute(std::string_view name) const {
  for (const auto& a : attributes) {
    if (name == a.name) return &a;
  }
  return nullptr;
}

void zovModuleIs(const ZovModule* module) {
  if (std::find(modules().begin(), modules().end(), module) == modules().end()) {
    modules().push_back(module);
  }
}

void zovModuleDel(const ZovModule* module) {
  std::erase(modules(), module);
}

const ZovModule* zovModule(std::string_view name) {
  for (auto* m : modules()) {
    if (name == m->name) return m;
  }
  return nullptr;
}

std::vector<const ZovModule*> zovModules() {
  return modules();
}

// --- tracing ------------------------------------------------------------------------

namespace {
struct TraceRegistry {
  std::vector<TraceHandle*> handles;
  std::map<std::string, std::uint16_t, std::less<>> pending;
  std::set<std::string, std::less<>> made;
  TraceSink sink = [](const TraceRecord& r) {
    std::fprintf(stderr, "trace %s/%u %s:%d %s: %s\n", r.handle.c_str(), r.level, r.file.c_str(),
                 r.line, r.function.c_str(), r.text.c_str());
  };
};
TraceRegistry& traceRegistry() {
  static TraceRegistry registry;
  return registry;
}
}  // namespace

TraceHandle::TraceHandle(const char* name, bool enabled) : name_(name) {
  auto& registry = traceRegistry();
  if (enabled) levels_ = 0xffff;
  if (auto it = registry.pending.find(std::string_view(name)); it != registry.pending.end()) {
    levels_ |= it->second;
  }
  registry.handles.push_back(this);
  registry.made.emplace(name);
}

TraceHandle::~TraceHandle() {
  std::erase(traceRegistry().handles, this);
}

void TraceHandle::levelIs(unsigned level, bool enabled) {
  if (level >= kLevels) throwRangeException("trace level must be 0 to 15");
  const auto bit = static_cast<std::uint16_t>(1u << level);
  levels_ = enabled ? (levels_ | bit) : (levels_ & ~bit);
}

TraceHandle* TraceHandle::find(std::string_view name) {
  for (auto* h : traceRegistry().handles) {
    if (name == h->name()) return h;
  }
  return nullptr;
}

std::vector<std::string> TraceHandle::namesMade() {
  const auto& made = traceRegistry().made;
  return {made.begin(), made.end()};
}

void TraceHandle::levelsByNameIs(std::string_view name, std::uint16_t levels) {
  traceRegistry().pending[std::string(name)] = levels;
  if (auto* h = find(name)) h->levelsIs(levels);
}

TraceSink traceSinkIs(TraceSink sink) {
  return std::exchange(traceRegistry().sink, std::move(sink));
}

TraceHelper::~TraceHelper() {
  TraceRecord record{handle_.name(), level_, file_, line_, function_, std::move(stream_.text_)};
  if (auto& sink = traceRegistry().sink) sink(record);
}

}  // namespace Zov
