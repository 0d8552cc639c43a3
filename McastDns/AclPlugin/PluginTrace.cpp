#include "McastDns/AclPlugin/PluginTrace.h"

namespace McastDns::Impl {

constinit Zov::TraceHandle* defaultTraceHandle_ = nullptr;

Zov::TraceHandle& defaultTraceHandleIs() {
  // Built once, on first use, by whichever object traces first; the
  // construction of a function-local static is guarded.
  static Zov::TraceHandle handle("McastDnsAclPlugin", false);
  defaultTraceHandle_ = &handle;
  return handle;
}

}  // namespace McastDns::Impl
