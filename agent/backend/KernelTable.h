// KernelTable: the one thing a backend does differently from another, how
// it reads back and writes the agent's owned chains and jumps in one network
// namespace. `VrfApplier` does everything else (which VRF, when, how often,
// retries, what to report) for any table.
//
//   table.read("red", netnsFd, [](KernelTable::ReadResult read) {
//     if (!read.snapshot->holds(wanted)) table.write("red", netnsFd, *read.snapshot, wanted, ...);
//   }, &error);
//
// A read or write may end at once or later; its `done` runs on the event
// thread either way, never before `read`/`write` has returned. Destroying the
// returned job before that cancels it: `done` is not called.
//
// Threading: the event thread only.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/backend/Backend.h"

namespace AclAgent {

class KernelTable {
 public:
  // What a read found in one namespace.
  class Snapshot {
   public:
    virtual ~Snapshot() = default;
    // How what stands differs from exactly `rules`, as the owned chains and
    // their jumps, for a message; nothing when exactly they stand.
    virtual std::optional<std::string> drift(const ChainRules& rules) const = 0;
    bool holds(const ChainRules& rules) const { return !drift(rules); }
  };

  struct ReadResult {
    std::string error;  // set when the read failed; then no snapshot
    std::unique_ptr<Snapshot> snapshot;
    // Things to tell the operator once per VRF (rules of another family
    // beside ours); each is reported the first time it is seen.
    std::vector<std::string> warnings;
  };

  struct WriteResult {
    std::string error;  // set when the write failed; nothing of it stands
    // When the kernel refused one rule of ours in `chain` (or, without
    // `rule`, the owned chain for `chain`): the write can be made again
    // without it.
    struct Refusal {
      std::string chain;
      std::optional<std::string> rule;
    };
    std::optional<Refusal> refused;
    // Set, with `error`, when someone else changed the table between the
    // read the write was made from and the write, and the table refused it
    // whole for that: not a fault, and made again after a new read.
    bool raced = false;
    // What a write that succeeded left undone on purpose (a chain of the
    // agent's emptied but kept while someone else's rule jumps to it); each
    // is reported the first time it is seen.
    std::vector<std::string> warnings;
  };

  // A read or write under way.
  class Job {
   public:
    virtual ~Job() = default;
  };

  virtual ~KernelTable() = default;

  // The backend's name, as `show applied` shows it: "nft", "iptables".
  virtual const char* name() const = 0;

  // Why the rules of `chain` cannot be given an owned chain; nothing when
  // they can.
  virtual std::optional<std::string> chainFault(std::string_view chain) const = 0;
  // Why the table cannot write the rule `text` with its meaning, naming it;
  // nothing when it can. Such a rule is left out of what is written.
  virtual std::optional<std::string> ruleFault(std::string_view /*text*/) const {
    return std::nullopt;
  }

  // Reads the namespace `netnsFd` (-1: the agent's own) of VRF `vrf` back.
  // Null, with `*error` set, when the read could not start. The VRF names
  // the namespace across calls, for a table that keeps something open in
  // it.
  virtual std::unique_ptr<Job> read(const std::string& vrf, int netnsFd,
                                    std::function<void(ReadResult)> done, std::string* error) = 0;
  // Turns what `from` found into `to` in one transaction. Null, with
  // `*error` set, when the write could not start.
  virtual std::unique_ptr<Job> write(const std::string& vrf, int netnsFd, const Snapshot& from,
                                     const ChainRules& to, std::function<void(WriteResult)> done,
                                     std::string* error) = 0;
  // Called with a VRF whose namespace someone else changed, for a table
  // that hears such changes as they happen; one listener.
  virtual void driftListenerIs(std::function<void(const std::string& vrf)> /*listener*/) {}
  // The namespace of `vrf` is gone: whatever the table keeps open in it is
  // closed, which lets the kernel free it.
  virtual void vrfGone(const std::string& /*vrf*/) {}
  // How many descriptors the table keeps open in each namespace it has read
  // or written, for a caller that shares out the limit on open descriptors.
  virtual unsigned descriptorsPerNamespace() const { return 0; }
  // Removes every owned chain and jump from the namespace `netnsFd`, to the
  // end, without an event loop; the reason when that failed.
  virtual std::optional<std::string> removeAll(int netnsFd) = 0;
};

}  // namespace AclAgent
