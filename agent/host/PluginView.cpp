#include "agent/host/PluginView.h"

#include <algorithm>
#include <sstream>

#include "platform/Korvel.h"
#include "platform/Pell.h"
#include "platform/Zov.h"

namespace AclAgent {

namespace {

constexpr const char* kNoPlugin = "no plugin loaded\n";

const char* kindName(Zov::AttributeKind kind) {
  switch (kind) {
    case Zov::AttributeKind::kValue:
      return "value";
    case Zov::AttributeKind::kReference:
      return "reference";
    case Zov::AttributeKind::kCollection:
      return "collection";
    case Zov::AttributeKind::kOperation:
      return "operation";
  }
  return "?";
}

std::string joined(std::span<const char* const> names) {
  std::string text;
  for (const char* name : names) text += (text.empty() ? "" : ", ") + std::string(name);
  return text;
}

// The accesses an attribute offers, as words: "read,write".
std::string accessText(const Zov::AttributeAccess& access) {
  const std::pair<bool, const char*> offered[] = {
      {access.read, "read"},        {access.write, "write"},   {access.del, "delete"},
      {access.call, "call"},        {access.member, "lookup"}, {access.memberIs, "add"},
      {access.memberDel, "remove"}, {access.members, "walk"},
  };
  std::string text;
  for (const auto& [has, word] : offered) {
    if (!has) continue;
    if (!text.empty()) text += ',';
    text += word;
  }
  return text.empty() ? "none" : text;
}

// The plugins' root entities: live mounters of a registered type.
std::vector<Korvel::Mounter*> roots() {
  std::vector<Korvel::Mounter*> found;
  for (Korvel::Mounter* mounter : Korvel::Mounter::all()) {
    if (mounter->fwkType().module) found.push_back(mounter);
  }
  return found;
}

// The plugin-typed objects that `object` refers to through its readable
// references: a root's state machines.
std::vector<Zov::Ptr<const Zov::PtrInterface>> referencedObjects(const Zov::PtrInterface& object) {
  std::vector<Zov::Ptr<const Zov::PtrInterface>> found;
  for (const Zov::AttributeInfo& attribute : Zov::genericIfType(object).attributes) {
    if (attribute.kind != Zov::AttributeKind::kReference || !attribute.access.read) continue;
    auto target =
        Zov::genericIfAttribute(object, attribute.id).asReference<const Zov::PtrInterface>();
    if (target && target->fwkType().module) found.push_back(target);
  }
  return found;
}

std::string taskText(const Pell::TimerTask& task) {
  if (!task.armed()) return "armed=false";
  const Pell::Nanoseconds dueIn = task.due() - task.taskScheduler()->now();
  return "armed=true due_in=" + std::to_string(dueIn) + "ns";
}

// One attribute's value as `show` prints it: a collection by its size, a
// timer task by its state, anything else by its generic text.
std::string valueText(const Zov::PtrInterface& object, const Zov::AttributeInfo& attribute) {
  if (attribute.kind == Zov::AttributeKind::kCollection) {
    return std::to_string(Zov::genericIfMembers(object, attribute.id).size()) + " members";
  }
  const Zov::GenericValue value = Zov::genericIfAttribute(object, attribute.id);
  if (value.type() == Zov::GenericValue::Type::kReference) {
    auto object = value.asReference<const Zov::PtrInterface>();
    if (auto* task = dynamic_cast<const Pell::TimerTask*>(object.ptr())) return taskText(*task);
  }
  return value.str();
}

// Calls `visit(attribute)` for every keyed collection of `object`'s type.
template <class Visit>
void forEachCollection(const Zov::PtrInterface& object, Visit&& visit) {
  for (const Zov::AttributeInfo& attribute : Zov::genericIfType(object).attributes) {
    if (attribute.kind == Zov::AttributeKind::kCollection) visit(attribute);
  }
}

// Whether `show` prints the attribute: what can be read, and collections.
bool shown(const Zov::AttributeInfo& attribute) {
  if (attribute.kind == Zov::AttributeKind::kCollection) return attribute.access.members;
  return attribute.access.read && attribute.kind != Zov::AttributeKind::kOperation;
}

// "  name=value" for every attribute `show` prints, in the type's order.
std::string attributesText(const Zov::PtrInterface& object, const char* indent) {
  std::string text;
  for (const Zov::AttributeInfo& attribute : Zov::genericIfType(object).attributes) {
    if (!shown(attribute)) continue;
    text += std::string(indent) + attribute.name + "=" + valueText(object, attribute) + "\n";
  }
  return text;
}

}  // namespace

std::string typesText() {
  std::ostringstream text;
  for (const Zov::ZovModule* module : Zov::zovModules()) {
    text << "module " << module->name << "\n";
    for (std::size_t i = 0; i < module->types.size(); ++i) {
      const Zov::ZovTypeInfo& type = module->types[i];
      const Zov::AllocTrackTypeInfo* record = Zov::AllocTrackTypeInfo::find(type.name);
      text << "  type " << i << " " << type.name
           << " live=" << (record ? record->liveObjects() : 0);
      if (type.construct) text << " construct(" << joined(type.constructorArgumentNames) << ")";
      text << "\n";
      for (const Zov::AttributeInfo& attribute : type.attributes) {
        text << "    " << attribute.id << " " << attribute.name << " " << kindName(attribute.kind);
        if (attribute.keyName) text << " key=" << attribute.keyName;
        if (attribute.kind == Zov::AttributeKind::kOperation) {
          text << "(" << joined(attribute.argumentNames) << ")";
        }
        text << " " << accessText(attribute.access) << "\n";
      }
    }
  }
  if (text.str().empty()) return "no types\n";
  return text.str();
}

std::string pluginText() {
  std::string text;
  for (Korvel::Mounter* root : roots()) {
    text += "plugin " + Zov::GenericValue(Zov::String(root->name())).str() +
            " type=" + Zov::genericIfType(*root).name + "\n" + attributesText(*root, "  ");
  }
  return text.empty() ? kNoPlugin : text;
}

std::string smText() {
  if (roots().empty()) return kNoPlugin;
  std::string text;
  for (Korvel::Mounter* root : roots()) {
    for (const auto& sm : referencedObjects(*root)) {
      text +=
          "sm type=" + std::string(Zov::genericIfType(*sm).name) + "\n" + attributesText(*sm, "  ");
    }
  }
  return text.empty() ? "no state machine\n" : text;
}

std::string watchersText() {
  if (roots().empty()) return kNoPlugin;
  std::vector<std::string> lines;
  for (Korvel::Mounter* root : roots()) {
    for (const auto& sm : referencedObjects(*root)) {
      forEachCollection(*sm, [&](const Zov::AttributeInfo& collection) {
        for (const Zov::GenericValue& member : Zov::genericIfMembers(*sm, collection.id)) {
          auto watcher = member.asReference<const Zov::PtrInterface>();
          // Appended piece by piece: GCC 12 at -O3 warns wrongly on chains of +.
          std::string line = "watcher ";
          line += collection.name;
          for (const Zov::AttributeInfo& attribute : Zov::genericIfType(*watcher).attributes) {
            if (attribute.kind != Zov::AttributeKind::kValue || !attribute.access.read) continue;
            const Zov::GenericValue value = Zov::genericIfAttribute(*watcher, attribute.id);
            if (value.type() == Zov::GenericValue::Type::kReference) continue;
            line += ' ';
            line += attribute.name;
            line += '=';
            line += value.str();
          }
          line += '\n';
          lines.push_back(std::move(line));
        }
      });
    }
  }
  if (lines.empty()) return "no watchers\n";
  std::sort(lines.begin(), lines.end());
  std::string text;
  for (const std::string& line : lines) text += line;
  return text;
}

}  // namespace AclAgent
