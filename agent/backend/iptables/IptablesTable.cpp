#include "agent/backend/iptables/IptablesTable.h"

#include <utility>

#include "agent/backend/iptables/IptablesText.h"

namespace AclAgent {
namespace {

// What iptables-save read back.
class SavedSnapshot : public KernelTable::Snapshot {
 public:
  explicit SavedSnapshot(SavedTable saved) : saved_(std::move(saved)) {}
  std::optional<std::string> drift(const ChainRules& rules) const override {
    return AclAgent::drift(saved_, rules);
  }
  const SavedTable& saved() const { return saved_; }

 private:
  SavedTable saved_;
};

}  // namespace

class IptablesTable::ChildJob : public KernelTable::Job {
 public:
  std::unique_ptr<ChildProcess> child;
};

IptablesTable::IptablesTable(Zov::Ptr<Pell::TaskSchedulerRoot> loop, const BackendOptions& options)
    : loop_(std::move(loop)),
      save_{options.iptablesSave, {}},
      restore_{options.iptablesRestore, {}},
      childTimeout_(options.childTimeout) {
  for (Program* program : {&save_, &restore_}) {
    // One missing now is reported when a VRF needs it.
    std::string missing;
    program->path = ChildProcess::findProgram(program->name, &missing).value_or("");
  }
}

std::optional<std::string> IptablesTable::chainFault(std::string_view chain) const {
  return AclAgent::chainFault(chain);
}

std::unique_ptr<KernelTable::Job> IptablesTable::start(Program& program,
                                                       std::vector<std::string> args, int netnsFd,
                                                       std::string input, ChildProcess::Done done,
                                                       std::string* error) {
  if (program.path.empty()) {
    std::optional<std::string> found = ChildProcess::findProgram(program.name, error);
    if (!found) return nullptr;
    program.path = std::move(*found);
  }
  const ChildCommand command{program.name, std::move(args), netnsFd, std::move(input),
                             program.path};
  auto job = std::make_unique<ChildJob>();
  job->child = ChildProcess::start(
      loop_, command, childTimeout_,
      [&program, done = std::move(done)](ChildResult result) {
        // Moved or removed since it was found: look it up again next time.
        if (!result.failure.empty()) program.path.clear();
        done(std::move(result));
      },
      error);
  if (!job->child) return nullptr;
  return job;
}

std::string IptablesTable::whyFailed(const Program& program, const ChildResult& result) const {
  return result.whyFailed(program.name, childTimeout_, errorSummary(result.err));
}

std::unique_ptr<KernelTable::Job> IptablesTable::read(const std::string& /*vrf*/, int netnsFd,
                                                      std::function<void(ReadResult)> done,
                                                      std::string* error) {
  return start(
      save_, {"-t", "filter"}, netnsFd, {},
      [this, done = std::move(done)](ChildResult result) {
        ReadResult read;
        if (!result.ok()) {
          read.error = whyFailed(save_, result);
        } else if (auto unreadable = unreadableTable(result.out)) {
          // Read as empty, it would have the agent add its jump at every
          // resync.
          read.error = save_.name + " cannot show the filter table: " + *unreadable;
        } else {
          read.snapshot = std::make_unique<SavedSnapshot>(parseSave(result.out));
          if (otherFamilyPresent(result.err)) {
            read.warnings.push_back(
                "iptables-legacy tables hold rules in this namespace too: the kernel runs them "
                "besides the agent's chains");
          }
        }
        done(std::move(read));
      },
      error);
}

std::unique_ptr<KernelTable::Job> IptablesTable::write(const std::string& /*vrf*/, int netnsFd,
                                                       const Snapshot& from, const ChainRules& to,
                                                       std::function<void(WriteResult)> done,
                                                       std::string* error) {
  auto input = std::make_shared<RestoreInput>(
      restoreInput(static_cast<const SavedSnapshot&>(from).saved(), to));
  std::string text = input->text;
  return start(
      restore_, {"--noflush", "-w"}, netnsFd, std::move(text),
      [this, input, done = std::move(done)](ChildResult result) {
        WriteResult written;
        if (!result.ok()) {
          written.error = whyFailed(restore_, result);
          if (result.failure.empty() && !result.timedOut) {
            if (auto blame = blamedLine(*input, result.err)) {
              written.error = errorSummary(result.err);
              written.refused = WriteResult::Refusal{blame->chain, std::nullopt};
              if (blame->kind == RestoreLine::Kind::kRule) written.refused->rule = blame->rule;
            }
          }
        } else {
          written.warnings = input->notes;
        }
        done(std::move(written));
      },
      error);
}

std::optional<std::string> IptablesTable::removeAll(int netnsFd) {
  const ChildResult read =
      ChildProcess::run({save_.name, {"-t", "filter"}, netnsFd, {}}, childTimeout_);
  if (!read.ok()) return whyFailed(save_, read);
  if (auto unreadable = unreadableTable(read.out)) {
    return save_.name + " cannot show the filter table: " + *unreadable;
  }
  const SavedTable saved = parseSave(read.out);
  if (inPlace(saved, {})) return std::nullopt;
  const RestoreInput input = restoreInput(saved, {});
  const ChildResult written =
      ChildProcess::run({restore_.name, {"--noflush", "-w"}, netnsFd, input.text}, childTimeout_);
  if (!written.ok()) return whyFailed(restore_, written);
  // What stands of the agent's is empty, but not all of it could go.
  if (!input.notes.empty()) return input.notes.front();
  return std::nullopt;
}

}  // namespace AclAgent
