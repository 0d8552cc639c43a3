#include "agent/cli/Runner.h"

#include <cstring>
#include <optional>
#include <vector>

#include "agent/base/Text.h"
#include "agent/cli/LineInput.h"
#include "agent/control/ControlServer.h"

namespace AclAgent {

bool Runner::run(const std::string& file, const Command& command) {
  if (control_) control_->holdIs(true);
  const bool goOn = attempt(file, command.line, [&] { agent_.run(command, out_); });
  if (control_) control_->holdIs(false);
  return goOn;
}

bool Runner::runScenario(const std::string& file, std::string_view text) {
  return parseEachLine(text, file,
                       [&](ParsedLine& line) { return !line.command || run(file, *line.command); });
}

int Runner::runLines(Pell::TaskSchedulerRoot& loop, bool terminal, const bool* stop) {
  LineInput input(loop, terminal, stop);
  unsigned lineNumber = 0;
  while (std::optional<std::string> line = input.next()) {
    std::string_view text = *line;
    if (++lineNumber == 1) text = withoutByteOrderMark(text);
    ParsedLine parsed = parseLine(text, "-", lineNumber);
    if (parsed.error) std::cerr << parsed.error->text() << "\n";
    if (parsed.command) run("-", *parsed.command);
    if (outputFailed_) return 0;
  }
  return input.error();
}

void Runner::readFailed(int error) {
  std::cerr << "acl-agent: cannot read scenario \"-\": " << std::strerror(error) << "\n";
  status_ = std::max(status_, kExitUsage);
}

int Runner::finish() {
  const std::vector<VrfStatus> missing = agent_.notApplied();
  for (const auto& vrf : missing) {
    std::cerr << "acl-agent: apply vrf " << quoteName(vrf.vrf) << ": not in place at the end"
              << (vrf.error.empty() ? std::string() : ": " + vrf.error) << "\n";
  }
  if (!missing.empty()) status_ = std::max(status_, kExitCommandFailed);
  return status_;
}

bool Runner::outputWritten() {
  if (outputFailed_) return false;
  if (out_.flush() && !output_.error()) return true;
  outputFailed_ = true;
  status_ = std::max(status_, kExitCommandFailed);
  std::cerr << "acl-agent: cannot write to standard output: " << std::strerror(output_.error())
            << "\n";
  return false;
}

void Runner::report(const std::string& file, unsigned line, const std::string& message) {
  out_.flush();
  std::cerr << file << ":" << line << ": error: " << message << "\n";
}

}  // namespace AclAgent
