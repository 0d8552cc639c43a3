// CommandText: a parsed command written back as a scenario line.
//
// The line is what a user would write to get the command: names quoted with
// `quoteName`, a link index only when it is not 0, durations in ns. Parsing
// the line again gives an equal command.
// An `echo` is written as "echo " and its text, which is printed as written.
#pragma once

#include <string>

#include "agent/Scenario.h"

namespace AclAgentFuzz {

std::string commandText(const AclAgent::CommandArgs& args);

}  // namespace AclAgentFuzz
