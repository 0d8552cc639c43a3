// Type modules of the object framework. Included by Zov.h.
//
// A shared object that defines framework types describes them in one
// `ZovModule` and registers it when it is loaded (`zovModuleIs`), and
// withdraws it when it is unloaded (`zovModuleDel`). Each type has an index in
// its module, and its objects report (module, index) through `fwkType()`.
// Tools find modules and types by name and read each type's attributes:
// name, id and kind. The tables are plain constant data (spans over static
// arrays and function pointers), so a module is complete before any code of
// its shared object runs.
//
// Each attribute also says how the generic attribute interface (ZovGeneric.h)
// reaches it: the accesses it offers are the non-null members of its
// `AttributeAccess`, and each type says how it is constructed from an
// argument vector. The entry points below check the id and the access and
// then call the type's function.
#pragma once

#include <span>

namespace Zov {

enum class AttributeKind {
  kValue,       // a stored value
  kReference,   // a counted reference
  kCollection,  // a keyed collection; `keyName` names its key
  kOperation,   // an operation; `argumentNames` names its arguments
};

// How the generic interface reaches one attribute; null means the access is
// not offered. The object passed is of the attribute's type.
struct AttributeAccess {
  GenericValue (*read)(const PtrInterface& object) = nullptr;
  void (*write)(PtrInterface& object, GenericArgs values) = nullptr;
  GenericValue (*del)(PtrInterface& object) = nullptr;
  GenericValue (*call)(PtrInterface& object, GenericArgs args) = nullptr;
  // Keyed collections: the member under a key (one value) or none; adding a
  // member from the values its creation takes; removing the member under a
  // key and returning it; every member.
  GenericValue (*member)(const PtrInterface& object, GenericArgs key) = nullptr;
  GenericValue (*memberIs)(PtrInterface& object, GenericArgs values) = nullptr;
  GenericValue (*memberDel)(PtrInterface& object, GenericArgs key) = nullptr;
  std::vector<GenericValue> (*members)(const PtrInterface& object) = nullptr;
};

struct AttributeInfo {
  const char* name;
  AttributeId id;
  AttributeKind kind;
  const char* keyName = nullptr;
  std::span<const char* const> argumentNames = {};
  AttributeAccess access = {};
};

struct ZovTypeInfo {
  const char* name;  // qualified, e.g. "McastDns::CpAclSm"
  std::span<const AttributeInfo> attributes = {};
  // Generic construction: the values in the order of the type's creation.
  std::span<const char* const> constructorArgumentNames = {};
  Ptr<PtrInterface> (*construct)(GenericArgs values) = nullptr;

  // The attribute with this id, or null.
  const AttributeInfo* attribute(AttributeId id) const;
  // The attribute with this name, or null.
  const AttributeInfo* attribute(std::string_view name) const;
};

struct ZovModule {
  const char* name;
  std::span<const ZovTypeInfo> types;
};

// Registers a module; registering the same module again changes nothing.
void zovModuleIs(const ZovModule* module);
// Withdraws a module; one that is not registered is ignored.
void zovModuleDel(const ZovModule* module);
// The registered module with this name, or null.
const ZovModule* zovModule(std::string_view name);
// Every registered module, in order of registration.
std::vector<const ZovModule*> zovModules();

// --- the generic attribute interface -------------------------------------
//
// Errors as described in ZovGeneric.h; on error nothing has changed.

// The registered type of `object`; raises `UnknownAttributeException` for an
// object of an unregistered type.
const ZovTypeInfo& genericIfType(const PtrInterface& object);
// The attribute of `object`'s type with this id or name.
const AttributeInfo& genericIfAttributeInfo(const PtrInterface& object, AttributeId id);
const AttributeInfo& genericIfAttributeInfo(const PtrInterface& object, std::string_view name);

GenericValue genericIfAttribute(const PtrInterface& object, AttributeId id);
// Runs the attribute's own setter with `values` (most take one).
void genericIfAttributeIs(PtrInterface& object, AttributeId id, GenericArgs values);
// Runs the attribute's own removal; returns what it removed, or none.
GenericValue genericIfAttributeDel(PtrInterface& object, AttributeId id);
// Calls an operation with exactly its arguments; returns its result, or none.
GenericValue genericIfCall(PtrInterface& object, AttributeId id, GenericArgs args);

// Keyed collections.
GenericValue genericIfMember(const PtrInterface& object, AttributeId id, const GenericValue& key);
bool genericIfHasMember(const PtrInterface& object, AttributeId id, const GenericValue& key);
GenericValue genericIfMemberIs(PtrInterface& object, AttributeId id, GenericArgs values);
GenericValue genericIfMemberDel(PtrInterface& object, AttributeId id, const GenericValue& key);
// Every member, in the collection's own order.
std::vector<GenericValue> genericIfMembers(const PtrInterface& object, AttributeId id);

// A new object of `type` built from `values` through the type's creation.
// Raises `UnknownAttributeException` for a type that offers no generic
// construction.
Ptr<PtrInterface> genericIfConstructFromCtorArgs(FwkType type, GenericArgs values);

}  // namespace Zov
