#include "agent/PluginView.h"

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

Zov::GenericValue readNamed(const Zov::PtrInterface& object, std::string_view name) {
  return Zov::genericIfAttribute(object, Zov::genericIfAttributeInfo(object, name).id);
}

// The state machines of the roots that have one.
std::vector<Zov::Ptr<const Zov::PtrInterface>> stateMachines() {
  std::vector<Zov::Ptr<const Zov::PtrInterface>> found;
  for (Korvel::Mounter* root : roots()) {
    if (auto sm = readNamed(*root, "cpAclSm").asReference<const Zov::PtrInterface>()) {
      found.push_back(sm);
    }
  }
  return found;
}

// Calls `visit(attribute)` for every keyed collection of `object`'s type.
template <class Visit>
void forEachCollection(const Zov::PtrInterface& object, Visit&& visit) {
  for (const Zov::AttributeInfo& attribute : Zov::genericIfType(object).attributes) {
    if (attribute.kind == Zov::AttributeKind::kCollection) visit(attribute);
  }
}

std::string taskText(const Zov::GenericValue& value) {
  auto task = value.asReference<const Pell::TimerTask>();
  if (!task) return "none";
  if (!task->armed()) return "armed=false";
  const Pell::Nanoseconds dueIn = task->due() - task->taskScheduler()->now();
  return "armed=true due_in=" + std::to_string(dueIn) + "ns";
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
  std::ostringstream text;
  for (Korvel::Mounter* root : roots()) {
    const Zov::ZovTypeInfo& type = Zov::genericIfType(*root);
    text << "plugin " << Zov::GenericValue(Zov::String(root->name())).str() << " type=" << type.name
         << "\n";
    for (const Zov::AttributeInfo& attribute : type.attributes) {
      if (!attribute.access.read) continue;
      text << "  " << attribute.name << "=" << Zov::genericIfAttribute(*root, attribute.id).str()
           << "\n";
    }
  }
  if (text.str().empty()) return kNoPlugin;
  return text.str();
}

std::string smText() {
  if (roots().empty()) return kNoPlugin;
  std::ostringstream text;
  for (const auto& sm : stateMachines()) {
    text << "sm";
    for (const char* name : {"af", "initialized", "dirtyAcl", "refreshAclsDelay"}) {
      text << " " << name << "=" << readNamed(*sm, name).str();
    }
    text << "\nsm refreshAclsTask " << taskText(readNamed(*sm, "refreshAclsTask"))
         << "\nsm watchers";
    forEachCollection(*sm, [&](const Zov::AttributeInfo& collection) {
      text << " " << collection.name << "=" << Zov::genericIfMembers(*sm, collection.id).size();
    });
    text << "\n";
    for (const char* name : {"mdnsIptRule", "mdnsGwIptRule"}) {
      text << "sm " << name << "=" << readNamed(*sm, name).str() << "\n";
    }
  }
  if (text.str().empty()) return "no state machine\n";
  return text.str();
}

std::string watchersText() {
  if (roots().empty()) return kNoPlugin;
  std::vector<std::string> lines;
  for (const auto& sm : stateMachines()) {
    forEachCollection(*sm, [&](const Zov::AttributeInfo& collection) {
      for (const Zov::GenericValue& member : Zov::genericIfMembers(*sm, collection.id)) {
        auto watcher = member.asReference<const Zov::PtrInterface>();
        lines.push_back("watcher " + std::string(collection.name) + " " + collection.keyName + "=" +
                        readNamed(*watcher, collection.keyName).str() +
                        " initialized=" + readNamed(*watcher, "initialized").str() + "\n");
      }
    });
  }
  if (lines.empty()) return "no watchers\n";
  std::sort(lines.begin(), lines.end());
  std::string text;
  for (const std::string& line : lines) text += line;
  return text;
}

}  // namespace AclAgent
