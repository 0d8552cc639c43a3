#include "McastDns/AclPlugin/L3IntfStatusAclSm.h"
#include "McastDns/AclPlugin/LinkStatusAclSm.h"

namespace McastDns {

Zov::Ptr<LinkStatusAclSm> LinkStatusAclSm::LinkStatusAclSmIs(
    const Zov::Ptr<const LinkStatus>& linkStatus, CpAclSm* parent) {
  return create(linkStatus, parent);
}

Zov::Ptr<LinkStatusAclSm> linkStatusAclSmFactory(const Zov::Ptr<const LinkStatus>& linkStatus,
                                                 CpAclSm* parent) {
  return LinkStatusAclSm::LinkStatusAclSmIs(linkStatus, parent);
}

Zov::Ptr<L3IntfStatusAclSm> L3IntfStatusAclSm::L3IntfStatusAclSmIs(
    const Zov::Ptr<const L3::Intf::Status>& l3IntfStatus, CpAclSm* parent) {
  return create(l3IntfStatus, parent);
}

Zov::Ptr<L3IntfStatusAclSm> l3IntfStatusAclSmFactory(
    const Zov::Ptr<const L3::Intf::Status>& l3IntfStatus, CpAclSm* parent) {
  return L3IntfStatusAclSm::L3IntfStatusAclSmIs(l3IntfStatus, parent);
}

}  // namespace McastDns
