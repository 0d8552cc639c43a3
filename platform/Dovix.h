// Dovix: device-wide value types shared by every agent.
#pragma once

#include "platform/Zov.h"

namespace Dovix {

// An interface identifier: one 64-bit value. Ids are made from interface
// names; the same name always gives the same id within a process, different
// names give different ids, and the empty name gives 0.
class IntfId {
 public:
  constexpr IntfId() = default;
  constexpr explicit IntfId(std::uint64_t value) : value_(value) {}
  explicit IntfId(const Zov::String& name) { handleInitialized(name); }

  // Sets the id from an interface name.
  void handleInitialized(const Zov::String& name);

  constexpr std::uint64_t value() const { return value_; }
  // The interface name this id was made from ("" for 0 and for ids not made
  // from a name in this process).
  Zov::String name() const;

  std::uint64_t hash() const { return value_; }
  friend constexpr bool operator==(IntfId, IntfId) = default;
  friend constexpr auto operator<=>(IntfId, IntfId) = default;

 private:
  std::uint64_t value_ = 0;
};

// Address families; the multicast DNS plugin uses only IPv4.
enum class AddressFamily : std::uint8_t {
  kAfNone = 0,
  kIpv4 = 1,
  kIpv6 = 2,
};

}  // namespace Dovix

template <>
struct std::hash<Dovix::IntfId> {
  std::size_t operator()(Dovix::IntfId id) const noexcept {
    return Zov::HashHelper::rehash(id.value());
  }
};
