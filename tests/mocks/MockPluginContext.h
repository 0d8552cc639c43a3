// A GoogleMock of the ACL agent's plugin context, for the plugin's tests.
// It is a counted object: create it with `new` and hold it in a `Zov::Ptr`.
#pragma once

#include <gmock/gmock.h>

#include <ostream>

#include "platform/Acl.h"

namespace Zov {
inline void PrintTo(const String& s, std::ostream* os) { *os << '"' << s.view() << '"'; }
}  // namespace Zov

namespace L3 {
inline void PrintTo(const VrfName& s, std::ostream* os) { *os << '"' << s.view() << '"'; }
}  // namespace L3

namespace Acl {
inline void PrintTo(const UniqueId& id, std::ostream* os) {
  *os << "UniqueId(" << id.word0() << ", " << id.word1() << ")";
}
}  // namespace Acl

class MockPluginContext : public Acl::PluginContext {
 public:
  MOCK_METHOD(Zov::Ptr<Korvel::EntityManager>, entityManager, (), (const, override));
  MOCK_METHOD(void, registerChainRule,
              (Acl::IptablesType, Acl::AclType, L3::VrfName, Acl::AclDirection,
               const Zov::String&, const Zov::String&, unsigned int, const Zov::String&,
               const Zov::String&, const Zov::String&, bool, const Acl::UniqueId&),
              (override));
  MOCK_METHOD(void, unregisterChainRule,
              (Acl::IptablesType, Acl::AclType, L3::VrfName, Acl::AclDirection,
               const Zov::String&, const Zov::String&, unsigned int),
              (override));
  MOCK_METHOD(void, finishRegistration,
              (Acl::IptablesType, Acl::AclType, L3::VrfName, const Zov::String&), (override));
};
