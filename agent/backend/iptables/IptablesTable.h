// IptablesTable: the kernel table as the iptables programs see it. A read is
// an `iptables-save -t filter` child process, a write one
// `iptables-restore --noflush -w` input with one COMMIT (waiting for the
// xtables lock that the legacy programs take, until the child's timeout,
// whose message then names the lock), each run inside the
// VRF's namespace and heard through the event loop (IptablesText.h says what
// is read and written). Works with both families of the programs.
//
//   VrfApplier applier(loop, std::make_unique<IptablesTable>(loop, options), options, errors);
//
// Programs are looked up on PATH once, and again after one could not run.
// Each child counts as work in flight on the loop while it runs, so `settle`
// waits for it, and is killed past `options.childTimeout` of real time. A
// rule or chain that iptables-restore names in its errors is returned as
// refused.
//
// Threading: the event thread only.
#pragma once

#include <string>
#include <vector>

#include "agent/backend/KernelTable.h"
#include "agent/os/ChildProcess.h"

namespace AclAgent {

class IptablesTable : public KernelTable {
 public:
  IptablesTable(Zov::Ptr<Pell::TaskSchedulerRoot> loop, const BackendOptions& options);

  const char* name() const override { return "iptables"; }
  std::optional<std::string> chainFault(std::string_view chain) const override;
  std::unique_ptr<Job> read(const std::string& vrf, int netnsFd,
                            std::function<void(ReadResult)> done, std::string* error) override;
  std::unique_ptr<Job> write(const std::string& vrf, int netnsFd, const Snapshot& from,
                             const ChainRules& to, std::function<void(WriteResult)> done,
                             std::string* error) override;
  std::optional<std::string> removeAll(int netnsFd) override;

 private:
  // A program the table runs: its name as given, and the file found for it
  // (empty while not found).
  struct Program {
    std::string name;
    std::string path;
  };
  class ChildJob;

  std::unique_ptr<Job> start(Program& program, std::vector<std::string> args, int netnsFd,
                             std::string input, ChildProcess::Done done, std::string* error);
  std::string whyFailed(const Program& program, const ChildResult& result) const;

  Zov::Ptr<Pell::TaskSchedulerRoot> loop_;
  Program save_;
  Program restore_;
  Pell::Nanoseconds childTimeout_;
};

}  // namespace AclAgent
