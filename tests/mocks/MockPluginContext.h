// A GoogleMock of the ACL agent's plugin context, for tests of what a plugin
// tells the agent. It is a counted object: create it with `new` and hold it
// in a `Zov::Ptr`, as the agent's own context is held.
#pragma once

#include <gmock/gmock.h>

#include <ostream>

#include "platform/Acl.h"

// Texts print quoted, so that a rule text's trailing newline shows in a
// failure message.
namespace Zov {
inline void PrintTo(const String& s, std::ostream* os) {
  *os << quotedText(s.view());
}
}  // namespace Zov

namespace L3 {
inline void PrintTo(const VrfName& s, std::ostream* os) {
  *os << Zov::quotedText(s.view());
}
}  // namespace L3

namespace Acl {
// The enums are one byte wide; without these they print as raw bytes.
inline void PrintTo(IptablesType v, std::ostream* os) {
  *os << "ipt=" << static_cast<unsigned>(v);
}
inline void PrintTo(AclType v, std::ostream* os) {
  *os << "acl=" << static_cast<unsigned>(v);
}
inline void PrintTo(AclDirection v, std::ostream* os) {
  *os << "dir=" << static_cast<unsigned>(v);
}
inline void PrintTo(const UniqueId& id, std::ostream* os) {
  *os << "UniqueId(" << id.word0() << ", " << id.word1() << ")";
}
}  // namespace Acl

class MockPluginContext : public Acl::PluginContext {
 public:
  MOCK_METHOD(Zov::Ptr<Korvel::EntityManager>, entityManager, (), (const, override));
  MOCK_METHOD(void, registerChainRule,
              (Acl::IptablesType, Acl::AclType, L3::VrfName, Acl::AclDirection, const Zov::String&,
               const Zov::String&, unsigned int, const Zov::String&, const Zov::String&,
               const Zov::String&, bool, const Acl::UniqueId&),
              (override));
  MOCK_METHOD(void, unregisterChainRule,
              (Acl::IptablesType, Acl::AclType, L3::VrfName, Acl::AclDirection, const Zov::String&,
               const Zov::String&, unsigned int),
              (override));
  MOCK_METHOD(void, finishRegistration,
              (Acl::IptablesType, Acl::AclType, L3::VrfName, const Zov::String&), (override));
};
