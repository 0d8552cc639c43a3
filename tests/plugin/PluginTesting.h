// What the plugin's tests watch it through, whether they link its classes or
// load its shared object: its trace records and its live objects. Both go by
// name, so nothing here needs the plugin's own code.
#pragma once

#include <algorithm>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "platform/Zov.h"

namespace PluginTesting {

inline constexpr const char* kTraceHandle = "McastDnsAclPlugin";

// Captures the records of the plugin's trace handle, with `levels` enabled on
// it, while it lives; then restores the levels and the sink.
class TraceCapture {
 public:
  explicit TraceCapture(std::uint16_t levels,
                        std::function<void(const Zov::TraceRecord&)> hook = {})
      : hook_(std::move(hook)) {
    const Zov::TraceHandle* handle = Zov::TraceHandle::find(kTraceHandle);
    levels_ = handle ? handle->levels() : 0;
    Zov::TraceHandle::levelsByNameIs(kTraceHandle, levels);
    previous_ = Zov::traceSinkIs([this](const Zov::TraceRecord& record) {
      if (record.handle != kTraceHandle) return;
      records_.push_back(record);
      if (hook_) hook_(record);
    });
  }
  ~TraceCapture() {
    Zov::traceSinkIs(std::move(previous_));
    Zov::TraceHandle::levelsByNameIs(kTraceHandle, levels_);
  }
  TraceCapture(const TraceCapture&) = delete;
  TraceCapture& operator=(const TraceCapture&) = delete;

  const std::vector<Zov::TraceRecord>& records() const { return records_; }
  // The texts of the records of the function with this short name, in order.
  std::vector<std::string> texts(const std::string& function) const {
    std::vector<std::string> out;
    for (const auto& r : records_) {
      if (r.function == function) out.push_back(r.text);
    }
    return out;
  }
  // How many records carry this text (a handler's full signature).
  long count(const std::string& text) const {
    return std::count_if(records_.begin(), records_.end(),
                         [&](const Zov::TraceRecord& r) { return r.text == text; });
  }

 private:
  std::function<void(const Zov::TraceRecord&)> hook_;
  std::uint16_t levels_ = 0;
  Zov::TraceSink previous_;
  std::vector<Zov::TraceRecord> records_;
};

// The live objects of one allocation record; a record that was never made
// counts 0.
inline std::uint64_t liveObjects(const char* record) {
  const Zov::AllocTrackTypeInfo* info = Zov::AllocTrackTypeInfo::find(record);
  return info ? info->liveObjects() : 0;
}

}  // namespace PluginTesting
