#include "agent/control/ControlClient.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
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

const char kUsage[] = "usage: acl-agent ctl [--control PATH] [WORD...]\n";

class Connection {
 public:
  explicit Connection(std::string path) : path_(std::move(path)) {}
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
    if (fd_ < 0 || connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
      return "no agent answers at " + shownName(path_) + ": " + std::strerror(errno);
    }
    return std::nullopt;
  }

  // Sends `line` and waits for its answer; none when the agent went away.
  std::optional<ControlAnswer> ask(const std::string& line) {
    const std::string bytes = line + "\n";
    for (std::size_t sent = 0; sent < bytes.size();) {
      const ssize_t n = send(fd_, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
      if (n < 0 && errno == EINTR) continue;
      // An agent that refused the rest of a long line may have answered it.
      if (n < 0) break;
      sent += static_cast<std::size_t>(n);
    }
    while (true) {
      if (std::optional<ControlAnswer> answer = reader_.next()) return answer;
      if (reader_.broken()) return std::nullopt;
      char buffer[65536];
      const ssize_t n = read(fd_, buffer, sizeof buffer);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) return std::nullopt;
      reader_.append(std::string_view(buffer, static_cast<std::size_t>(n)));
    }
  }

  const std::string& path() const { return path_; }

 private:
  std::string path_;
  int fd_ = -1;
  AnswerReader reader_;
};

}  // namespace

int runControlClient(int argc, char** argv) {
  std::string path = defaultControlPath();
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
  Connection agent(path);
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
                << " closed the connection\n";
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
