// FaultyNftChannel: a channel between an nft socket and the kernel that
// passes every byte through, except for the faults a test asks for in the
// `NftFaults` it shares with the test: transactions the kernel refuses as a
// whole, a rule the kernel refuses, and notifications lost to an overrun.
//
//   auto faults = std::make_shared<NftFaults>();
//   table.channelWrapIs(FaultyNftChannel::wrap(faults));
//   faults->refuseTransactions = 3;   // the next three are refused
//
// A transaction refused whole never reaches the kernel; the channel answers
// it as the kernel does, with an error naming the batch's first message, so
// the agent's side of the boundary runs as it would against the kernel's
// own refusal. A rule is refused by the kernel itself: its message goes with
// a type nf_tables does not know, and the kernel refuses the whole batch,
// naming that message (EINVAL).
//
// Threading: the event thread only.
#pragma once

#include <libmnl/libmnl.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>

#include <cerrno>
#include <cstring>
#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "agent/backend/nft/NftSocket.h"

namespace AclAgent {

struct NftFaults {
  // The next `refuseTransactions` transactions are refused whole with
  // `transactionCode`.
  int refuseTransactions = 0;
  int transactionCode = ENOMEM;
  // The kernel refuses every transaction with a message holding these bytes
  // (a rule's tag), naming that message.
  std::string refuseMessageWith;
  // The next notifications queued are lost, and the socket says ENOBUFS.
  bool overrun = false;

  // What the channels saw: transactions sent (refused or not), refused.
  int transactions = 0;
  int refused = 0;
};

class FaultyNftChannel : public NftChannel {
 public:
  static NftChannelWrap wrap(std::shared_ptr<NftFaults> faults) {
    return [faults](std::unique_ptr<NftChannel> real, unsigned group) {
      return std::make_unique<FaultyNftChannel>(std::move(real), faults, group != 0);
    };
  }

  FaultyNftChannel(std::unique_ptr<NftChannel> real, std::shared_ptr<NftFaults> faults,
                   bool notifications)
      : real_(std::move(real)), faults_(std::move(faults)), notifications_(notifications) {}

  ssize_t send(const void* data, std::size_t size) override {
    const auto* first = static_cast<const nlmsghdr*>(data);
    if (first->nlmsg_type != NFNL_MSG_BATCH_BEGIN) return real_->send(data, size);
    ++faults_->transactions;
    if (faults_->refuseTransactions > 0) {
      --faults_->refuseTransactions;
      refuse(*first, faults_->transactionCode);
      return static_cast<ssize_t>(size);
    }
    const nlmsghdr* message = holding(data, size);
    if (!message) return real_->send(data, size);
    ++faults_->refused;
    std::vector<char> batch(static_cast<const char*>(data), static_cast<const char*>(data) + size);
    const auto at = reinterpret_cast<const char*>(message) - static_cast<const char*>(data);
    reinterpret_cast<nlmsghdr*>(batch.data() + at)->nlmsg_type = kUnknownType;
    return real_->send(batch.data(), batch.size());
  }

  ssize_t receive(void* buffer, std::size_t size) override {
    if (!answers_.empty()) {
      const std::vector<char> answer = std::move(answers_.front());
      answers_.pop_front();
      std::memcpy(buffer, answer.data(), std::min(size, answer.size()));
      return static_cast<ssize_t>(answer.size());
    }
    if (notifications_ && faults_->overrun) {
      // Everything queued is lost, as when the socket's buffer overruns.
      std::vector<char> lost(65536);
      bool any = false;
      while (real_->receive(lost.data(), lost.size()) > 0 || errno == ENOBUFS) any = true;
      if (any) {
        faults_->overrun = false;
        errno = ENOBUFS;
        return -1;
      }
      errno = EAGAIN;
      return -1;
    }
    return real_->receive(buffer, size);
  }

  int fd() const override { return real_->fd(); }
  std::uint32_t portId() const override { return real_->portId(); }

 private:
  // The message of the batch holding `refuseMessageWith`, if any.
  const nlmsghdr* holding(const void* data, std::size_t size) const {
    if (faults_->refuseMessageWith.empty()) return nullptr;
    const auto* message = static_cast<const nlmsghdr*>(data);
    int left = static_cast<int>(size);
    for (; mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left)) {
      const std::string_view bytes(reinterpret_cast<const char*>(message), message->nlmsg_len);
      if (bytes.find(faults_->refuseMessageWith) != std::string_view::npos) return message;
    }
    return nullptr;
  }

  // A message type of nf_tables' subsystem that it has no handler for.
  static constexpr std::uint16_t kUnknownType = (NFNL_SUBSYS_NFTABLES << 8) | 0xff;

  // Queues the kernel's answer refusing `message`: an error carrying its
  // header alone, as with NETLINK_CAP_ACK.
  void refuse(const nlmsghdr& message, int code) {
    ++faults_->refused;
    std::vector<char> answer(NLMSG_SPACE(sizeof(nlmsgerr)));
    auto* header = reinterpret_cast<nlmsghdr*>(answer.data());
    header->nlmsg_len = static_cast<std::uint32_t>(answer.size());
    header->nlmsg_type = NLMSG_ERROR;
    header->nlmsg_flags = NLM_F_CAPPED;
    header->nlmsg_seq = message.nlmsg_seq;
    header->nlmsg_pid = real_->portId();
    auto* error = static_cast<nlmsgerr*>(NLMSG_DATA(header));
    error->error = -code;
    error->msg = message;
    error->msg.nlmsg_len = sizeof(nlmsghdr);
    answers_.push_back(std::move(answer));
  }

  std::unique_ptr<NftChannel> real_;
  std::shared_ptr<NftFaults> faults_;
  const bool notifications_;
  std::deque<std::vector<char>> answers_;
};

}  // namespace AclAgent
