#include "McastDns/AclPlugin/Trace.h"

namespace McastDns::Impl {

constinit Zov::TraceHandle* traceHandle_ = nullptr;

Zov::TraceHandle& traceHandleIs() {
  // Built once, on first use, by whichever object traces first; the
  // construction of a function-local static is guarded.
  static Zov::TraceHandle handle("McastDnsAclPlugin", false);
  traceHandle_ = &handle;
  return handle;
}

}  // namespace McastDns::Impl
