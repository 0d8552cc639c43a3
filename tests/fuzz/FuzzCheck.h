// What the fuzz targets share: how a property that does not hold ends the
// run, and the file name inputs are parsed under.
#pragma once

#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

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

}  // namespace AclAgentFuzz
