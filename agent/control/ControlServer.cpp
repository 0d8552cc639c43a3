#include "agent/control/ControlServer.h"

#include <fcntl.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <stdexcept>
#include <vector>

#include "agent/base/Text.h"

namespace AclAgent {

namespace {

// What one read takes from a client; a longer line takes several turns.
constexpr std::size_t kReadBytes = 64 * 1024;
// Connections taken per turn of the loop.
constexpr int kAcceptsPerTurn = 16;
// After the process ran out of descriptors, accepting waits this long.
constexpr Pell::Nanoseconds kAcceptPause = 1'000'000'000;

std::runtime_error socketError(const std::string& path, const std::string& what) {
  return std::runtime_error("control socket " + shownName(path) + ": " + what);
}

std::string errnoText(const char* call) {
  return std::string(call) + ": " + std::strerror(errno);
}

// Makes every folder of `dir` that is missing.
void makeFolders(const std::string& dir) {
  for (std::size_t slash = 1; slash != std::string::npos;) {
    slash = dir.find('/', slash + 1);
    const std::string part = dir.substr(0, slash);
    if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) {
      throw std::runtime_error("cannot make folder " + shownName(part) + ": " +
                               std::strerror(errno));
    }
  }
}

ControlAnswer lineTooLong(std::size_t maxLineBytes) {
  return ControlAnswer{true, "",
                       "line longer than " + std::to_string(maxLineBytes) + " bytes: dropped"};
}

}  // namespace

std::string defaultControlPath() {
  if (const char* dirs = std::getenv("RUNTIME_DIRECTORY"); dirs && *dirs) {
    const std::string first(dirs, std::strcspn(dirs, ":"));
    if (!first.empty()) return first + "/control";
  }
  return "/run/acl-agent/control";
}

struct ControlServer::Client {
  int fd = -1;
  std::string in;                      // read and not run yet
  bool discarding = false;             // in a line over the limit, until its end
  bool ended = false;                  // the client will send nothing more
  std::string out;                     // answers not written yet
  Pell::Nanoseconds waitingSince = 0;  // when `out` last was written to the client
  std::uint32_t interest = 0;
};

ControlServer::ControlServer(const Zov::Ptr<Pell::TaskSchedulerRoot>& loop,
                             ControlServerOptions options, Handler handler)
    : loop_(loop),
      options_(std::move(options)),
      handler_(std::move(handler)),
      stallCheck_(loop, "controlStallTask", [this] { checkStalled(); }),
      acceptAgain_(loop, "controlAcceptTask", [this] {
        accepting_ = true;
        wake();
      }) {
  try {
    makeSocket();
  } catch (...) {
    if (listen_ >= 0) close(listen_);
    if (epoll_ >= 0) close(epoll_);
    if (wakeFd_ >= 0) close(wakeFd_);
    throw;
  }
  watch_ = Pell::FdWatch(*loop_, epoll_, [this] { handleReady(); });
}

ControlServer::~ControlServer() {
  watch_.reset();
  for (auto& [fd, client] : clients_) close(fd);
  // A successor may have taken the path already: only our own socket goes.
  struct stat st;
  if (stat(options_.path.c_str(), &st) == 0 && st.st_ino == socketInode_) {
    unlink(options_.path.c_str());
  }
  close(listen_);
  close(epoll_);
  close(wakeFd_);
}

void ControlServer::makeSocket() {
  const std::string& path = options_.path;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  if (path.empty() || path.size() >= sizeof address.sun_path) {
    throw socketError(
        path, "a socket path is 1 to " + std::to_string(sizeof address.sun_path - 1) + " bytes");
  }
  std::memcpy(address.sun_path, path.data(), path.size());
  const std::size_t slash = path.rfind('/');
  try {
    if (slash != std::string::npos && slash > 0) makeFolders(path.substr(0, slash));
  } catch (const std::runtime_error& e) {
    throw socketError(path, e.what());
  }
  listen_ = socket(AF_UNIX, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (listen_ < 0) throw socketError(path, errnoText("socket"));
  struct stat st;
  if (lstat(path.c_str(), &st) == 0) {
    if (!S_ISSOCK(st.st_mode)) throw socketError(path, "it exists and is not a socket");
    // A socket left by an agent that ended is replaced; a live one is not.
    const int probe = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool answered =
        probe >= 0 && connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    if (probe >= 0) close(probe);
    if (answered) throw socketError(path, "another agent answers there");
    unlink(path.c_str());
  }
  // Made with mode 0660 at once: no moment when others may connect.
  const mode_t mask = umask(0117);
  const int bound = bind(listen_, reinterpret_cast<sockaddr*>(&address), sizeof address);
  const int bindErrno = errno;
  umask(mask);
  if (bound != 0) {
    errno = bindErrno;
    throw socketError(path, errnoText("bind"));
  }
  if (stat(path.c_str(), &st) == 0) socketInode_ = st.st_ino;
  if (listen(listen_, 64) != 0) throw socketError(path, errnoText("listen"));
  epoll_ = epoll_create1(EPOLL_CLOEXEC);
  wakeFd_ = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (epoll_ < 0 || wakeFd_ < 0) throw socketError(path, errnoText("epoll"));
  for (int fd : {listen_, wakeFd_}) {
    epoll_event event{};
    event.events = EPOLLIN;
    event.data.fd = fd;
    if (epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) != 0) {
      throw socketError(path, errnoText("epoll_ctl"));
    }
  }
}

void ControlServer::holdIs(bool hold) {
  held_ = hold;
  if (!held_) wake();
}

void ControlServer::wake() {
  const std::uint64_t one = 1;
  // A counter already above zero wakes the loop all the same.
  [[maybe_unused]] const ssize_t n = write(wakeFd_, &one, sizeof one);
}

void ControlServer::handleReady() {
  epoll_event events[64];
  const int n = epoll_wait(epoll_, events, 64, 0);
  for (int i = 0; i < n; ++i) {
    const int fd = events[i].data.fd;
    if (fd == wakeFd_) {
      std::uint64_t count;
      [[maybe_unused]] const ssize_t r = read(wakeFd_, &count, sizeof count);
      continue;
    }
    if (fd == listen_) {
      acceptSome();
      continue;
    }
    auto it = clients_.find(fd);
    if (it == clients_.end()) continue;
    Client& client = *it->second;
    if (events[i].events & (EPOLLHUP | EPOLLERR)) {
      drop(fd);
      continue;
    }
    if (events[i].events & EPOLLOUT) writeSome(client);
    if (clients_.count(fd) && (events[i].events & EPOLLIN)) readSome(client);
  }
  // Accepting again after a pause (descriptors, or clients, ran out).
  if (accepting_ && !listenWatched_) acceptSome();
  runLines();
}

void ControlServer::acceptSome() {
  for (int i = 0; i < kAcceptsPerTurn && accepting_; ++i) {
    if (clients_.size() >= options_.maxClients) {
      accepting_ = false;
    } else {
      const int fd = accept4(listen_, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC);
      if (fd < 0) {
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) {
          accepting_ = false;
          acceptAgain_.armIn(kAcceptPause);
        }
        break;
      }
      auto client = std::make_unique<Client>();
      client->fd = fd;
      epoll_event event{};
      event.data.fd = fd;
      if (epoll_ctl(epoll_, EPOLL_CTL_ADD, fd, &event) != 0) {
        close(fd);
        break;
      }
      Client& added = *client;
      clients_.emplace(fd, std::move(client));
      interestIs(added);
    }
  }
  // The listening socket is watched only while connections are taken.
  if (listenWatched_ == accepting_) return;
  listenWatched_ = accepting_;
  epoll_event event{};
  event.events = accepting_ ? std::uint32_t{EPOLLIN} : 0u;
  event.data.fd = listen_;
  epoll_ctl(epoll_, EPOLL_CTL_MOD, listen_, &event);
}

void ControlServer::readSome(Client& client) {
  char buffer[kReadBytes];
  const ssize_t n = read(client.fd, buffer, sizeof buffer);
  if (n < 0 && (errno == EAGAIN || errno == EINTR)) return;
  if (n <= 0) {
    client.ended = true;
    // A last line without its end still runs.
    if (!client.discarding && !client.in.empty()) client.in += '\n';
    writeSome(client);  // drops the client when nothing is left to do
    return;
  }
  std::string_view bytes(buffer, static_cast<std::size_t>(n));
  if (client.discarding) {
    const std::size_t newline = bytes.find('\n');
    if (newline == std::string_view::npos) return;
    client.discarding = false;
    bytes.remove_prefix(newline + 1);
  }
  client.in.append(bytes);
  if (client.in.find('\n') == std::string::npos && client.in.size() > options_.maxLineBytes) {
    client.in.clear();
    client.discarding = true;
    const ControlAnswer answer = lineTooLong(options_.maxLineBytes);
    if (client.out.empty()) client.waitingSince = loop_->now();
    client.out += encodeAnswer(answer);
    writeSome(client);
    return;
  }
  interestIs(client);
}

void ControlServer::writeSome(Client& client) {
  while (!client.out.empty()) {
    const ssize_t n = send(client.fd, client.out.data(), client.out.size(), MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EINTR) continue;
      if (errno == EAGAIN) break;
      drop(client.fd);
      return;
    }
    client.out.erase(0, static_cast<std::size_t>(n));
    client.waitingSince = loop_->now();
  }
  if (client.out.empty() && client.ended && !runnable(client)) {
    drop(client.fd);
    return;
  }
  interestIs(client);
  if (!client.out.empty() && !stallCheck_.armed()) stallCheck_.armIn(options_.stallTimeout / 2);
}

bool ControlServer::runnable(const Client& client) const {
  return client.in.find('\n') != std::string::npos && client.out.size() < options_.maxQueuedBytes;
}

void ControlServer::interestIs(Client& client) {
  // Input is read while no whole line waits and it is under a line's
  // length: a client's unread input is bounded by the kernel's buffer.
  std::uint32_t interest = 0;
  if (!client.ended && (client.discarding || client.in.find('\n') == std::string::npos)) {
    interest |= EPOLLIN;
  }
  if (!client.out.empty()) interest |= EPOLLOUT;
  if (interest == client.interest) return;
  client.interest = interest;
  epoll_event event{};
  event.events = interest;
  event.data.fd = client.fd;
  epoll_ctl(epoll_, EPOLL_CTL_MOD, client.fd, &event);
}

void ControlServer::runLines() {
  if (running_ || held_) return;
  running_ = true;
  std::vector<int> ready;
  for (const auto& [fd, client] : clients_) {
    if (runnable(*client)) ready.push_back(fd);
  }
  for (int fd : ready) {
    // An earlier line's command may have turned the loop, and this client
    // may have gone meanwhile.
    auto it = clients_.find(fd);
    if (it == clients_.end() || !runnable(*it->second)) continue;
    const std::size_t newline = it->second->in.find('\n');
    std::string line = it->second->in.substr(0, newline);
    it->second->in.erase(0, newline + 1);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    ControlAnswer answer = lineTooLong(options_.maxLineBytes);
    if (line.size() <= options_.maxLineBytes) {
      try {
        answer = handler_(line);
      } catch (...) {
        running_ = false;
        throw;
      }
    }
    it = clients_.find(fd);
    if (it == clients_.end()) continue;
    Client& client = *it->second;
    if (client.out.empty()) client.waitingSince = loop_->now();
    client.out += encodeAnswer(answer);
    writeSome(client);
  }
  running_ = false;
  for (const auto& [fd, client] : clients_) {
    if (runnable(*client)) {
      wake();
      break;
    }
  }
}

void ControlServer::drop(int fd) {
  auto it = clients_.find(fd);
  if (it == clients_.end()) return;
  epoll_ctl(epoll_, EPOLL_CTL_DEL, fd, nullptr);
  close(fd);
  clients_.erase(it);
  if (!accepting_ && !acceptAgain_.armed()) {
    accepting_ = true;
    wake();
  }
}

void ControlServer::checkStalled() {
  const Pell::Nanoseconds now = loop_->now();
  std::vector<int> stalled;
  bool waiting = false;
  for (const auto& [fd, client] : clients_) {
    if (client->out.empty()) continue;
    if (now - client->waitingSince >= options_.stallTimeout) {
      stalled.push_back(fd);
    } else {
      waiting = true;
    }
  }
  for (int fd : stalled) drop(fd);
  stalled_ += stalled.size();
  if (waiting) stallCheck_.armIn(options_.stallTimeout / 2);
}

}  // namespace AclAgent
