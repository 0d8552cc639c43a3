// ControlServer: a live agent's control socket. Clients connect to a Unix
// stream socket and send command lines (ControlProtocol.h); each line is run
// on the event thread by the server's handler and answered in order.
//
//   ControlServer server(loop, {.path = "/run/acl-agent/control"},
//                        [&](std::string_view line) { return runLine(line); });
//   loop->runUntil([&] { return stopped; });   // clients are served as the loop turns
//
// The socket is made at start (its folder too when missing, the socket with
// mode 0660); a stale socket that nobody answers on is replaced, one where an
// agent answers is not. It goes when the server does.
//
// Bounds, so that no client can make the agent hold much or wait:
// - a line over `maxLineBytes` is answered with an error at once and the
//   rest of it dropped as it arrives; a client's unread input is at most one
//   line;
// - a client's next line runs only while its unread answers hold less than
//   `maxQueuedBytes`; writes never block, and a client whose answers wait
//   and who reads nothing for `stallTimeout` is dropped;
// - each turn of the loop runs at most one line per client;
// - at most `maxClients` are connected; more wait in the listen queue.
// Lines do not run while `holdIs(true)` (a command of another source is
// running), nor inside a line's own run (a command that turns the loop).
//
// Threading: the event thread only.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "agent/control/ControlProtocol.h"
#include "platform/Pell.h"

namespace AclAgent {

struct ControlServerOptions {
  std::string path;
  std::size_t maxLineBytes = kMaxLineBytes;
  std::size_t maxQueuedBytes = 1 << 20;
  Pell::Nanoseconds stallTimeout = 10'000'000'000;
  std::size_t maxClients = 128;
};

// Where the control socket is when --control does not say:
// $RUNTIME_DIRECTORY/control when the service manager sets it (the first
// folder it names), else /run/acl-agent/control.
std::string defaultControlPath();

class ControlServer {
 public:
  using Handler = std::function<ControlAnswer(std::string_view line)>;

  // Raises `std::runtime_error` saying why when the socket cannot be made.
  ControlServer(const Zov::Ptr<Pell::TaskSchedulerRoot>& loop, ControlServerOptions options,
                Handler handler);
  ~ControlServer();
  ControlServer(const ControlServer&) = delete;
  ControlServer& operator=(const ControlServer&) = delete;

  void holdIs(bool hold);
  std::size_t clients() const { return clients_.size(); }
  // Clients dropped for not reading their answers.
  std::uint64_t stalled() const { return stalled_; }

 private:
  struct Client;
  void makeSocket();
  void handleReady();
  void acceptSome();
  void readSome(Client& client);
  void writeSome(Client& client);
  void runLines();
  bool runnable(const Client& client) const;
  void interestIs(Client& client);
  void drop(int fd);
  void checkStalled();
  void wake();

  Zov::Ptr<Pell::TaskSchedulerRoot> loop_;
  ControlServerOptions options_;
  Handler handler_;
  int listen_ = -1;
  int epoll_ = -1;
  int wakeFd_ = -1;  // an eventfd: lines wait to run
  std::uint64_t socketInode_ = 0;
  bool accepting_ = true;
  bool listenWatched_ = true;  // the listening socket's readiness is heard
  bool running_ = false;
  bool held_ = false;
  std::uint64_t stalled_ = 0;
  std::map<int, std::unique_ptr<Client>> clients_;  // by descriptor
  Pell::BackgroundTimer stallCheck_;
  Pell::BackgroundTimer acceptAgain_;
  Pell::FdWatch watch_;
};

}  // namespace AclAgent
