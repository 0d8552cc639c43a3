// Tracing for the object framework. Included by Zov.h.
//
// A `TraceHandle` is a named set of sixteen level switches (0 to 15). Code
// writes records through it with `ZOV_TRACE`, which tests the level first: a
// disabled level costs that one test and builds nothing.
//
//   static Zov::TraceHandle handle("McastDnsAclPlugin", false);
//   ZOV_TRACE(handle, 8, "/src/Dir/File", "handleLinkChange")
//       << "void Ns::Sm::handleLinkChange()";
//
// Handles are found by name, so a host can enable levels on a handle that a
// plugin will create later: levels asked for by name are applied when the
// handle appears. Finished records go to one process-wide sink, which tests
// can replace to capture them.
#pragma once

namespace Zov {

class TraceHandle {
 public:
  static constexpr unsigned kLevels = 16;

  // `enabled` turns every level on at creation (levels asked for by name
  // before the handle existed are applied as well).
  TraceHandle(const char* name, bool enabled);
  ~TraceHandle();
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  const char* name() const { return name_; }
  bool enabled(unsigned level) const { return (levels_ >> level) & 1u; }
  void levelIs(unsigned level, bool enabled);
  std::uint16_t levels() const { return levels_; }
  void levelsIs(std::uint16_t levels) { levels_ = levels; }

  // The live handle with this name, or null.
  static TraceHandle* find(std::string_view name);
  // The names of every handle made in this process so far, live or not, in
  // bytewise order.
  static std::vector<std::string> namesMade();
  // Sets the levels of the handle with this name, now if it exists and when
  // it is created otherwise.
  static void levelsByNameIs(std::string_view name, std::uint16_t levels);

 private:
  const char* name_;
  std::uint16_t levels_ = 0;
};

// One finished trace record.
struct TraceRecord {
  std::string handle;
  unsigned level = 0;
  std::string file;
  int line = 0;
  std::string function;
  std::string text;
};

using TraceSink = std::function<void(const TraceRecord&)>;
// Replaces the sink and returns the previous one. The default sink writes one
// line a record to standard error.
TraceSink traceSinkIs(TraceSink sink);

// The stream into which a record's text is written.
class TraceStream {
 public:
  TraceStream& operator<<(const char* text) {
    text_ += text;
    return *this;
  }
  TraceStream& operator<<(std::string_view text) {
    text_ += text;
    return *this;
  }
  template <class T, std::enable_if_t<std::is_arithmetic_v<T>, int> = 0>
  TraceStream& operator<<(T value) {
    text_ += std::to_string(value);
    return *this;
  }

 private:
  friend class TraceHelper;
  std::string text_;
};

// Begins a record; the record is written to the sink when the helper ends.
class TraceHelper {
 public:
  TraceHelper(TraceHandle& handle, unsigned level, const char* file, int line, const char* function)
      : handle_(handle), level_(level), file_(file), line_(line), function_(function) {}
  ~TraceHelper();
  TraceHelper(const TraceHelper&) = delete;
  TraceHelper& operator=(const TraceHelper&) = delete;

  TraceStream& stream() { return stream_; }

 private:
  TraceHandle& handle_;
  unsigned level_;
  const char* file_;
  int line_;
  const char* function_;
  TraceStream stream_;
};

}  // namespace Zov

// Writes one record at `level` on `handle` when that level is enabled; the
// text is what is streamed into the expression. Nothing is evaluated otherwise.
#define ZOV_TRACE(handle, level, file, function) \
  if (!(handle).enabled(level)) {                \
  } else                                         \
    Zov::TraceHelper((handle), (level), (file), __LINE__, (function)).stream()
