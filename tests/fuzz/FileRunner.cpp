// Runs a fuzz target over the inputs named on the command line, without the
// fuzzing engine: each file, or each file of a directory (in name order), is
// read and handed to the target once. A property that does not hold aborts
// the run, after the name of the input that broke it has been printed.
//
//   scenario_run_replay tests/fuzz/regressions examples/demo.scn
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace {

namespace fs = std::filesystem;

// The files `arg` names: itself, or the regular files of a directory.
std::vector<fs::path> inputs(const fs::path& arg) {
  if (!fs::is_directory(arg)) return {arg};
  std::vector<fs::path> files;
  for (const fs::directory_entry& entry : fs::directory_iterator(arg)) {
    if (entry.is_regular_file()) files.push_back(entry.path());
  }
  std::sort(files.begin(), files.end());
  return files;
}

}  // namespace

int main(int argc, char** argv) {
  std::size_t ran = 0;
  for (int i = 1; i < argc; ++i) {
    for (const fs::path& file : inputs(argv[i])) {
      std::ifstream in(file, std::ios::binary);
      if (!in) {
        std::cerr << "cannot read " << file << "\n";
        return 2;
      }
      const std::string data(std::istreambuf_iterator<char>(in), {});
      std::cout << "input " << file.string() << std::endl;
      LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(data.data()), data.size());
      ++ran;
    }
  }
  std::cout << ran << " inputs ran\n";
  return ran > 0 ? 0 : 2;
}
