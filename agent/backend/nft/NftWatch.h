// NftWatch: hears every change of the nf_tables ruleset in one network
// namespace, and says when someone else changed table `filter` of family ip,
// so that the agent's chains and jumps there are read back and repaired at
// once rather than at the next resync.
//
//   NftWatch watch(loop, netnsFd, [] { applier.vrfResync("red"); }, &error);
//
// A socket subscribed to the nf_tables notification group, opened inside the
// namespace and watched by the loop. The notifications of one transaction
// end with the new generation, which names the process that made it: those
// of the agent's own process are ignored, so its writes do not wake it.
// Notifications lost (the socket overran) count as a change, since what
// they said is not known. Many changes read at once make one call.
//
// Threading: the event thread only.
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "agent/backend/nft/NftSocket.h"
#include "platform/Pell.h"

namespace AclAgent {

class NftWatch {
 public:
  // Null, with `*error` set, when the socket cannot be opened.
  // `wrap`, when given, chooses the socket's channel (NftSocket.h).
  static std::unique_ptr<NftWatch> open(Pell::TaskSchedulerRoot& loop, int netnsFd,
                                        std::function<void()> changed, std::string* error,
                                        const NftChannelWrap& wrap = {});
  NftWatch(const NftWatch&) = delete;
  NftWatch& operator=(const NftWatch&) = delete;

 private:
  NftWatch(Pell::TaskSchedulerRoot& loop, std::unique_ptr<NftSocket> socket,
           std::function<void()> changed);
  void readable();

  std::unique_ptr<NftSocket> socket_;
  std::function<void()> changed_;
  // A change to table filter heard in the transaction under way.
  bool touched_ = false;
  Pell::FdWatch watch_;
};

}  // namespace AclAgent
