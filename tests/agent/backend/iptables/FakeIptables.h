// A folder in which fake-iptables.sh stands in for iptables-save and
// iptables-restore, for the faults the real programs cannot show on demand,
// and an empty folder of namespaces beside them:
//
//   FakeIptables fake;
//   BackendOptions options = fake.options();
//   fake.modeIs("restore", "fail MESSAGE");   // the next restores fail
//   EXPECT_EQ(fake.runs("save"), 1);
//
// The folder goes with the object. See fake-iptables.sh for the modes.
#pragma once

#include <stdlib.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>

#include "agent/backend/Backend.h"

namespace AclAgent {

class FakeIptables {
 public:
  FakeIptables() {
    char folder[] = "/tmp/acl-iptables-XXXXXX";
    if (!::mkdtemp(folder)) throw std::runtime_error("cannot make a folder for the fake");
    dir_ = folder;
    for (const char* what : {"save", "restore"}) {
      const std::string path = dir_ + "/" + what;
      std::ofstream(path) << "#!/bin/sh\nexec bash '" << FAKE_IPTABLES_SCRIPT << "' " << what
                          << " \"$@\"\n";
      ::chmod(path.c_str(), 0755);
    }
    std::filesystem::create_directory(dir_ + "/netns");
    ::setenv("FAKE_IPTABLES_DIR", dir_.c_str(), 1);
  }
  ~FakeIptables() { std::filesystem::remove_all(dir_); }
  FakeIptables(const FakeIptables&) = delete;
  FakeIptables& operator=(const FakeIptables&) = delete;

  const std::string& dir() const { return dir_; }
  // The fake programs, the namespaces under "netns" named as the VRFs, and
  // no periodic resync.
  BackendOptions options() const {
    BackendOptions options;
    options.iptablesSave = dir_ + "/save";
    options.iptablesRestore = dir_ + "/restore";
    options.namespaces = NamespaceMap("%s", dir_ + "/netns");
    options.resyncPeriod = 0;
    return options;
  }
  // How the next runs of `what` ("save" or "restore") behave.
  void modeIs(const std::string& what, const std::string& mode) const {
    std::ofstream(dir_ + "/" + what + "-mode") << mode << "\n";
  }
  std::string file(const std::string& name) const {
    std::ifstream in(dir_ + "/" + name);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
  }
  // The runs of `what` so far.
  int runs(const std::string& what) const {
    std::istringstream log(file("log"));
    int n = 0;
    for (std::string line; std::getline(log, line);) n += line == what;
    return n;
  }

 private:
  std::string dir_;
};

}  // namespace AclAgent
