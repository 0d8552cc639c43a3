#include "platform/Cell.h"

namespace Cell {

Zov::String path(const char* path, unsigned cell) {
  return Zov::String("cell/" + std::to_string(cell) + "/" + path);
}

}  // namespace Cell
