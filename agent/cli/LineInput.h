// LineInput: standard input read line by line through the event loop, so
// that while the agent waits for a line the loop goes on: on the wall clock
// its tasks run, and the kernel backend's children are heard. On a terminal
// the lines are edited (libedit) behind a prompt.
//
//   LineInput input(*loop, isatty(STDIN_FILENO));
//   while (std::optional<std::string> line = input.next()) run(*line);
//
// Input is read only inside `next()`: while a line's command runs, what is
// typed or piped waits.
//
// Threading: the event thread only; one LineInput at a time.
#pragma once

#include <deque>
#include <optional>
#include <string>

#include "platform/Pell.h"

namespace AclAgent {

class LineInput {
 public:
  // `stop`, when given, ends the wait for a line as soon as it is true.
  LineInput(Pell::TaskSchedulerRoot& loop, bool terminal, const bool* stop = nullptr);
  ~LineInput();
  LineInput(const LineInput&) = delete;
  LineInput& operator=(const LineInput&) = delete;

  // The next line, without its end; none at the end of input or once `stop`
  // is true. A last line without an end counts as well.
  std::optional<std::string> next();
  // The error number of a failed read, or 0.
  int error() const { return error_; }

 private:
  void readSome();
  static void onTerminalLine(char* line);

  Pell::TaskSchedulerRoot& loop_;
  bool terminal_;
  const bool* stop_;
  std::string partial_;
  std::deque<std::string> lines_;
  bool ended_ = false;
  int error_ = 0;
};

}  // namespace AclAgent
