#include "platform/L3.h"

namespace L3 {

VrfName VrfName::defaultVrf() {
  static const VrfName name("default");
  return name;
}

namespace Intf {

Status::Status(Dovix::IntfId intfId, const VrfName& vrf)
    : Entity(intfId.name()), intfId_(intfId), vrf_(vrf) {}

void Status::vrfIs(const VrfName& vrf) {
  if (vrf == vrf_) return;
  vrf_ = vrf;
  notifieeList()->visit(kVrf);
}

void StatusDir::intfStatusIs(const Zov::Ptr<const Status>& status) {
  const Dovix::IntfId id = status->intfId();
  if (intfStatus_.entryIs(id, status)) notifieeList()->visit(kIntfStatus, &id);
}

void StatusDir::intfStatusDel(Dovix::IntfId id) {
  if (intfStatus_.entryDel(id)) notifieeList()->visit(kIntfStatus, &id);
}

}  // namespace Intf
}  // namespace L3
