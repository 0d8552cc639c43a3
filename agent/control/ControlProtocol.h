// ControlProtocol: the bytes that `acl-agent ctl` and a live agent's control
// socket exchange.
//
// The client sends command lines, each ending in "\n", at most
// `kMaxLineBytes` bytes before it. The agent answers every line, in the
// order sent, with one answer:
//
//   STATUS OUTLEN ERRLEN\n      STATUS 0 (ran) or 1 (failed), lengths in decimal
//   OUTLEN bytes               what the command printed, as on standard output
//   ERRLEN bytes               the error's message, without file, line or newline
//
// A line over the limit is answered once, with an error, as soon as the
// limit is passed; the rest of it, up to its "\n", is dropped unanswered.
// Blank and comment lines get an empty answer, "0 0 0\n".
//
//   std::string bytes = encodeAnswer({.failed = true, .error = "unknown command \"x\""});
//   AnswerReader reader;
//   reader.append(bytes);
//   std::optional<ControlAnswer> answer = reader.next();  // none until one is whole
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace AclAgent {

constexpr std::size_t kMaxLineBytes = 64 * 1024;

struct ControlAnswer {
  bool failed = false;
  std::string output;
  std::string error;
  friend bool operator==(const ControlAnswer&, const ControlAnswer&) = default;
};

std::string encodeAnswer(const ControlAnswer& answer);

// Reads answers from the bytes the agent sent, as they arrive.
class AnswerReader {
 public:
  void append(std::string_view bytes) { buffer_.append(bytes); }
  // The next whole answer, if one has arrived. Once the bytes are not
  // answers (`broken()`), none.
  std::optional<ControlAnswer> next();
  bool broken() const { return broken_; }

 private:
  std::string buffer_;
  bool broken_ = false;
};

}  // namespace AclAgent
