// The generic attribute interface of the object framework. Included by Zov.h.
//
// Tools (an agent's `show` commands, a debugger, a test) reach the attributes
// of a registered type by id, without its headers: they read, write and
// delete attributes, call operations, work on keyed collections and construct
// objects from an argument vector. Every value travels as a `GenericValue`.
//
//   Zov::GenericValue sm = Zov::genericIfAttribute(*root, 388);    // a reference
//   auto& machine = *sm.asReference<Zov::PtrInterface>();
//   const Zov::GenericValue yes[] = {true};
//   Zov::genericIfAttributeIs(machine, 139, yes);                  // dirtyAclIs(true)
//   Zov::genericIfCall(machine, 143, yes);                         // handleRefreshAcls(true)
//
// Each type lists its attributes in its module (ZovModule.h) together with how
// each is reached (`AttributeAccess`): function pointers that a type builds
// from its own accessors, setters and handlers with the adapters below, so the
// generic path runs exactly the typed code, notifications included.
//
// Values: none, bool, integer, floating, text, or a counted reference. A
// reference remembers whether it was given as writable; a read-only one (a
// mounted entity read back) cannot be passed where a writable one is needed.
// A type that needs other values (keys, enums) converts them with a
// `GenericConvert` specialisation; enums travel as integers.
//
// Errors: an id the type does not have raises `UnknownAttributeException`; an
// access the attribute does not offer (writing a read-only one, calling a
// value) raises `AttributeAccessException`; a wrong number or type of values
// raises `GenericArgsException`. Each names the type and the attribute, and is
// raised before anything is changed: every value is converted before the
// typed code runs.
//
// Threading: the event thread only, like the objects reached.
#pragma once

#include <concepts>
#include <limits>
#include <span>
#include <tuple>
#include <type_traits>
#include <typeinfo>
#include <variant>

namespace Zov {

// The type has no attribute with the id (or name) asked for.
class UnknownAttributeException : public Exception {
 public:
  using Exception::Exception;
};

// The attribute does not offer the access asked for.
class AttributeAccessException : public Exception {
 public:
  using Exception::Exception;
};

// A value given to a write, call or construction has the wrong type, or the
// number of values is wrong.
class GenericArgsException : public Exception {
 public:
  using Exception::Exception;
};

// Integers other than bool travel as 64-bit integers.
template <class T>
inline constexpr bool kIsInteger = std::is_integral_v<T> && !std::is_same_v<T, bool>;

class GenericValue {
 public:
  enum class Type : std::uint8_t { kNone, kBool, kInteger, kFloating, kText, kReference };

  GenericValue() noexcept = default;
  GenericValue(std::nullptr_t) noexcept {}
  GenericValue(bool value) : value_(value) {}
  template <class I, std::enable_if_t<kIsInteger<I>, int> = 0>
  GenericValue(I value) : value_(static_cast<std::int64_t>(value)) {}
  GenericValue(double value) : value_(value) {}
  GenericValue(const String& text) : value_(text) {}
  GenericValue(const char* text) : value_(String(text)) {}
  // A null reference is none. A reference to a constant object is read-only.
  template <class T, std::enable_if_t<std::is_base_of_v<PtrInterface, T>, int> = 0>
  GenericValue(const Ptr<T>& object) {
    if (object) value_ = Reference{Ptr<const PtrInterface>(object.ptr()), !std::is_const_v<T>};
  }

  // A plain pointer to an object travels as a reference to it; any other
  // pointer is refused here rather than turned into a bool.
  template <class T, std::enable_if_t<std::is_base_of_v<PtrInterface, T>, int> = 0>
  GenericValue(T* object) : GenericValue(Ptr<T>(object)) {}
  template <class T, std::enable_if_t<!std::is_base_of_v<PtrInterface, T>, int> = 0>
  GenericValue(T*) = delete;

  Type type() const { return static_cast<Type>(value_.index()); }
  bool isNone() const { return type() == Type::kNone; }

  // Each raises `GenericArgsException` naming both types when the value is of
  // another type. `asFloating` also takes an integer.
  bool asBool() const;
  std::int64_t asInteger() const;
  double asFloating() const;
  const String& asText() const;
  // The object as a `T` (which may be const), or null for none. Raises when
  // the object is not a `T`, or when `T` is writable and the reference is not.
  template <class T>
  Ptr<T> asReference() const {
    if (isNone()) return nullptr;
    const Reference& reference = referenceOf();
    using Plain = std::remove_const_t<T>;
    auto* typed = dynamic_cast<const Plain*>(reference.object.ptr());
    if (!typed) throwNotA(typeid(Plain));
    if constexpr (!std::is_const_v<T>) {
      if (!reference.writable) throwReadOnly();
      return Ptr<T>(const_cast<Plain*>(typed));
    } else {
      return Ptr<T>(typed);
    }
  }

  // For display: none, true, 12, 0.01, "text\n" (quoted with C escapes), or
  // for a reference the entity's quoted name or the object's type.
  std::string str() const;
  static const char* typeName(Type type);

  friend bool operator==(const GenericValue&, const GenericValue&) = default;

 private:
  struct Reference {
    Ptr<const PtrInterface> object;
    bool writable = false;
    friend bool operator==(const Reference&, const Reference&) = default;
  };
  const Reference& referenceOf() const;
  [[noreturn]] void throwMismatch(Type expected) const;
  [[noreturn]] void throwNotA(const std::type_info& expected) const;
  [[noreturn]] static void throwReadOnly();

  // Alternatives in the order of `Type`.
  std::variant<std::monostate, bool, std::int64_t, double, String, Reference> value_;
};

using GenericArgs = std::span<const GenericValue>;

// `text` double-quoted with the C escapes \" \\ \n \t, and \xHH for every
// other byte outside printable ASCII: how tools print a text value.
std::string quotedText(std::string_view text);

// How a value type travels. Specialise it for a type with its own text or
// number form; `from` raises `GenericArgsException` for a value it cannot take.
template <class T, class Enable = void>
struct GenericConvert;

template <>
struct GenericConvert<bool> {
  static GenericValue to(bool value) { return value; }
  static bool from(const GenericValue& value) { return value.asBool(); }
};
// Raises `GenericArgsException` when `value` does not fit in `T`.
[[noreturn]] void throwOutOfRange(std::int64_t value, std::int64_t min, std::uint64_t max);

template <class T>
struct GenericConvert<T, std::enable_if_t<kIsInteger<T>>> {
  static GenericValue to(T value) { return value; }
  static T from(const GenericValue& value) {
    const std::int64_t number = value.asInteger();
    if (!std::in_range<T>(number)) {
      throwOutOfRange(number, static_cast<std::int64_t>(std::numeric_limits<T>::min()),
                      static_cast<std::uint64_t>(std::numeric_limits<T>::max()));
    }
    return static_cast<T>(number);
  }
};
template <>
struct GenericConvert<double> {
  static GenericValue to(double value) { return value; }
  static double from(const GenericValue& value) { return value.asFloating(); }
};
template <class T>
struct GenericConvert<T, std::enable_if_t<std::is_enum_v<T>>> {
  static GenericValue to(T value) { return static_cast<std::underlying_type_t<T>>(value); }
  static T from(const GenericValue& value) {
    return static_cast<T>(GenericConvert<std::underlying_type_t<T>>::from(value));
  }
};
template <>
struct GenericConvert<String> {
  static GenericValue to(const String& value) { return value; }
  static String from(const GenericValue& value) { return value.asText(); }
};
template <unsigned MaxLength>
struct GenericConvert<BoundedString<MaxLength>> {
  static GenericValue to(const String& value) { return value; }
  static BoundedString<MaxLength> from(const GenericValue& value) { return value.asText(); }
};
template <class T>
struct GenericConvert<Ptr<T>> {
  static GenericValue to(const Ptr<T>& value) { return value; }
  static Ptr<T> from(const GenericValue& value) { return value.template asReference<T>(); }
};
// A plain (uncounted) link travels as a reference; the caller keeps the object
// alive while the link is in use.
template <class T>
struct GenericConvert<T*, std::enable_if_t<std::is_base_of_v<PtrInterface, T>>> {
  static GenericValue to(T* value) { return Ptr<T>(value); }
  static T* from(const GenericValue& value) { return value.template asReference<T>().ptr(); }
};

// Adapters that turn a type's own accessors, setters and handlers into the
// function pointers of `AttributeAccess` (ZovModule.h). `Fn` is a member
// function pointer or, for class-level operations, a plain function pointer.
namespace Generic {

template <class Fn>
struct Callable;
template <class R, class C, class... A>
struct Callable<R (C::*)(A...)> {
  using Object = C;
  using Result = R;
  using Args = std::tuple<std::remove_cvref_t<A>...>;
};
template <class R, class C, class... A>
struct Callable<R (C::*)(A...) const> {
  using Object = const C;
  using Result = R;
  using Args = std::tuple<std::remove_cvref_t<A>...>;
};
template <class R, class... A>
struct Callable<R (*)(A...)> {
  using Object = void;
  using Result = R;
  using Args = std::tuple<std::remove_cvref_t<A>...>;
};

// Raises `GenericArgsException` unless `given` values were given for `expected`.
void checkCount(std::size_t expected, std::size_t given);

// Every value converted before anything runs, so a bad one changes nothing.
template <class Tuple>
Tuple convertArgs(GenericArgs args) {
  checkCount(std::tuple_size_v<Tuple>, args.size());
  return [&]<std::size_t... I>(std::index_sequence<I...>) {
    return Tuple{GenericConvert<std::tuple_element_t<I, Tuple>>::from(args[I])...};
  }
  (std::make_index_sequence<std::tuple_size_v<Tuple>>());
}

// Calls `fn` with `args`, on `object` unless `fn` is a plain function, and
// returns what it returns: the result itself, or none for `void`.
template <auto fn, class Object>
auto invokeTyped(Object* object, GenericArgs args) {
  using Info = Callable<decltype(fn)>;
  auto converted = convertArgs<typename Info::Args>(args);
  return std::apply(
      [&](auto&... values) -> typename Info::Result {
        if constexpr (std::is_void_v<typename Info::Object>) {
          return fn(values...);
        } else {
          return (static_cast<typename Info::Object*>(object)->*fn)(values...);
        }
      },
      converted);
}

template <auto fn, class Object>
GenericValue invoke(Object* object, GenericArgs args) {
  using Result = typename Callable<decltype(fn)>::Result;
  if constexpr (std::is_void_v<Result>) {
    invokeTyped<fn>(object, args);
    return {};
  } else {
    return GenericConvert<std::remove_cvref_t<Result>>::to(invokeTyped<fn>(object, args));
  }
}

template <auto getter>
GenericValue read(const PtrInterface& object) {
  return invoke<getter>(&object, {});
}
template <auto setter>
void write(PtrInterface& object, GenericArgs args) {
  invoke<setter>(&object, args);
}
template <auto fn>
GenericValue call(PtrInterface& object, GenericArgs args) {
  return invoke<fn>(&object, args);
}
template <auto remover>
GenericValue del(PtrInterface& object) {
  return invoke<remover>(&object, {});
}
template <auto lookup>
GenericValue member(const PtrInterface& object, GenericArgs key) {
  return invoke<lookup>(&object, key);
}
// `collection` reads the collection, which offers `forEachMember`.
template <auto collection>
std::vector<GenericValue> members(const PtrInterface& object) {
  using Object = typename Callable<decltype(collection)>::Object;
  std::vector<GenericValue> all;
  (static_cast<Object&>(object).*collection)().forEachMember(
      [&](const auto& m) { all.emplace_back(m); });
  return all;
}
template <auto factory>
Ptr<PtrInterface> construct(GenericArgs args) {
  return invokeTyped<factory>(static_cast<PtrInterface*>(nullptr), args);
}

}  // namespace Generic

}  // namespace Zov
