#include "agent/backend/nft/NftTable.h"

#include <fcntl.h>
#include <sys/eventfd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>
#include <utility>

#include "agent/backend/iptables/IptablesText.h"
#include "agent/backend/nft/NftRuleset.h"
#include "agent/base/Text.h"

namespace AclAgent {
namespace {

// Parsed texts kept at most; past it the cache starts again, since texts
// no longer wanted are not tracked.
constexpr std::size_t kParsedTexts = 4096;

class RulesetSnapshot : public KernelTable::Snapshot {
 public:
  explicit RulesetSnapshot(NftRuleset ruleset) : ruleset_(std::move(ruleset)) {}
  std::optional<std::string> drift(const ChainRules& rules) const override {
    return AclAgent::drift(ruleset_.saved, rules);
  }
  const NftRuleset& ruleset() const { return ruleset_; }

 private:
  NftRuleset ruleset_;
};

// The namespace's identity: `netnsFd`'s, or the agent's own for -1.
bool identify(int netnsFd, dev_t* device, ino_t* inode, std::string* error) {
  struct stat st {};
  const int result = netnsFd >= 0 ? ::fstat(netnsFd, &st) : ::stat("/proc/self/ns/net", &st);
  if (result != 0) {
    *error = std::string("cannot identify the network namespace: ") + std::strerror(errno);
    return false;
  }
  *device = st.st_dev;
  *inode = st.st_ino;
  return true;
}

}  // namespace

class NftTable::PostedJob : public KernelTable::Job {
 public:
  PostedJob(NftTable& table, std::uint64_t number, std::function<void()> finish)
      : table_(table), number(number), finish(std::move(finish)) {}
  ~PostedJob() override { table_.cancel(this); }

  NftTable& table_;
  const std::uint64_t number;
  std::function<void()> finish;
};

NftTable::NftTable(Zov::Ptr<Pell::TaskSchedulerRoot> loop)
    : loop_(std::move(loop)), wakeFd_(::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
  if (wakeFd_ < 0) {
    throw std::runtime_error(std::string("cannot make an event descriptor: ") +
                             std::strerror(errno));
  }
  wake_ = Pell::FdWatch(*loop_, wakeFd_, [this] { runPosted(); });
}

NftTable::~NftTable() {
  wake_.reset();
  ::close(wakeFd_);
}

std::optional<std::string> NftTable::unavailable() {
  std::string error;
  std::unique_ptr<NftSocket> socket = NftSocket::open(-1, &error);
  if (!socket) return error;
  std::uint32_t generation = 0;
  return readGeneration(*socket, &generation);
}

std::optional<std::string> NftTable::chainFault(std::string_view chain) const {
  return AclAgent::chainFault(chain);
}

std::optional<std::string> NftTable::ruleFault(std::string_view text) const {
  const std::string key(text);
  if (parsed(key)) return std::nullopt;
  return "rule " + quoteName(key) +
         " cannot be written natively: " + std::get<std::string>(parsed_.at(key));
}

const NftRule* NftTable::parsed(const std::string& text) const {
  auto it = parsed_.find(text);
  if (it == parsed_.end()) {
    if (parsed_.size() >= kParsedTexts) parsed_.clear();
    it = parsed_.emplace(text, parseRule(text)).first;
  }
  return std::get_if<NftRule>(&it->second);
}

NftSocket* NftTable::socketFor(const std::string& vrf, int netnsFd, std::string* error) {
  dev_t device = 0;
  ino_t inode = 0;
  if (!identify(netnsFd, &device, &inode, error)) return nullptr;
  VrfSocket& kept = sockets_[vrf];
  if (kept.socket && kept.device == device && kept.inode == inode) return kept.socket.get();
  // Another namespace under the same name: the old one's socket goes first,
  // so that the old namespace can go.
  kept.watch.reset();
  kept.socket = NftSocket::open(netnsFd, error, 0, wrap_);
  kept.jumpingChains.clear();
  if (kept.socket) {
    const std::set<std::string, std::less<>>& jumping = kept.jumpingChains;
    kept.watch = NftWatch::open(
        *loop_, netnsFd, kept.socket->portId(),
        [&jumping](std::string_view chain) {
          return chain.starts_with(kOwnedPrefix) || jumping.contains(chain);
        },
        [this, vrf] {
          if (driftListener_) driftListener_(vrf);
        },
        error, wrap_);
  }
  if (!kept.socket || !kept.watch) {
    sockets_.erase(vrf);
    return nullptr;
  }
  kept.device = device;
  kept.inode = inode;
  return kept.socket.get();
}

void NftTable::vrfGone(const std::string& vrf) {
  sockets_.erase(vrf);
}

std::unique_ptr<KernelTable::Job> NftTable::post(std::function<void()> finish) {
  auto job = std::make_unique<PostedJob>(*this, postedCount_++, std::move(finish));
  posted_.push_back(job.get());
  loop_->workInFlightInc();
  wake();
  return job;
}

void NftTable::wake() {
  const std::uint64_t one = 1;
  if (::write(wakeFd_, &one, sizeof one) < 0 && errno != EAGAIN) {
    throw std::runtime_error(std::string("cannot wake the loop: ") + std::strerror(errno));
  }
}

void NftTable::runPosted() {
  std::uint64_t count = 0;
  if (::read(wakeFd_, &count, sizeof count) < 0 && errno != EAGAIN) return;
  // A `finish` may post again or end other jobs: each is taken off first.
  // What it posts waits for the next turn.
  const std::uint64_t turnEnd = postedCount_;
  while (!posted_.empty() && posted_.front()->number < turnEnd) {
    PostedJob* job = posted_.front();
    posted_.pop_front();
    loop_->workInFlightDec();
    std::function<void()> finish = std::move(job->finish);
    finish();
  }
  if (!posted_.empty()) wake();
}

void NftTable::cancel(PostedJob* job) {
  auto it = std::find(posted_.begin(), posted_.end(), job);
  if (it == posted_.end()) return;
  posted_.erase(it);
  loop_->workInFlightDec();
}

std::unique_ptr<KernelTable::Job> NftTable::read(const std::string& vrf, int netnsFd,
                                                 std::function<void(ReadResult)> done,
                                                 std::string* error) {
  NftSocket* socket = socketFor(vrf, netnsFd, error);
  if (!socket) return nullptr;
  auto read = std::make_shared<ReadResult>();
  ++reads_;
  NftRuleset ruleset;
  if (auto failure = readRuleset(*socket, &ruleset)) {
    read->error = *failure;
    // The socket may be what failed: the next read opens a new one.
    sockets_.erase(vrf);
  } else {
    std::set<std::string, std::less<>>& jumping = sockets_[vrf].jumpingChains;
    jumping.clear();
    for (const auto& [chain, rules] : ruleset.saved.chains) {
      if (chain.starts_with(kOwnedPrefix)) jumping.insert(chain.substr(kOwnedPrefix.size()));
    }
    read->snapshot = std::make_unique<RulesetSnapshot>(std::move(ruleset));
  }
  return post([read, done = std::move(done)] { done(std::move(*read)); });
}

std::unique_ptr<KernelTable::Job> NftTable::write(const std::string& vrf, int netnsFd,
                                                  const Snapshot& from, const ChainRules& to,
                                                  std::function<void(WriteResult)> done,
                                                  std::string* error) {
  NftSocket* socket = socketFor(vrf, netnsFd, error);
  if (!socket) return nullptr;
  ++transactions_;
  for (const auto& [chain, rules] : to) sockets_[vrf].jumpingChains.insert(chain);
  auto written = std::make_shared<WriteResult>(
      writeRuleset(*socket, static_cast<const RulesetSnapshot&>(from).ruleset(), to,
                   [this](const std::string& text) { return parsed(text); }));
  return post([written, done = std::move(done)] { done(std::move(*written)); });
}

std::optional<std::string> NftTable::removeAll(int netnsFd) {
  std::string error;
  std::unique_ptr<NftSocket> socket = NftSocket::open(netnsFd, &error);
  if (!socket) return error;
  NftRuleset ruleset;
  if (auto failure = readRuleset(*socket, &ruleset)) return failure;
  if (inPlace(ruleset.saved, {})) return std::nullopt;
  WriteResult written = writeRuleset(*socket, ruleset, {}, [](const std::string&) {
    return static_cast<const NftRule*>(nullptr);
  });
  if (!written.error.empty()) return written.error;
  if (!written.warnings.empty()) return written.warnings.front();
  return std::nullopt;
}

}  // namespace AclAgent
