#include "McastDns/AclPlugin/Trace.h"

namespace McastDns {

Zov::TraceHandle& traceHandle() {
  // Built once, on first use, by whichever object traces first; the
  // construction of a function-local static is guarded.
  static Zov::TraceHandle handle("McastDnsAclPlugin", false);
  return handle;
}

}  // namespace McastDns
