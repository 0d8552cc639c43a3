// Interface ids are interned names: ids are handed out in order of first use,
// so they are dense, exact (no collisions) and can be turned back into names.
#include "platform/Dovix.h"

#include <unordered_map>

namespace Dovix {
namespace {
struct Names {
  std::unordered_map<std::string, std::uint64_t> ids;
  std::vector<Zov::String> names{Zov::String()};
};
Names& names() {
  static Names table;
  return table;
}
}  // namespace

void IntfId::handleInitialized(const Zov::String& name) {
  if (name.empty()) {
    value_ = 0;
    return;
  }
  auto& table = names();
  auto [it, inserted] = table.ids.try_emplace(name.str(), table.names.size());
  if (inserted) table.names.push_back(name);
  value_ = it->second;
}

Zov::String IntfId::name() const {
  auto& table = names();
  return value_ < table.names.size() ? table.names[value_] : Zov::String();
}

}  // namespace Dovix
