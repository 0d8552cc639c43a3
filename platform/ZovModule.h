// Type modules of the object framework. Included by Zov.h.
//
// A shared object that defines framework types describes them in one
// `ZovModule` and registers it when it is loaded (`zovModuleIs`), and
// withdraws it when it is unloaded (`zovModuleDel`). Each type has an index in
// its module, and its objects report (module, index) through `fwkType()`.
// Tools find modules and types by name and read each type's attributes:
// name, id and kind. The tables are plain constant data (spans over static
// arrays), so a module is complete before any code of its shared object runs.
#pragma once

#include <span>

namespace Zov {

enum class AttributeKind {
  kValue,       // a stored value
  kReference,   // a counted reference
  kCollection,  // a keyed collection; `keyName` names its key
  kOperation,   // an operation; `argumentNames` names its arguments
};

struct AttributeInfo {
  const char* name;
  AttributeId id;
  AttributeKind kind;
  const char* keyName = nullptr;
  std::span<const char* const> argumentNames = {};
};

struct ZovTypeInfo {
  const char* name;  // qualified, e.g. "McastDns::CpAclSm"
  std::span<const AttributeInfo> attributes = {};

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

}  // namespace Zov
