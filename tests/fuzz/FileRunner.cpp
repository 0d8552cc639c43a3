// Runs a fuzz target over the files named on the command line, without the
// fuzzing engine: each is read and handed to the target once. A property that
// does not hold aborts the run, after the name of the input that broke it has
// been printed.
//
//   scenario_run_replay tests/fuzz/regressions/* examples/demo.scn
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

int main(int argc, char** argv) {
  for (int i = 1; i < argc; ++i) {
    std::ifstream in(argv[i], std::ios::binary);
    if (!in || !std::filesystem::is_regular_file(argv[i])) {
      std::cerr << "cannot read " << argv[i] << " (expected a file)\n";
      return 2;
    }
    const std::string data(std::istreambuf_iterator<char>(in), {});
    std::cout << "input " << argv[i] << std::endl;
    LLVMFuzzerTestOneInput(reinterpret_cast<const std::uint8_t*>(data.data()), data.size());
  }
  std::cout << argc - 1 << " inputs ran\n";
  return argc > 1 ? 0 : 2;
}
