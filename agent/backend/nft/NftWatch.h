// NftWatch: hears every change of the nf_tables ruleset in one network
// namespace, and says when someone else changed what the agent keeps in
// table `filter` of family ip, so that its chains and jumps there are read
// back and repaired at once rather than at the next resync.
//
//   NftWatch watch(loop, netnsFd, writer.portId(), isOurs, [] { applier.vrfResync("red"); },
//                  &error);
//
// A socket subscribed to the nf_tables notification group, opened inside the
// namespace and watched by the loop. Only changes to the table itself, to
// the chains `watched` names (the agent's own, and those holding the agent's
// jump to one) and to rules that jump to one of the agent's chains count:
// the rest of the table, and sets and objects, which the agent's rules never
// use, are someone else's business. The notifications of one
// transaction end with the new generation, and every one of them names the
// netlink port that sent the transaction: those of the agent's own writing
// socket in the namespace are ignored, so its writes do not wake it.
// Notifications lost (the socket overran) count as a change, since what they
// said is not known. Many changes read at once make one call.
//
// Threading: the event thread only.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "agent/backend/nft/NftSocket.h"
#include "platform/Pell.h"

namespace AclAgent {

class NftWatch {
 public:
  // Whether a change to `chain` of table filter matters to the agent.
  using Watched = std::function<bool(std::string_view chain)>;

  // Null, with `*error` set, when the socket cannot be opened. `writer` is
  // the port of the socket through which the agent writes the namespace.
  // `wrap`, when given, chooses the socket's channel (NftSocket.h).
  static std::unique_ptr<NftWatch> open(Pell::TaskSchedulerRoot& loop, int netnsFd,
                                        std::uint32_t writer, Watched watched,
                                        std::function<void()> changed, std::string* error,
                                        const NftChannelWrap& wrap = {});
  NftWatch(const NftWatch&) = delete;
  NftWatch& operator=(const NftWatch&) = delete;

 private:
  NftWatch(Pell::TaskSchedulerRoot& loop, std::unique_ptr<NftSocket> socket, std::uint32_t writer,
           Watched watched, std::function<void()> changed);
  void readable();
  bool matters(const nlmsghdr* message) const;

  std::unique_ptr<NftSocket> socket_;
  std::uint32_t writer_;
  Watched watched_;
  std::function<void()> changed_;
  // A change to table filter heard in the transaction under way.
  bool touched_ = false;
  Pell::FdWatch watch_;
};

}  // namespace AclAgent
