// The plugin's type module: its four framework types and their indexes.
#pragma once

#include "platform/Zov.h"

namespace McastDns {

enum TypeIndex : unsigned {
  kL3IntfStatusAclSmType = 0,
  kLinkStatusAclSmType = 1,
  kCpAclSmType = 2,
  kAclPluginType = 3,
};

// (the plugin's module, `index`)
Zov::FwkType fwkTypeOf(TypeIndex index);

}  // namespace McastDns

// Registered with the framework when the plugin's shared object loads.
extern "C" const Zov::ZovModule _McastDnsAclPlugin_95fe9596_zovModule;
