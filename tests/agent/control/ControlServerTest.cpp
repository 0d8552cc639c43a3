// The control socket's server on its own, with a handler that answers each
// line: answers in order, and the bounds that keep a client from making the
// agent hold much or wait (long lines, unread answers, a client that stops
// reading). The loop runs on the wall clock, as a live agent's does.
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <filesystem>

#include "agent/control/ControlServer.h"
#include "tests/agent/TestFolder.h"
#include "tests/agent/WallClockFixture.h"

namespace AclAgent {
namespace {

class ControlServerTest : public WallClockFixture {
 protected:
  void TearDown() override {
    server_.reset();
    for (int fd : fds_) close(fd);
    WallClockFixture::TearDown();
  }

  void start(ControlServerOptions options = {}) {
    options.path = path_;
    server_ = std::make_unique<ControlServer>(loop_, options, [this](std::string_view line) {
      ++runs_;
      if (line == "big") return ControlAnswer{false, std::string(200'000, 'x'), ""};
      if (line == "fail") return ControlAnswer{true, "partial\n", "it failed"};
      return ControlAnswer{false, "ran " + std::string(line) + "\n", ""};
    });
  }
  int connectClient() {
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path_.copy(address.sun_path, path_.size());
    EXPECT_EQ(connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    fds_.push_back(fd);
    return fd;
  }
  void sendAll(int fd, const std::string& bytes) {
    ASSERT_EQ(write(fd, bytes.data(), bytes.size()), static_cast<ssize_t>(bytes.size()));
  }
  // The next answer on `fd`, reading while the loop turns.
  std::optional<ControlAnswer> answer(int fd) {
    AnswerReader& reader = readers_[fd];
    std::optional<ControlAnswer> got;
    runUntil([&] {
      char buffer[65536];
      const ssize_t n = recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
      if (n > 0) reader.append(std::string_view(buffer, static_cast<std::size_t>(n)));
      got = reader.next();
      return got.has_value() || n == 0;
    });
    return got;
  }

  TestFolder folder_{"control-test"};
  const std::string dir_ = folder_.path();
  const std::string path_ = dir_ + "/sub/control";
  std::unique_ptr<ControlServer> server_;
  std::vector<int> fds_;
  std::map<int, AnswerReader> readers_;
  int runs_ = 0;
};

TEST(ControlProtocolTest, AnswersReadBackWholeFromAnySplit) {
  const ControlAnswer first{true, "out\n", "it failed"};
  const ControlAnswer second{false, "", ""};
  const std::string bytes = encodeAnswer(first) + encodeAnswer(second);
  for (std::size_t cut = 0; cut <= bytes.size(); ++cut) {
    AnswerReader reader;
    std::vector<ControlAnswer> got;
    reader.append(bytes.substr(0, cut));
    while (auto a = reader.next()) got.push_back(*a);
    reader.append(bytes.substr(cut));
    while (auto a = reader.next()) got.push_back(*a);
    ASSERT_EQ(got, (std::vector<ControlAnswer>{first, second})) << "cut at " << cut;
  }
  AnswerReader garbage;
  garbage.append("2 0 0\n");
  EXPECT_FALSE(garbage.next());
  EXPECT_TRUE(garbage.broken());
}

TEST_F(ControlServerTest, SocketIsMadeWithItsFolderAndMode0660AndGoesWithTheServer) {
  start();
  struct stat st;
  ASSERT_EQ(stat(path_.c_str(), &st), 0);
  EXPECT_TRUE(S_ISSOCK(st.st_mode));
  EXPECT_EQ(st.st_mode & 0777, 0660u);
  // A second server finds this one answering, and leaves it alone.
  EXPECT_THROW(
      ControlServer(loop_, {.path = path_}, [](std::string_view) { return ControlAnswer{}; }),
      std::runtime_error);
  server_.reset();
  EXPECT_NE(stat(path_.c_str(), &st), 0);
}

TEST_F(ControlServerTest, StaleSocketIsReplaced) {
  std::filesystem::create_directories(dir_ + "/sub");
  const int stale = socket(AF_UNIX, SOCK_STREAM, 0);
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path_.copy(address.sun_path, path_.size());
  ASSERT_EQ(bind(stale, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  close(stale);  // bound, never listened on: nobody answers
  start();
  const int fd = connectClient();
  sendAll(fd, "x\n");
  EXPECT_EQ(answer(fd), (ControlAnswer{false, "ran x\n", ""}));
}

TEST_F(ControlServerTest, LinesAreAnsweredInOrderAcrossClients) {
  start();
  const int a = connectClient();
  const int b = connectClient();
  sendAll(a, "one\nfail\n");
  sendAll(b, "two\r\n");
  EXPECT_EQ(answer(a), (ControlAnswer{false, "ran one\n", ""}));
  EXPECT_EQ(answer(a), (ControlAnswer{true, "partial\n", "it failed"}));
  EXPECT_EQ(answer(b), (ControlAnswer{false, "ran two\n", ""}));
  // A last line without its end runs when the client is done sending.
  sendAll(b, "last");
  shutdown(b, SHUT_WR);
  EXPECT_EQ(answer(b), (ControlAnswer{false, "ran last\n", ""}));
}

TEST_F(ControlServerTest, LongLineIsAnsweredOnceAndTheRestDropped) {
  start({.path = "", .maxLineBytes = 1000});
  const int fd = connectClient();
  const std::string longLine(5000, 'y');
  sendAll(fd, longLine.substr(0, 2000));
  const std::optional<ControlAnswer> refused = answer(fd);
  ASSERT_TRUE(refused);
  EXPECT_TRUE(refused->failed);
  EXPECT_EQ(refused->error, "line longer than 1000 bytes: dropped");
  sendAll(fd, longLine.substr(2000) + "\nafter\n");
  EXPECT_EQ(answer(fd), (ControlAnswer{false, "ran after\n", ""}));
  EXPECT_EQ(runs_, 1);
}

TEST_F(ControlServerTest, HeldLinesWaitUntilReleased) {
  start();
  server_->holdIs(true);
  const int fd = connectClient();
  sendAll(fd, "x\n");
  runFor(200'000'000);
  EXPECT_EQ(runs_, 0);
  server_->holdIs(false);
  EXPECT_EQ(answer(fd), (ControlAnswer{false, "ran x\n", ""}));
}

TEST_F(ControlServerTest, ClientThatDoesNotReadIsBoundedThenDroppedWhileOthersAreAnswered) {
  start({.path = "", .maxQueuedBytes = 100'000, .stallTimeout = 500'000'000});
  const int silent = connectClient();
  // Many answers of 200 kB each: only as many run as the bound lets wait.
  std::string lines;
  for (int i = 0; i < 100; ++i) lines += "big\n";
  sendAll(silent, lines);
  const int other = connectClient();
  sendAll(other, "hello\n");
  EXPECT_EQ(answer(other), (ControlAnswer{false, "ran hello\n", ""}));
  ASSERT_TRUE(runUntil([&] { return server_->stalled() == 1; }));
  EXPECT_LT(runs_, 10);
  EXPECT_EQ(server_->clients(), 1u);
  sendAll(other, "again\n");
  EXPECT_EQ(answer(other), (ControlAnswer{false, "ran again\n", ""}));
}

TEST_F(ControlServerTest, ManyClientsAtOnceBeyondTheLimitAreServedInTurn) {
  start({.path = "", .maxClients = 4});
  std::vector<int> fds;
  for (int i = 0; i < 12; ++i) {
    fds.push_back(connectClient());
    sendAll(fds.back(), "c" + std::to_string(i) + "\n");
  }
  for (int i = 0; i < 12; ++i) {
    EXPECT_EQ(answer(fds[i]), (ControlAnswer{false, "ran c" + std::to_string(i) + "\n", ""}));
    close(fds[i]);
    std::erase(fds_, fds[i]);
  }
}

}  // namespace
}  // namespace AclAgent
