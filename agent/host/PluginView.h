// PluginView: what `show types`, `show plugin`, `show sm` and `show watchers`
// print. These reach the loaded plugin only through the framework, never
// through its headers: the registered type modules, and the generic
// attribute interface on the plugin's root entity, which is the live mounter
// of a registered type. The state machines are the objects of registered
// types that a root refers to, their watchers the members of their keyed
// collections. Nothing here names an attribute of the plugin: what is shown
// is what the type module lists.
//
// Each text ends in a newline; with no plugin loaded the plugin texts say
// "no plugin loaded". Collections are walked in hash order, so member lines
// are sorted to read the same from run to run.
//
// Threading: the event thread only.
#pragma once

#include <string>

namespace AclAgent {

// Every registered module: its types with their live objects and generic
// construction, and each attribute with its id, kind, key or arguments and
// the accesses it offers.
std::string typesText();
// Each root entity: its name, type and every attribute it lets be read.
std::string pluginText();
// Each state machine: its type and every attribute it lets be read (a timer
// task by its state), and the size of each collection.
std::string smText();
// One line per watcher: its collection and every value it lets be read.
std::string watchersText();

}  // namespace AclAgent
