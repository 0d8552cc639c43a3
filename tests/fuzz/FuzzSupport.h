// What the fuzz targets share: how a property that does not hold ends the
// run, the file name inputs are parsed under, and a parsed command written
// back as a scenario line.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>

#include "agent/scenario/Scenario.h"

namespace AclAgentFuzz {

inline const std::string kFile = "fuzz.scn";

// Reports a property that does not hold and aborts, so that the fuzzer (or
// the plain runner) keeps the input that broke it.
[[noreturn]] inline void fail(const std::string& what) {
  std::fprintf(stderr, "fuzz property failed: %s\n", what.c_str());
  std::abort();
}

inline void check(bool holds, const std::string& what) {
  if (!holds) fail(what);
}

// The line a user would write to get the command: names quoted with
// `quoteName`, a link index only when it is not 0, durations in ns. Parsing
// the line again gives an equal command; an `echo` keeps its text as written.
std::string commandText(const AclAgent::CommandArgs& args);

}  // namespace AclAgentFuzz
