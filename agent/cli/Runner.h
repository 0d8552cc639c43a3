// Runner: runs commands against the agent and keeps the exit status, for a
// scenario file, standard input line by line, or a live agent's start.
//
//   Runner runner(agent);
//   runner.runScenario(name, text);          // a file already checked
//   runner.runLines(*loop, isatty(STDIN_FILENO));
//   return runner.finish();                   // 0, 1 or 2 (CommandLine.h)
//
// What a command prints goes to standard output when it ends; an error goes
// to standard error as `FILE:LINE: error: MESSAGE`. Output that cannot be
// written ends the run (`outputFailed()`), and is reported once.
//
// Threading: the event thread only.
#pragma once

#include <unistd.h>

#include <algorithm>
#include <iostream>
#include <string>
#include <string_view>

#include "agent/cli/CommandLine.h"
#include "agent/cli/Output.h"
#include "agent/host/Agent.h"
#include "agent/host/PluginHost.h"
#include "agent/scenario/Scenario.h"
#include "platform/Pell.h"

namespace AclAgent {

class ControlServer;

class Runner {
 public:
  explicit Runner(Agent& agent) : agent_(agent) {}

  // Runs one command of `file`; false when the run must end. The control
  // socket's lines wait meanwhile.
  bool run(const std::string& file, const Command& command);

  void controlIs(ControlServer* control) { control_ = control; }

  // Runs `work` for line `line` of `file`, reporting what it raises; false
  // when the run must end.
  template <class Work>
  bool attempt(const std::string& file, unsigned line, Work&& work) {
    try {
      work();
    } catch (const PluginLoadError& e) {
      report(file, line, e.what());
      status_ = kExitUsage;
      return false;
    } catch (const std::exception& e) {
      report(file, line, commandErrorText(e));
      status_ = std::max(status_, kExitCommandFailed);
    }
    return outputWritten();
  }

  // Runs a scenario that has been checked; false when the run must end.
  bool runScenario(const std::string& file, std::string_view text);

  // Runs standard input line by line as it arrives, until its end, a read
  // that fails or output that cannot be written (`outputFailed()`). A line
  // that does not parse, or whose plugin cannot be loaded, is reported and
  // the session goes on. Returns the error number of a failed read, or 0;
  // the caller reports it.
  int runLines(Pell::TaskSchedulerRoot& loop, bool terminal, const bool* stop = nullptr);

  // A scenario on standard input that could not be read.
  void readFailed(int error);

  // Ends the run: with --apply, a VRF whose rules are not in place fails it,
  // and is named.
  int finish();

  int status() const { return status_; }

  // The output of the run, for lines the program prints itself; they go out
  // at `outputWritten()`.
  std::ostream& out() { return out_; }
  bool outputFailed() const { return outputFailed_; }

  // Whether everything printed so far went out; reports it when not.
  bool outputWritten();

 private:
  void report(const std::string& file, unsigned line, const std::string& message);

  Agent& agent_;
  ControlServer* control_ = nullptr;
  FdOutput output_{STDOUT_FILENO};
  std::ostream out_{&output_};
  int status_ = kExitOk;
  bool outputFailed_ = false;  // reported; nothing more is written
};

}  // namespace AclAgent
