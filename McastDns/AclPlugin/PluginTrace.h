// The plugin's trace records. Every handler writes one record at level 8 on
// entry; the plugin's init writes one at level 0. A record is built only when
// its level is enabled on the handle "McastDnsAclPlugin".
//
//   MCASTDNS_TRACE(kTraceHandler, "handleState")
//       << "void McastDns::LinkStatusAclSm::handleState()";
//
// A handler pays for a disabled level with the test alone: the record is
// built and written out of line, in a cold function, so the handler keeps no
// stack space or registers for it.
#pragma once

#include <array>

#include "platform/Zov.h"

namespace McastDns {

namespace Impl {
// Set once the handle exists, so that the test of a disabled level costs one
// load and no call. Only the plugin's own code reads it, so it is hidden from
// other shared objects: the load goes straight to it, not through the GOT.
[[gnu::visibility("hidden")]] extern constinit Zov::TraceHandle* defaultTraceHandle_;
[[gnu::cold]] Zov::TraceHandle& defaultTraceHandleIs();
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

namespace Impl {

// Writes one record on the plugin's handle, at `level`, from `line`, with the
// handler's short name and `text` followed by `more` (when not null).
[[gnu::cold, gnu::noinline]] void traceRecordWrite(unsigned level, int line, const char* shortName,
                                                   const char* text, const char* more);

// Where a record comes from.
struct TraceSite {
  unsigned level;
  int line;
  const char* shortName;
};

// A record's text as streamed so far: `Count` pieces, written when the last
// of the statement's temporaries ends. Every piece is a text that outlives
// the statement.
template <unsigned Count>
class TraceText {
  static_assert(Count >= 1 && Count <= 2, "a trace record takes one or two texts");

 public:
  TraceText(const TraceSite& site, const std::array<const char*, Count>& pieces)
      : site_(site), pieces_(pieces) {}
  TraceText(const TraceText&) = delete;
  TraceText& operator=(const TraceText&) = delete;
  ~TraceText() {
    if (passedOn_) return;
    traceRecordWrite(site_.level, site_.line, site_.shortName, pieces_[0],
                     Count > 1 ? pieces_[Count - 1] : nullptr);
  }

  TraceText<Count + 1> operator<<(const char* text) && {
    passedOn_ = true;
    std::array<const char*, Count + 1> pieces;
    for (unsigned i = 0; i < Count; ++i) pieces[i] = pieces_[i];
    pieces[Count] = text;
    return TraceText<Count + 1>(site_, pieces);
  }

 private:
  TraceSite site_;
  std::array<const char*, Count> pieces_;
  bool passedOn_ = false;
};

// What `MCASTDNS_TRACE` yields once the level is known to be on.
struct TraceStart {
  TraceSite site;
  TraceText<1> operator<<(const char* text) && { return TraceText<1>(site, {text}); }
};

}  // namespace Impl

}  // namespace McastDns

// Writes a record at `level` with the handler's short name; the full
// signature is streamed into it. Nothing is evaluated when the level is off.
#define MCASTDNS_TRACE(level, shortName)                   \
  if (!::McastDns::_defaultTraceHandle().enabled(level)) { \
  } else                                                   \
    ::McastDns::Impl::TraceStart {                         \
      { (level), __LINE__, (shortName) }                   \
    }
