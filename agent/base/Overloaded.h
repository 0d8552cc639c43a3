// Overloaded: one visitor made of several lambdas, for std::visit over the
// scenario's commands.
//
//   std::visit(Overloaded{[](const LoadCmd&) { ... }, [](const auto&) { ... }}, args);
#pragma once

namespace AclAgent {

template <class... Visit>
struct Overloaded : Visit... {
  using Visit::operator()...;
};
template <class... Visit>
Overloaded(Visit...) -> Overloaded<Visit...>;

}  // namespace AclAgent
