#include "agent/control/ControlClient.h"

#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <iostream>
#include <optional>
#include <string>
#include <vector>

#include "agent/base/Text.h"
#include "agent/control/ControlProtocol.h"
#include "agent/control/ControlServer.h"

namespace AclAgent {
namespace {

const char kUsage[] = "usage: acl-agent ctl [--control PATH] [--timeout SECONDS] [WORD...]\n";

// How long `ask` waits for an answer unless --timeout says otherwise: far
// more than any command's work on the event thread, or an agent's start.
constexpr int kDefaultTimeoutSeconds = 60;

// One connection to the agent. Every wait on it (the connection accepted, a
// line sent, its answer read) ends at a deadline: an agent that hangs, or a
// socket no agent reads, costs the client a bounded wait and no more.
class Connection {
 public:
  Connection(std::string path, int timeoutSeconds)
      : path_(std::move(path)), timeout_(std::chrono::seconds(timeoutSeconds)) {}
  ~Connection() {
    if (fd_ >= 0) close(fd_);
  }

  // What went wrong, if anything.
  std::optional<std::string> open() {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path_.empty() || path_.size() >= sizeof address.sun_path) {
      return "no agent answers at " + shownName(path_) + ": not a socket path";
    }
    std::memcpy(address.sun_path, path_.data(), path_.size());
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd_ < 0) return "cannot make a socket: " + std::string(std::strerror(errno));
    // A connection waits in the agent's listen queue while it is full; the
    // send timeout bounds that wait.
    const timeval bound{.tv_sec = timeout_.count(), .tv_usec = 0};
    setsockopt(fd_, SOL_SOCKET, SO_SNDTIMEO, &bound, sizeof bound);
    if (connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      return "no agent answers at " + shownName(path_) + ": " +
             (errno == EAGAIN ? "it did not take the connection within " + waited()
                              : std::string(std::strerror(errno)));
    }
    const int flags = fcntl(fd_, F_GETFL);
    fcntl(fd_, F_SETFL, flags | O_NONBLOCK);
    return std::nullopt;
  }

  // Sends `line` and waits for its answer; none when the agent went away or
  // did not answer in time (`timedOut()`).
  std::optional<ControlAnswer> ask(const std::string& line) {
    const auto deadline = std::chrono::steady_clock::now() + timeout_;
    const std::string bytes = line + "\n";
    for (std::size_t sent = 0; sent < bytes.size();) {
      const ssize_t n = send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n >= 0) {
        sent += static_cast<std::size_t>(n);
        continue;
      }
      if (errno == EINTR) continue;
      // An agent that refused the rest of a long line may have answered it.
      if (errno != EAGAIN || !await(POLLOUT, deadline)) break;
    }
    while (true) {
      if (std::optional<ControlAnswer> answer = reader_.next()) return answer;
      if (reader_.broken() || timedOut_) return std::nullopt;
      char buffer[65536];
      const ssize_t n = read(fd_, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n < 0 && errno == EAGAIN) {
        await(POLLIN, deadline);
        continue;
      }
      if (n <= 0) return std::nullopt;
      reader_.append(std::string_view(buffer, static_cast<std::size_t>(n)));
    }
  }

  const std::string& path() const { return path_; }
  bool timedOut() const { return timedOut_; }
  // The time waited for, as said in messages.
  std::string waited() const { return std::to_string(timeout_.count()) + " s"; }

 private:
  // Waits until the socket is ready for `events` or the deadline passes;
  // false (and `timedOut()`) for the deadline.
  bool await(short events, std::chrono::steady_clock::time_point deadline) {
    while (true) {
      const auto left =
          std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) {
        timedOut_ = true;
        return false;
      }
      pollfd watched{.fd = fd_, .events = events, .revents = 0};
      const int n = poll(&watched, 1, static_cast<int>(std::min<long long>(left.count(), 60'000)));
      if (n > 0) return true;
      if (n < 0 && errno != EINTR) return true;  // the next read or send says what is wrong
    }
  }

  std::string path_;
  std::chrono::seconds timeout_;
  int fd_ = -1;
  AnswerReader reader_;
  bool timedOut_ = false;
};

// A --timeout value: whole seconds, 1 to a day.
bool parseTimeout(const std::string& text, int& seconds) {
  if (text.empty() || text.size() > 5 ||
      text.find_first_not_of("0123456789") != std::string::npos) {
    return false;
  }
  seconds = std::stoi(text);
  return seconds >= 1 && seconds <= 86400;
}

}  // namespace

int runControlClient(int argc, char** argv) {
  std::string path = defaultControlPath();
  int timeout = kDefaultTimeoutSeconds;
  int first = 0;
  for (; first < argc; ++first) {
    const std::string arg = argv[first];
    if (arg == "--") {
      ++first;
      break;
    }
    if (arg == "--help") {
      std::cout << kUsage;
      return 0;
    }
    if (arg == "--control" && first + 1 < argc) {
      path = argv[++first];
    } else if (arg.rfind("--control=", 0) == 0) {
      path = arg.substr(10);
    } else if ((arg == "--timeout" && first + 1 < argc) || arg.rfind("--timeout=", 0) == 0) {
      const std::string value = arg == "--timeout" ? argv[++first] : arg.substr(10);
      if (!parseTimeout(value, timeout)) {
        std::cerr << "acl-agent ctl: --timeout " << shownName(value)
                  << ": not a whole number of seconds from 1 to 86400\n"
                  << kUsage;
        return 2;
      }
    } else if (arg.rfind("--", 0) == 0) {
      std::cerr << "acl-agent ctl: unknown or incomplete option " << shownName(arg) << "\n"
                << kUsage;
      return 2;
    } else {
      break;
    }
  }
  std::string words;
  for (int i = first; i < argc; ++i) {
    words += (i == first ? "" : " ") + std::string(argv[i]);
  }
  if (words.find('\n') != std::string::npos) {
    std::cerr << "acl-agent ctl: the words hold a newline: one command at a time\n";
    return 2;
  }
  Connection agent(path, timeout);
  if (auto error = agent.open()) {
    std::cerr << "acl-agent ctl: " << *error << "\n";
    return 2;
  }
  int status = 0;
  // Runs one line; false when the agent no longer answers.
  const auto run = [&](const std::string& line, const std::string& where) {
    std::optional<ControlAnswer> answer = agent.ask(line);
    if (!answer) {
      std::cerr << "acl-agent ctl: the agent at " << shownName(agent.path())
                << (agent.timedOut() ? " did not answer within " + agent.waited()
                                     : std::string(" closed the connection"))
                << "\n";
      status = 2;
      return false;
    }
    std::cout << answer->output << std::flush;
    if (answer->failed) {
      std::cerr << where << "error: " << answer->error << "\n";
      status = std::max(status, 1);
    }
    return true;
  };
  if (first < argc) {
    run(words, "acl-agent ctl: ");
  } else {
    std::string line;
    for (unsigned number = 1; std::getline(std::cin, line); ++number) {
      if (!run(line, "-:" + std::to_string(number) + ": ")) break;
    }
  }
  if (!std::cout.flush()) {
    std::cerr << "acl-agent ctl: cannot write to standard output\n";
    status = std::max(status, 1);
  }
  return status;
}

}  // namespace AclAgent
