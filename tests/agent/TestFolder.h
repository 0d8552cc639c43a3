// TestFolder: a fresh folder under /tmp that one test owns, removed with all
// it holds when the object goes; and argvOf, a command line as main gets it.
//
//   TestFolder folder("config-test");
//   std::ofstream(folder.path() + "/agent.conf") << "apply\n";
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <string>
#include <vector>

namespace AclAgent {

class TestFolder {
 public:
  // REQUIRES: `prefix` is a plain file name.
  explicit TestFolder(const std::string& prefix) {
    std::string pattern = "/tmp/" + prefix + "-XXXXXX";
    if (::mkdtemp(pattern.data())) path_ = pattern;
    EXPECT_FALSE(path_.empty()) << "cannot make a folder " << pattern;
  }
  ~TestFolder() {
    std::error_code ignored;
    if (!path_.empty()) std::filesystem::remove_all(path_, ignored);
  }
  TestFolder(const TestFolder&) = delete;
  TestFolder& operator=(const TestFolder&) = delete;

  const std::string& path() const { return path_; }

 private:
  std::string path_;
};

// The words of `args` as main gets them, ending with a null pointer.
// REQUIRES: `args` outlives the result and is not changed while it is used.
inline std::vector<char*> argvOf(std::vector<std::string>& args) {
  std::vector<char*> argv;
  for (std::string& arg : args) argv.push_back(arg.data());
  argv.push_back(nullptr);
  return argv;
}

}  // namespace AclAgent
