#include "McastDns/AclPlugin/ZovModule.h"

namespace {

constexpr Zov::ZovTypeInfo kTypes[] = {
    {"McastDns::L3IntfStatusAclSm"},
    {"McastDns::LinkStatusAclSm"},
    {"McastDns::CpAclSm"},
    {"McastDns::AclPlugin"},
};

}  // namespace

extern "C" const Zov::ZovModule _McastDnsAclPlugin_95fe9596_zovModule{"McastDnsAclPlugin", kTypes};

namespace McastDns {

Zov::FwkType fwkTypeOf(TypeIndex index) {
  return {&_McastDnsAclPlugin_95fe9596_zovModule, index};
}

}  // namespace McastDns
