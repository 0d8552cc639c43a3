// The plugin's trace records. Every handler writes one record at level 8 on
// entry; the plugin's init writes one at level 0. A record is built only when
// its level is enabled on the handle "McastDnsAclPlugin".
#pragma once

#include "platform/Zov.h"

namespace McastDns {

namespace Impl {
// Set once the handle exists, so that the test of a disabled level costs one
// load and no call.
extern constinit Zov::TraceHandle* defaultTraceHandle_;
Zov::TraceHandle& defaultTraceHandleIs();
}  // namespace Impl

// The plugin's trace handle, built on first use and shared by every object of
// the plugin.
//
// It is not immortal: it is destroyed with the shared object's other statics
// when the agent closes the plugin. The platform finds live handles by name,
// and a handle left behind would keep its name, which lives in this object,
// registered after the object is unmapped; a handle that is never freed would
// also be a leak the agent cannot reclaim. Nothing traces after that point:
// the plugin object, which owns everything that traces, goes first.
inline Zov::TraceHandle& _defaultTraceHandle() {
  if (Zov::TraceHandle* handle = Impl::defaultTraceHandle_) return *handle;
  return Impl::defaultTraceHandleIs();
}

inline constexpr unsigned kTraceInit = 0;
inline constexpr unsigned kTraceHandler = 8;
inline constexpr const char* kTraceFile = "/src/McastDns/AclPlugin/McastDnsAclPlugin";

}  // namespace McastDns

// Writes a record at `level` with the handler's short name; the full
// signature is streamed into it.
#define MCASTDNS_TRACE(level, shortName) \
  ZOV_TRACE(::McastDns::_defaultTraceHandle(), level, ::McastDns::kTraceFile, shortName)
