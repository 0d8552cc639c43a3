// NftTable: the kernel table programmed by the agent itself, over nf_tables
// netlink (libnftnl on libmnl), with no child process: the same table
// (`filter` of family ip), owned chains, jumps, rule order and tags as
// IptablesTable, so that iptables-save prints the same lines whichever of
// the two wrote them and each recognises what the other wrote
// (NftRuleset.h, NftRule.h).
//
//   VrfApplier applier(loop, std::make_unique<NftTable>(loop), options, errors);
//
// One socket per VRF, opened inside its namespace on first use and kept: a
// namespace deleted and made again under the same name gets a new socket
// (the namespace's inode differs), and `vrfGone` closes the VRF's socket,
// which would otherwise keep a deleted namespace alive. Beside it, an
// `NftWatch` hears the namespace's ruleset change: a change by someone else
// to the agent's chains, or to a chain that holds a jump to one, calls the
// drift listener with the VRF, which reads it back (and repairs it) at once;
// the agent's own writes do not. A read or a write is done at once, inside
// `read`/`write` (tens of microseconds); its `done` runs from the loop in a
// later turn, through a descriptor the loop watches, and counts as work in
// flight until then, so `settle` and `drain` wait for it. A turn runs only
// the `done`s posted before it began, so that a converge of many VRFs, whose
// every `done` starts the next job, takes many short turns rather than one
// long one, and the loop hears links and clients in between. A write that
// someone else's change beat to the kernel is refused whole and said to be
// `raced`.
// Each distinct rule text is parsed once; one outside the subset that
// NftRule.h expresses is refused by `ruleFault` and never written.
//
// Threading: the event thread only.
#pragma once

#include <sys/types.h>

#include <deque>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <variant>

#include "agent/backend/KernelTable.h"
#include "agent/backend/nft/NftRule.h"
#include "agent/backend/nft/NftSocket.h"
#include "agent/backend/nft/NftWatch.h"
#include "platform/Pell.h"

namespace AclAgent {

class NftTable : public KernelTable {
 public:
  explicit NftTable(Zov::Ptr<Pell::TaskSchedulerRoot> loop);
  // REQUIRES: no job of this table is alive.
  ~NftTable() override;
  NftTable(const NftTable&) = delete;
  NftTable& operator=(const NftTable&) = delete;

  // Why nf_tables cannot be used from the agent's own namespace; nothing
  // when it can.
  static std::optional<std::string> unavailable();

  const char* name() const override { return "nft"; }
  std::optional<std::string> chainFault(std::string_view chain) const override;
  std::optional<std::string> ruleFault(std::string_view text) const override;
  std::unique_ptr<Job> read(const std::string& vrf, int netnsFd,
                            std::function<void(ReadResult)> done, std::string* error) override;
  std::unique_ptr<Job> write(const std::string& vrf, int netnsFd, const Snapshot& from,
                             const ChainRules& to, std::function<void(WriteResult)> done,
                             std::string* error) override;
  std::optional<std::string> removeAll(int netnsFd) override;
  void vrfGone(const std::string& vrf) override;
  // The socket that writes and the one that hears notifications.
  unsigned descriptorsPerNamespace() const override { return 2; }
  void driftListenerIs(std::function<void(const std::string& vrf)> listener) override {
    driftListener_ = std::move(listener);
  }

  // How many sockets are open: one per VRF whose namespace was read or
  // written and not gone since.
  std::size_t sockets() const { return sockets_.size(); }
  // How many read-backs and transactions the table has made, all VRFs
  // together: the work that someone else's changes cost.
  std::uint64_t reads() const { return reads_; }
  std::uint64_t transactions() const { return transactions_; }
  // Sockets opened from now on use the channel `wrap` chooses: the seam
  // through which tests show the kernel's faults.
  void channelWrapIs(NftChannelWrap wrap) { wrap_ = std::move(wrap); }

 private:
  class PostedJob;
  struct VrfSocket {
    dev_t device = 0;
    ino_t inode = 0;
    // The chains whose rules stand in an owned chain, each holding the jump
    // to it, as far as the last read and write tell: with the owned chains,
    // what the watch hears changes of.
    std::set<std::string, std::less<>> jumpingChains;
    std::unique_ptr<NftSocket> socket;
    std::unique_ptr<NftWatch> watch;
  };

  NftSocket* socketFor(const std::string& vrf, int netnsFd, std::string* error);
  const NftRule* parsed(const std::string& text) const;
  // `finish` runs from the loop, after the caller returned.
  std::unique_ptr<Job> post(std::function<void()> finish);
  void wake();
  void runPosted();
  void cancel(PostedJob* job);

  Zov::Ptr<Pell::TaskSchedulerRoot> loop_;
  std::function<void(const std::string& vrf)> driftListener_;
  NftChannelWrap wrap_;
  std::uint64_t reads_ = 0;
  std::uint64_t transactions_ = 0;
  std::map<std::string, VrfSocket> sockets_;
  mutable std::unordered_map<std::string, std::variant<NftRule, std::string>> parsed_;
  int wakeFd_;
  Pell::FdWatch wake_;
  std::deque<PostedJob*> posted_;
  // Numbers the jobs posted, so that a turn tells those posted during it.
  std::uint64_t postedCount_ = 0;
};

}  // namespace AclAgent
