#include "agent/cli/LineInput.h"

#include <editline/readline.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

namespace AclAgent {

namespace {
// The line editor calls back a plain function: this is whom it serves.
LineInput* terminalInput = nullptr;
}  // namespace

LineInput::LineInput(Pell::TaskSchedulerRoot& loop, bool terminal, const bool* stop)
    : loop_(loop), terminal_(terminal), stop_(stop) {
  if (terminal_) terminalInput = this;
}

LineInput::~LineInput() {
  if (terminal_) terminalInput = nullptr;
}

void LineInput::onTerminalLine(char* line) {
  LineInput* input = terminalInput;
  if (!input) return;
  if (!line) {
    input->ended_ = true;
    return;
  }
  if (*line) add_history(line);
  input->lines_.emplace_back(line);
  std::free(line);
}

void LineInput::readSome() {
  if (terminal_) {
    rl_callback_read_char();
    return;
  }
  char buffer[65536];
  const ssize_t n = read(STDIN_FILENO, buffer, sizeof buffer);
  if (n < 0 && errno == EINTR) return;
  if (n <= 0) {
    if (n < 0) error_ = errno;
    if (!partial_.empty()) lines_.push_back(std::move(partial_));
    partial_.clear();
    ended_ = true;
    return;
  }
  partial_.append(buffer, static_cast<std::size_t>(n));
  std::size_t start = 0;
  for (std::size_t end; (end = partial_.find('\n', start)) != std::string::npos; start = end + 1) {
    lines_.push_back(partial_.substr(start, end - start));
  }
  partial_.erase(0, start);
}

std::optional<std::string> LineInput::next() {
  if (lines_.empty() && !ended_) {
    if (terminal_) rl_callback_handler_install("acl-agent> ", &LineInput::onTerminalLine);
    Pell::FdWatch watch(loop_, STDIN_FILENO, [this] { readSome(); });
    try {
      loop_.runUntil([this] { return !lines_.empty() || ended_ || (stop_ && *stop_); });
    } catch (...) {
      if (terminal_) rl_callback_handler_remove();
      throw;
    }
    if (terminal_) rl_callback_handler_remove();
  }
  if (lines_.empty() || (stop_ && *stop_)) return std::nullopt;
  std::string line = std::move(lines_.front());
  lines_.pop_front();
  return line;
}

}  // namespace AclAgent
