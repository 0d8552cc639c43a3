#include "agent/backend/nft/NftSocket.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <libmnl/libmnl.h>
#include <libnftnl/common.h>
#include <linux/netfilter.h>
#include <linux/netfilter/nf_tables.h>
#include <linux/netfilter/nfnetlink.h>
#include <linux/netlink.h>
#include <poll.h>
#include <sched.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace AclAgent {
namespace {

// Room enough for the largest message the agent builds (a rule with its
// comment is well under 1 KiB).
constexpr std::size_t kMessageRoom = 4096;
// How long a dump may wait for the kernel's next answer. The kernel makes
// each part as it is read, so this is only a bound against the unforeseen.
constexpr int kDumpWaitMs = 5000;
// Dumps come in parts of up to this size.
constexpr std::size_t kReceiveBuffer = 65536;

std::string failure(const char* what) {
  return std::string(what) + ": " + std::strerror(errno);
}

// The real channel: a netlink socket of the netfilter family.
class MnlChannel : public NftChannel {
 public:
  explicit MnlChannel(mnl_socket* socket) : socket_(socket) {}
  ~MnlChannel() override { mnl_socket_close(socket_); }
  ssize_t send(const void* data, std::size_t size) override {
    return mnl_socket_sendto(socket_, data, size);
  }
  ssize_t receive(void* buffer, std::size_t size) override {
    return mnl_socket_recvfrom(socket_, buffer, size);
  }
  int fd() const override { return mnl_socket_get_fd(socket_); }
  std::uint32_t portId() const override { return mnl_socket_get_portid(socket_); }

 private:
  mnl_socket* socket_;
};

}  // namespace

NftBatch::NftBatch(std::uint32_t firstSeq, std::optional<std::uint32_t> generation)
    : seq_(firstSeq) {
  nlmsghdr* begin = mnl_nlmsg_put_header(room());
  begin->nlmsg_type = NFNL_MSG_BATCH_BEGIN;
  begin->nlmsg_flags = NLM_F_REQUEST;
  begin->nlmsg_seq = seq_;
  auto* header = static_cast<nfgenmsg*>(mnl_nlmsg_put_extra_header(begin, sizeof(nfgenmsg)));
  header->nfgen_family = AF_UNSPEC;
  header->version = NFNETLINK_V0;
  header->res_id = htons(NFNL_SUBSYS_NFTABLES);
  // The kernel refuses the batch when the ruleset changed since it was read:
  // its handles and decisions would be stale.
  if (generation) mnl_attr_put_u32(begin, NFNL_BATCH_GENID, htonl(*generation));
  advance(begin);
}

char* NftBatch::room() {
  if (buffer_.size() < size_ + kMessageRoom) buffer_.resize(size_ + 2 * kMessageRoom);
  std::memset(buffer_.data() + size_, 0, kMessageRoom);
  return buffer_.data() + size_;
}

void NftBatch::advance(const nlmsghdr* message) {
  size_ += NLMSG_ALIGN(message->nlmsg_len);
}

std::uint32_t NftBatch::add(std::uint16_t type, std::uint16_t flags,
                            const std::function<void(nlmsghdr*)>& build) {
  nlmsghdr* message = nftnl_nlmsg_build_hdr(room(), type, NFPROTO_IPV4, flags, ++seq_);
  build(message);
  advance(message);
  ++messages_;
  return seq_;
}

void NftBatch::end() {
  advance(nftnl_batch_end(room(), ++seq_));
}

std::unique_ptr<NftSocket> NftSocket::open(int netnsFd, std::string* error, unsigned group,
                                           const NftChannelWrap& wrap) {
  int home = -1;
  if (netnsFd >= 0) {
    home = ::open("/proc/self/ns/net", O_RDONLY | O_CLOEXEC);
    if (home < 0) {
      *error = failure("cannot open the agent's own network namespace");
      return nullptr;
    }
    if (::setns(netnsFd, CLONE_NEWNET) != 0) {
      *error = failure("cannot enter the network namespace");
      ::close(home);
      return nullptr;
    }
  }
  mnl_socket* socket = mnl_socket_open2(NETLINK_NETFILTER, SOCK_CLOEXEC | SOCK_NONBLOCK);
  const int openError = errno;
  if (home >= 0) {
    // Back home before anything else can run on this thread.
    if (::setns(home, CLONE_NEWNET) != 0) std::abort();
    ::close(home);
  }
  errno = openError;
  if (!socket) {
    *error = failure("cannot open a netfilter netlink socket");
    return nullptr;
  }
  if (mnl_socket_bind(socket, group ? 1u << (group - 1) : 0u, MNL_SOCKET_AUTOPID) < 0) {
    *error = failure("cannot bind a netfilter netlink socket");
    mnl_socket_close(socket);
    return nullptr;
  }
  // Refusals then carry the refused message's header only.
  int on = 1;
  mnl_socket_setsockopt(socket, NETLINK_CAP_ACK, &on, sizeof on);
  mnl_socket_setsockopt(socket, NETLINK_EXT_ACK, &on, sizeof on);
  std::unique_ptr<NftChannel> channel = std::make_unique<MnlChannel>(socket);
  if (wrap) channel = wrap(std::move(channel), group);
  return std::make_unique<NftSocket>(std::move(channel));
}

NftSocket::NftSocket(std::unique_ptr<NftChannel> channel)
    : channel_(std::move(channel)), seq_(static_cast<std::uint32_t>(std::time(nullptr))) {}

NftSocket::~NftSocket() = default;

bool NftSocket::dump(const nlmsghdr* request, const std::function<void(const nlmsghdr*)>& each,
                     std::string* error, int* code) {
  int failed = 0;
  const auto fail = [&](int errorNumber, std::string message) {
    failed = errorNumber;
    if (code) *code = errorNumber;
    *error = std::move(message);
  };
  if (code) *code = 0;
  if (channel_->send(request, request->nlmsg_len) < 0) {
    fail(errno, failure("cannot ask nf_tables"));
    return false;
  }
  std::vector<char> buffer(kReceiveBuffer);
  // A change made while the kernel listed flags the answer: read to its end
  // all the same, so that nothing of it is left for the next request.
  bool interrupted = false;
  for (;;) {
    const ssize_t n = channel_->receive(buffer.data(), buffer.size());
    if (n < 0 && errno == EAGAIN) {
      pollfd ready{channel_->fd(), POLLIN, 0};
      if (::poll(&ready, 1, kDumpWaitMs) <= 0) {
        fail(ETIMEDOUT,
             "nf_tables did not answer within " + std::to_string(kDumpWaitMs / 1000) + " s");
        return false;
      }
      continue;
    }
    if (n < 0) {
      fail(errno, failure("cannot read nf_tables' answer"));
      return false;
    }
    int left = static_cast<int>(n);
    for (auto* message = reinterpret_cast<const nlmsghdr*>(buffer.data());
         mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left)) {
      // What is left of an answer to an earlier request that was given up.
      if (message->nlmsg_seq != request->nlmsg_seq) continue;
      interrupted |= (message->nlmsg_flags & NLM_F_DUMP_INTR) != 0;
      if (message->nlmsg_type == NLMSG_DONE || message->nlmsg_type == NLMSG_ERROR) {
        // Both carry the status first: 0, or a negative error number.
        int status = 0;
        if (mnl_nlmsg_get_payload_len(message) >= sizeof status) {
          std::memcpy(&status, mnl_nlmsg_get_payload(message), sizeof status);
        }
        if (status < 0) {
          errno = -status;
          fail(-status, failure("nf_tables refused to answer"));
        } else if (interrupted) {
          fail(EINTR, "the ruleset changed while nf_tables listed it");
        }
        return failed == 0;
      }
      if (message->nlmsg_type >= NLMSG_MIN_TYPE) each(message);
    }
  }
}

int NftSocket::fd() const {
  return channel_->fd();
}

std::uint32_t NftSocket::portId() const {
  return channel_->portId();
}

bool NftSocket::drain(const std::function<void(const nlmsghdr*)>& each) {
  std::vector<char> buffer(kReceiveBuffer);
  bool whole = true;
  for (;;) {
    const ssize_t n = channel_->receive(buffer.data(), buffer.size());
    if (n < 0) {
      if (errno == ENOBUFS) {
        whole = false;
        continue;
      }
      return whole;
    }
    const auto* message = reinterpret_cast<const nlmsghdr*>(buffer.data());
    int left = static_cast<int>(n);
    for (; mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left)) each(message);
  }
}

NftSocket::Outcome NftSocket::commit(NftBatch& batch) {
  Outcome outcome;
  seq_ = batch.lastSeq();
  if (channel_->send(batch.data(), batch.size()) < 0) {
    outcome.code = errno;
    outcome.error = failure("cannot send the transaction to nf_tables");
    return outcome;
  }
  // The kernel runs the whole batch inside the send, so every refusal it
  // has to tell is queued by now; nothing queued means it was applied.
  std::vector<char> buffer(kReceiveBuffer);
  for (;;) {
    const ssize_t n = channel_->receive(buffer.data(), buffer.size());
    if (n < 0 && errno == EAGAIN) return outcome;
    if (n < 0) {
      // Answers lost (ENOBUFS): whether it was applied is not known.
      outcome.code = errno;
      outcome.error = failure("cannot read nf_tables' answer to the transaction");
      outcome.refusedSeq.reset();
      return outcome;
    }
    const auto* message = reinterpret_cast<const nlmsghdr*>(buffer.data());
    int left = static_cast<int>(n);
    for (; mnl_nlmsg_ok(message, left); message = mnl_nlmsg_next(message, &left)) {
      if (message->nlmsg_type != NLMSG_ERROR) continue;
      const auto* answer = static_cast<const nlmsgerr*>(mnl_nlmsg_get_payload(message));
      if (answer->error == 0 || !outcome.error.empty()) continue;
      outcome.code = -answer->error;
      outcome.error = std::strerror(-answer->error);
      outcome.refusedSeq = message->nlmsg_seq;
    }
  }
}

}  // namespace AclAgent
