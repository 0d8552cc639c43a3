// The plugin's trace records. Every handler writes one record at level 8 on
// entry; the plugin's init writes one at level 0. A record is built only when
// its level is enabled on the handle "McastDnsAclPlugin".
#pragma once

#include "platform/Zov.h"

namespace McastDns {

namespace Impl {
// Set once the handle exists, so that the test of a disabled level costs one
// load and no call.
extern constinit Zov::TraceHandle* traceHandle_;
Zov::TraceHandle& traceHandleIs();
}  // namespace Impl

// The plugin's trace handle, built on first use and shared by every object of
// the plugin.
inline Zov::TraceHandle& traceHandle() {
  if (Zov::TraceHandle* handle = Impl::traceHandle_) return *handle;
  return Impl::traceHandleIs();
}

inline constexpr unsigned kTraceInit = 0;
inline constexpr unsigned kTraceHandler = 8;
inline constexpr const char* kTraceFile = "/src/McastDns/AclPlugin/McastDnsAclPlugin";

}  // namespace McastDns

// Writes a record at `level` with the handler's short name; the full
// signature is streamed into it.
#define MCASTDNS_TRACE(level, shortName) \
  ZOV_TRACE(::McastDns::traceHandle(), level, ::McastDns::kTraceFile, shortName)
