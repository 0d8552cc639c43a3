// NftSocket: one nf_tables netlink socket inside one network namespace,
// opened there once and kept, for dumps and for transactions.
//
//   std::unique_ptr<NftSocket> socket = NftSocket::open(netnsFd, &error);
//   socket->dump(request, [](const nlmsghdr* message) { ... }, &error);
//   NftBatch batch(socket->nextSeq(), generation);
//   std::uint32_t seq = batch.add(NFT_MSG_NEWRULE, NLM_F_CREATE | NLM_F_APPEND, ...);
//   NftSocket::Outcome outcome = socket->commit(batch);   // one transaction
//
// The socket is opened inside the namespace (the event thread enters it for
// the call and comes back at once) and belongs to it for as long as it is
// open: it also keeps the namespace alive, so its owner closes it when the
// namespace is gone. A transaction is one batch the kernel applies whole or
// not at all; the kernel answers it while `commit` sends it, so `commit`
// never waits. A batch carries the generation its read was made at, and the
// kernel refuses it (ERESTART) when the ruleset changed since.
//
// The bytes go to the kernel and come back through an `NftChannel`: the
// real one is the netlink socket; a test puts its own in between to show
// faults the kernel will not show on demand (a refused transaction, lost
// notifications), with everything else done by the kernel as usual.
//
// Threading: the event thread only.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

struct nlmsghdr;

namespace AclAgent {

// The messages of one transaction, between its begin and end.
class NftBatch {
 public:
  NftBatch(std::uint32_t firstSeq, std::optional<std::uint32_t> generation);

  // A new message of `type` (NFT_MSG_...) for family ip, whose payload
  // `build` fills; returns its sequence number.
  std::uint32_t add(std::uint16_t type, std::uint16_t flags,
                    const std::function<void(nlmsghdr*)>& build);
  // Closes the batch; nothing can be added afterwards.
  void end();
  const char* data() const { return buffer_.data(); }
  std::size_t size() const { return size_; }
  std::uint32_t lastSeq() const { return seq_; }
  bool empty() const { return messages_ == 0; }

 private:
  char* room();
  void advance(const nlmsghdr* message);

  std::vector<char> buffer_;
  std::size_t size_ = 0;
  std::uint32_t seq_;
  std::size_t messages_ = 0;
};

// Where a socket's bytes go to the kernel and come back from it.
class NftChannel {
 public:
  virtual ~NftChannel() = default;
  // As sendto and recvfrom on a non-blocking netlink socket: -1 with errno
  // set when they fail (EAGAIN: nothing queued; ENOBUFS: messages were lost).
  virtual ssize_t send(const void* data, std::size_t size) = 0;
  virtual ssize_t receive(void* buffer, std::size_t size) = 0;
  // The descriptor the loop watches for answers and notifications.
  virtual int fd() const = 0;
  virtual std::uint32_t portId() const = 0;
};

// Given the real channel of a new socket and the group it hears (0: none),
// the channel that socket uses: how tests put faults at the boundary.
using NftChannelWrap =
    std::function<std::unique_ptr<NftChannel>(std::unique_ptr<NftChannel> real, unsigned group)>;

class NftSocket {
 public:
  // What the kernel said of a transaction: `error` when it was not applied,
  // with the sequence number of the message it refused when it named one.
  struct Outcome {
    std::string error;
    std::optional<std::uint32_t> refusedSeq;
    int code = 0;  // the errno the kernel gave
  };

  // A socket in the namespace `netnsFd` (-1: the agent's own); null with
  // `*error` set when it cannot be opened. With `group` (NFNLGRP_...), it
  // hears that group's notifications, and is used for nothing else.
  // `wrap`, when given, chooses the channel.
  static std::unique_ptr<NftSocket> open(int netnsFd, std::string* error, unsigned group = 0,
                                         const NftChannelWrap& wrap = {});
  explicit NftSocket(std::unique_ptr<NftChannel> channel);
  ~NftSocket();
  NftSocket(const NftSocket&) = delete;
  NftSocket& operator=(const NftSocket&) = delete;

  std::uint32_t nextSeq() { return ++seq_; }
  // Sends `request` (one message; NLM_F_DUMP or a plain get with NLM_F_ACK)
  // and calls `each` with every answer, until the end. False with `*error`
  // set when the kernel answered with an error or the socket failed; `*code`
  // then holds the errno: EINTR when the ruleset changed while it was
  // listed (the answer, read to its end, may have missed some of it).
  bool dump(const nlmsghdr* request, const std::function<void(const nlmsghdr*)>& each,
            std::string* error, int* code = nullptr);
  // Sends `batch` as one transaction and collects the kernel's answer.
  // REQUIRES: `batch.end()` was called.
  Outcome commit(NftBatch& batch);
  // Reads every message queued, without waiting, calling `each` with each.
  // False when some were lost (the socket overran: ENOBUFS).
  bool drain(const std::function<void(const nlmsghdr*)>& each);
  int fd() const;
  // The socket's netlink port: what the kernel's notifications of the
  // transactions it sends carry as their sender.
  std::uint32_t portId() const;

 private:
  std::unique_ptr<NftChannel> channel_;
  std::uint32_t seq_;
};

}  // namespace AclAgent
