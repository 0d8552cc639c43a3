#include "McastDns/AclPlugin/PluginTrace.h"

namespace McastDns::Impl {

[[gnu::visibility("hidden")]] constinit Zov::TraceHandle* defaultTraceHandle_ = nullptr;

Zov::TraceHandle& defaultTraceHandleIs() {
  // Built once, on first use, by whichever object traces first; the
  // construction of a function-local static is guarded.
  static Zov::TraceHandle handle("McastDnsAclPlugin", false);
  defaultTraceHandle_ = &handle;
  return handle;
}

void traceRecordWrite(unsigned level, int line, const char* shortName, const char* text,
                      const char* more) {
  Zov::TraceHelper record(_defaultTraceHandle(), level, kTraceFile, line, shortName);
  record.stream() << text;
  if (more) record.stream() << more;
}

}  // namespace McastDns::Impl
