// Cell: where the state of one cell (a line card or supervisor slot) lives in
// the state database.
#pragma once

#include "platform/Zov.h"

namespace Cell {

// The full state path of `path` relative to cell `cell`:
// "cell/<cell>/<path>", e.g. Cell::path("ip/vrf/status/local", 0) is
// "cell/0/ip/vrf/status/local".
Zov::String path(const char* path, unsigned cell);

}  // namespace Cell
