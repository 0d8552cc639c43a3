#include "agent/control/ControlProtocol.h"

#include <charconv>

namespace AclAgent {
namespace {

// A header is three decimal numbers: anything much longer is not one.
constexpr std::size_t kMaxHeaderBytes = 64;

bool readNumber(std::string_view& text, std::size_t& value, char end) {
  const auto [ptr, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || ptr == text.data() || ptr == text.data() + text.size() || *ptr != end) {
    return false;
  }
  text.remove_prefix(static_cast<std::size_t>(ptr - text.data()) + 1);
  return true;
}

}  // namespace

std::string encodeAnswer(const ControlAnswer& answer) {
  std::string bytes = (answer.failed ? "1 " : "0 ") + std::to_string(answer.output.size()) + " " +
                      std::to_string(answer.error.size()) + "\n";
  bytes += answer.output;
  bytes += answer.error;
  return bytes;
}

std::optional<ControlAnswer> AnswerReader::next() {
  if (broken_) return std::nullopt;
  const std::size_t newline = buffer_.find('\n');
  if (newline == std::string::npos) {
    broken_ = buffer_.size() > kMaxHeaderBytes;
    return std::nullopt;
  }
  std::string_view header(buffer_.data(), newline + 1);
  std::size_t status = 0;
  std::size_t outLength = 0;
  std::size_t errLength = 0;
  if (!readNumber(header, status, ' ') || status > 1 || !readNumber(header, outLength, ' ') ||
      !readNumber(header, errLength, '\n')) {
    broken_ = true;
    return std::nullopt;
  }
  if (outLength > buffer_.max_size() || errLength > buffer_.max_size() - outLength) {
    broken_ = true;
    return std::nullopt;
  }
  if (buffer_.size() - newline - 1 < outLength + errLength) return std::nullopt;
  ControlAnswer answer;
  answer.failed = status == 1;
  answer.output = buffer_.substr(newline + 1, outLength);
  answer.error = buffer_.substr(newline + 1 + outLength, errLength);
  buffer_.erase(0, newline + 1 + outLength + errLength);
  return answer;
}

}  // namespace AclAgent
