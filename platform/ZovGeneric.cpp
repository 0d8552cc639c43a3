// Reference implementation of the generic attribute interface: values, and
// the entry points that check ids and accesses before calling a type's own.
#include <cxxabi.h>

#include <cstdio>
#include <cstdlib>

#include "platform/Zov.h"

namespace Zov {

// --- values ---------------------------------------------------------------------

std::string quotedText(std::string_view text) {
  std::string out = "\"";
  for (char c : text) {
    switch (c) {
      case '"':
        out += "\\\"";
        break;
      case '\\':
        out += "\\\\";
        break;
      case '\n':
        out += "\\n";
        break;
      case '\t':
        out += "\\t";
        break;
      default:
        if (c >= ' ' && c < 0x7f) {
          out += c;
        } else {
          char hex[8];
          std::snprintf(hex, sizeof hex, "\\x%02x", static_cast<unsigned char>(c));
          out += hex;
        }
    }
  }
  return out + "\"";
}

const char* GenericValue::typeName(Type type) {
  switch (type) {
    case Type::kNone:
      return "none";
    case Type::kBool:
      return "bool";
    case Type::kInteger:
      return "integer";
    case Type::kFloating:
      return "floating";
    case Type::kText:
      return "text";
    case Type::kReference:
      return "reference";
  }
  return "?";
}

bool GenericValue::asBool() const {
  if (auto* value = std::get_if<bool>(&value_)) return *value;
  throwMismatch(Type::kBool);
}

std::int64_t GenericValue::asInteger() const {
  if (auto* value = std::get_if<std::int64_t>(&value_)) return *value;
  throwMismatch(Type::kInteger);
}

double GenericValue::asFloating() const {
  if (auto* value = std::get_if<double>(&value_)) return *value;
  if (auto* value = std::get_if<std::int64_t>(&value_)) return static_cast<double>(*value);
  throwMismatch(Type::kFloating);
}

const String& GenericValue::asText() const {
  if (auto* value = std::get_if<String>(&value_)) return *value;
  throwMismatch(Type::kText);
}

const GenericValue::Reference& GenericValue::referenceOf() const {
  if (auto* value = std::get_if<Reference>(&value_)) return *value;
  throwMismatch(Type::kReference);
}

namespace {

std::string demangled(const std::type_info& type) {
  int status = 0;
  char* name = abi::__cxa_demangle(type.name(), nullptr, nullptr, &status);
  std::string text = status == 0 && name ? name : type.name();
  std::free(name);
  return text;
}

// What a reference points at, in words that stay the same from run to run.
std::string describe(const PtrInterface& object) {
  if (auto* entity = dynamic_cast<const Entity*>(&object)) {
    return "entity " + quotedText(entity->name().view());
  }
  if (object.fwkType().module) return object.fwkType().name();
  return demangled(typeid(object));
}

}  // namespace

std::string GenericValue::str() const {
  return std::visit(
      [](const auto& value) -> std::string {
        using T = std::decay_t<decltype(value)>;
        if constexpr (std::is_same_v<T, std::monostate>) {
          return "none";
        } else if constexpr (std::is_same_v<T, bool>) {
          return value ? "true" : "false";
        } else if constexpr (std::is_same_v<T, std::int64_t>) {
          return std::to_string(value);
        } else if constexpr (std::is_same_v<T, double>) {
          std::ostringstream text;
          text << value;
          return text.str();
        } else if constexpr (std::is_same_v<T, String>) {
          return quotedText(value.view());
        } else {
          return describe(*value.object);
        }
      },
      value_);
}

void GenericValue::throwMismatch(Type expected) const {
  std::string given = typeName(type());
  if (type() != Type::kNone) given += " " + str();
  throw GenericArgsException(std::string("expected ") + typeName(expected) + ", got " + given);
}

void GenericValue::throwNotA(const std::type_info& expected) const {
  throw GenericArgsException("expected a reference to " + demangled(expected) + ", got " + str());
}

void GenericValue::throwReadOnly() {
  throw GenericArgsException("expected a writable reference, got a read-only one");
}

void throwOutOfRange(std::int64_t value, std::int64_t min, std::uint64_t max) {
  throw GenericArgsException("integer " + std::to_string(value) + " is out of range (" +
                             std::to_string(min) + " to " + std::to_string(max) + ")");
}

void Generic::checkCount(std::size_t expected, std::size_t given) {
  if (expected == given) return;
  throw GenericArgsException("expected " + std::to_string(expected) +
                             (expected == 1 ? " value" : " values") + ", got " +
                             std::to_string(given));
}

// --- entry points -------------------------------------------------------------------

namespace {

std::string where(const ZovTypeInfo& type, const AttributeInfo& attribute) {
  return std::string(type.name) + " attribute " + std::to_string(attribute.id) + " (" +
         attribute.name + ")";
}

// Runs one access of an attribute: refused when the attribute does not offer
// it, and with any complaint about the values prefixed by the attribute.
template <class Fn, class... Args>
auto use(const PtrInterface& object, const AttributeInfo& attribute, Fn* fn, const char* refused,
         Args&&... args) {
  const ZovTypeInfo& type = genericIfType(object);
  if (!fn) throw AttributeAccessException(where(type, attribute) + " " + refused);
  try {
    return fn(std::forward<Args>(args)...);
  } catch (const GenericArgsException& e) {
    throw GenericArgsException(where(type, attribute) + ": " + e.what());
  }
}

std::string joined(std::span<const char* const> names) {
  std::string text;
  for (const char* name : names) text += (text.empty() ? "" : ", ") + std::string(name);
  return text;
}

}  // namespace

const ZovTypeInfo& genericIfType(const PtrInterface& object) {
  const FwkType type = object.fwkType();
  if (!type.module || type.index >= type.module->types.size()) {
    throw UnknownAttributeException(describe(object) +
                                    " is of an unregistered type and has no attributes");
  }
  return type.module->types[type.index];
}

const AttributeInfo& genericIfAttributeInfo(const PtrInterface& object, AttributeId id) {
  const ZovTypeInfo& type = genericIfType(object);
  if (const AttributeInfo* attribute = type.attribute(id)) return *attribute;
  throw UnknownAttributeException(std::string(type.name) + " has no attribute " +
                                  std::to_string(id));
}

const AttributeInfo& genericIfAttributeInfo(const PtrInterface& object, std::string_view name) {
  const ZovTypeInfo& type = genericIfType(object);
  if (const AttributeInfo* attribute = type.attribute(name)) return *attribute;
  throw UnknownAttributeException(std::string(type.name) + " has no attribute named \"" +
                                  std::string(name) + "\"");
}

GenericValue genericIfAttribute(const PtrInterface& object, AttributeId id) {
  const AttributeInfo& attribute = genericIfAttributeInfo(object, id);
  return use(object, attribute, attribute.access.read, "cannot be read", object);
}

void genericIfAttributeIs(PtrInterface& object, AttributeId id, GenericArgs values) {
  const AttributeInfo& attribute = genericIfAttributeInfo(object, id);
  use(object, attribute, attribute.access.write, "cannot be written", object, values);
}

GenericValue genericIfAttributeDel(PtrInterface& object, AttributeId id) {
  const AttributeInfo& attribute = genericIfAttributeInfo(object, id);
  return use(object, attribute, attribute.access.del, "cannot be deleted", object);
}

GenericValue genericIfCall(PtrInterface& object, AttributeId id, GenericArgs args) {
  const AttributeInfo& attribute = genericIfAttributeInfo(object, id);
  if (attribute.access.call && args.size() != attribute.argumentNames.size()) {
    throw GenericArgsException(where(genericIfType(object), attribute) + ": expected " +
                               std::to_string(attribute.argumentNames.size()) + " arguments (" +
                               joined(attribute.argumentNames) + "), got " +
                               std::to_string(args.size()));
  }
  return use(object, attribute, attribute.access.call, "cannot be called", object, args);
}

GenericValue genericIfMember(const PtrInterface& object, AttributeId id, const GenericValue& key) {
  const AttributeInfo& attribute = genericIfAttributeInfo(object, id);
  return use(object, attribute, attribute.access.member, "is not a keyed collection", object,
             GenericArgs(&key, 1));
}

bool genericIfHasMember(const PtrInterface& object, AttributeId id, const GenericValue& key) {
  return !genericIfMember(object, id, key).isNone();
}

GenericValue genericIfMemberIs(PtrInterface& object, AttributeId id, GenericArgs values) {
  const AttributeInfo& attribute = genericIfAttributeInfo(object, id);
  return use(object, attribute, attribute.access.memberIs, "takes no new members", object, values);
}

GenericValue genericIfMemberDel(PtrInterface& object, AttributeId id, const GenericValue& key) {
  const AttributeInfo& attribute = genericIfAttributeInfo(object, id);
  return use(object, attribute, attribute.access.memberDel, "has no members to delete", object,
             GenericArgs(&key, 1));
}

std::vector<GenericValue> genericIfMembers(const PtrInterface& object, AttributeId id) {
  const AttributeInfo& attribute = genericIfAttributeInfo(object, id);
  return use(object, attribute, attribute.access.members, "is not a keyed collection", object);
}

Ptr<PtrInterface> genericIfConstructFromCtorArgs(FwkType type, GenericArgs values) {
  if (!type.module || type.index >= type.module->types.size()) {
    throw UnknownAttributeException("cannot construct an object of an unregistered type");
  }
  const ZovTypeInfo& info = type.module->types[type.index];
  if (!info.construct) {
    throw UnknownAttributeException(std::string(info.name) + " offers no generic construction");
  }
  try {
    return info.construct(values);
  } catch (const GenericArgsException& e) {
    throw GenericArgsException(std::string(info.name) + " construction (" +
                               joined(info.constructorArgumentNames) + "): " + e.what());
  }
}

}  // namespace Zov
