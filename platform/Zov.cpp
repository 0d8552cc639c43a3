// Reference implementation of the object framework's out-of-line parts.
#include "platform/Zov.h"

#include "platform/ZovPool.h"

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

// Small objects come from the process's slab pool. Under AddressSanitizer
// every object is a heap block of its own instead, so that a use after free
// or a leak of one is reported; the pool's own tests run there too.
#if defined(__SANITIZE_ADDRESS__)
#define ZOV_POOLED 0
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ZOV_POOLED 0
#endif
#endif
#ifndef ZOV_POOLED
#define ZOV_POOLED 1
#endif

#if ZOV_POOLED
namespace {
SlabPool& pool() {
  static SlabPool* const processPool = new SlabPool;  // never destroyed: objects may outlive exit
  return *processPool;
}
std::mutex poolMutex;
}  // namespace

void* PtrInterface::zovMemAlloc(std::size_t size) {
  if (VFPtrInterface::threadSafePointers_) {
    std::lock_guard<std::mutex> lock(poolMutex);
    return pool().allocate(size);
  }
  return pool().allocate(size);
}

void PtrInterface::zovMemFree(void* p, std::size_t size) noexcept {
  if (VFPtrInterface::threadSafePointers_) {
    std::lock_guard<std::mutex> lock(poolMutex);
    pool().deallocate(p, size);
    return;
  }
  pool().deallocate(p, size);
}
#else
void* PtrInterface::zovMemAlloc(std::size_t size) {
  return ::operator new(size);
}

void PtrInterface::zovMemFree(void* p, std::size_t size) noexcept {
  ::operator delete(p, size);
}
#endif

void PtrInterface::handleZeroRef() const noexcept {
  auto* self = const_cast<PtrInterface*>(this);
  self->zeroReferencesIs(true);
  delete self;
}

// --- notifiee lists -------------------------------------------------------------

// Two or more notifiees. Slots of notifiees removed while a visit is running
// are nulled and compacted when the outermost visit ends.
struct NotifieeList::Block {
  std::vector<PtrInterface*> entries;
  std::uint32_t visiting = 0;
  bool hasHoles = false;
};

NotifieeList::~NotifieeList() {
  // A registered reactor holds its notifier, so a notifier can only die with
  // reactors in its list when someone destroyed it past its count; they would
  // then hold a freed object.
  ZOV_DCHECK(!visiting(), "a notifier was destroyed while its notifiee list was being visited");
  ZOV_DCHECK(empty(), "a notifier was destroyed with notifiees still in its list");
  delete block();
}

bool NotifieeList::visiting() const {
  if (Block* b = block()) return b->visiting != 0;
  return (word_ & kVisiting) != 0;
}

std::size_t NotifieeList::size() const {
  if (Block* b = block()) {
    return static_cast<std::size_t>(
        std::count_if(b->entries.begin(), b->entries.end(), [](auto* n) { return n != nullptr; }));
  }
  return single() ? 1 : 0;
}

void NotifieeList::add(PtrInterface* notifiee) {
  if (Block* b = block()) {
    b->entries.push_back(notifiee);
    return;
  }
  PtrInterface* one = single();
  if (!one) {
    word_ = reinterpret_cast<std::uintptr_t>(notifiee) | (word_ & kVisiting);
    return;
  }
  // A second notifiee: the list moves into a block, which takes over the
  // running visit, if any.
  auto* b = new Block{{one, notifiee}, (word_ & kVisiting) ? 1u : 0u, false};
  word_ = reinterpret_cast<std::uintptr_t>(b) | kBlock;
}

void NotifieeList::remove(PtrInterface* notifiee) {
  Block* b = block();
  if (!b) {
    if (single() == notifiee) word_ &= kVisiting;
    return;
  }
  auto it = std::find(b->entries.begin(), b->entries.end(), notifiee);
  if (it == b->entries.end()) return;
  if (b->visiting != 0) {
    *it = nullptr;
    b->hasHoles = true;
    return;
  }
  b->entries.erase(it);
  if (b->entries.size() == 1) {
    word_ = reinterpret_cast<std::uintptr_t>(b->entries.front());
    delete b;
  }
}

// Kept apart from `visitOne`, so that the common visit of one notifiee does
// not pay for this loop's registers.
[[gnu::noinline]] void NotifieeList::visitBlock(AttributeId id, const void* key) const {
  Block* b = block();
  ++b->visiting;
  struct EndVisit {
    const NotifieeList& list;
    ~EndVisit() { list.endVisit(); }
  } end{*this};
  // Entries added during the visit are past `count` and wait for the next
  // one. The block stays while the visit runs.
  const std::size_t count = b->entries.size();
  for (std::size_t i = 0; i < count; ++i) {
    auto* notifiee = static_cast<PtrInterface::NotifieeConst*>(b->entries[i]);
    if (notifiee && notifiee->hasNotificationActive()) notifiee->onAttribute(id, key);
  }
}

void NotifieeList::visitOne(AttributeId id, const void* key) const {
  auto* notifiee = static_cast<PtrInterface::NotifieeConst*>(single());
  if (word_ & kVisiting) {
    // A visit nested in another: the outer one ends the marking.
    if (notifiee && notifiee->hasNotificationActive()) notifiee->onAttribute(id, key);
    return;
  }
  // The list is marked while the visit runs; a notifiee added meanwhile moves
  // it into a block that counts this visit as running.
  word_ |= kVisiting;
  struct EndVisit {
    const NotifieeList& list;
    ~EndVisit() { list.endVisit(); }
  } end{*this};
  if (notifiee && notifiee->hasNotificationActive()) notifiee->onAttribute(id, key);
}

void NotifieeList::endVisit() const {
  Block* b = block();
  if (!b) {
    word_ &= ~kVisiting;
    return;
  }
  if (--b->visiting != 0 || !b->hasHoles) return;
  std::erase(b->entries, nullptr);
  b->hasHoles = false;
  if (b->entries.size() > 1) return;
  word_ = b->entries.empty() ? 0 : reinterpret_cast<std::uintptr_t>(b->entries.front());
  delete b;
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
