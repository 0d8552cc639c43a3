// How the plugin's key types travel through the framework's generic attribute
// interface, and the plugin's generic constructions that need more than an
// adapter.
//
// An interface id (`Dovix::IntfId`) travels as its interface name, for
// instance "Ethernet1"; a link key (`McastDns::IntfKey`) as the name, '#' and
// the key's second field, for instance "Ethernet1#0"; a task priority as its
// number. The name of an id not made from a name in this process reads as "".
#pragma once

#include "platform/Dovix.h"
#include "platform/McastDns.h"
#include "platform/Pell.h"
#include "platform/Zov.h"

template <>
struct Zov::GenericConvert<Dovix::IntfId> {
  static GenericValue to(Dovix::IntfId id) { return id.name(); }
  static Dovix::IntfId from(const GenericValue& value) { return Dovix::IntfId(value.asText()); }
};

template <>
struct Zov::GenericConvert<McastDns::IntfKey> {
  static GenericValue to(const McastDns::IntfKey& key);
  // Raises `GenericArgsException` for text that is not "NAME#NUMBER".
  static McastDns::IntfKey from(const GenericValue& value);
};

template <>
struct Zov::GenericConvert<Pell::TaskPriority> {
  static GenericValue to(Pell::TaskPriority priority) { return priority.value(); }
  static Pell::TaskPriority from(const GenericValue& value) {
    return Pell::TaskPriority(GenericConvert<unsigned>::from(value));
  }
};

namespace McastDns {

// Generic construction of the root entity: the name alone. Further values
// raise the framework's new-entity-arguments error.
Zov::Ptr<Zov::PtrInterface> genericIfConstructAclPlugin(Zov::GenericArgs values);

}  // namespace McastDns
