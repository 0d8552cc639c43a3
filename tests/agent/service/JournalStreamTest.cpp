// Standard error as the journal reads it: the priority each kind of line
// gets, lines written in pieces or through stdio going out whole, and the
// JOURNAL_STREAM check that turns it on. Standard error is a file the test
// owns while each test runs.
#include "agent/service/JournalStream.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <sstream>
#include <string>

namespace AclAgent {
namespace {

TEST(JournalLineTest, EachKindOfLineHasItsPriorityAndNoneOutsideTheJournal) {
  const struct {
    std::string line;
    std::string journal;
  } cases[] = {
      {"acl-agent: apply vrf \"red\": iptables-restore failed", "<3>acl-agent: apply vrf"},
      {"-:3: error: unknown command \"x\"", "<3>-:3: error"},
      {"acl-agent: warning: reload: netns needs a restart", "<4>acl-agent: warning:"},
      {"acl-agent: not ready: vrf \"red\": no namespace", "<4>acl-agent: not ready:"},
      {"trace McastDnsAclPlugin/0: refresh", "<6>trace "},
      {std::string(kInfo) + "acl-agent: reload: nothing to change", "<6>acl-agent: reload:"},
      {std::string(kWarning) + "acl-agent: something odd", "<4>acl-agent: something odd"},
  };
  for (const auto& c : cases) {
    const std::string journal = journalLine(c.line, true);
    EXPECT_EQ(journal.rfind(c.journal, 0), 0u) << c.line << " -> " << journal;
    // Elsewhere the line is as written, without a mark of its own.
    const std::string plain = journalLine(c.line, false);
    EXPECT_EQ(plain, journal.substr(3)) << c.line;
  }
}

class JournalStreamTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char name[] = "/tmp/journal-test-XXXXXX";
    const int fd = mkstemp(name);
    ASSERT_GE(fd, 0);
    path_ = name;
    std::fflush(stderr);
    saved_ = dup(STDERR_FILENO);
    dup2(fd, STDERR_FILENO);
    close(fd);
  }
  void TearDown() override {
    std::fflush(stderr);
    dup2(saved_, STDERR_FILENO);
    close(saved_);
    unlink(path_.c_str());
    unsetenv("JOURNAL_STREAM");
  }
  std::string written() const {
    std::ifstream in(path_);
    std::ostringstream text;
    text << in.rdbuf();
    return text.str();
  }

  std::string path_;
  int saved_ = -1;
};

TEST_F(JournalStreamTest, LinesGoOutWholeWithTheirPriority) {
  {
    JournalStream journal(true);
    std::cerr << "acl-agent: warn";
    EXPECT_EQ(written(), "");
    std::cerr << "ing: half a line\nacl-agent: failed\n";
    std::cerr << kInfo << "acl-agent: reload: configuration changed\n";
    std::fprintf(stderr, "trace McastDnsAclPlugin/0: %s\n", "through stdio");
    std::fflush(stderr);
    std::cerr << "unfinished";
  }
  EXPECT_EQ(written(),
            "<4>acl-agent: warning: half a line\n"
            "<3>acl-agent: failed\n"
            "<6>acl-agent: reload: configuration changed\n"
            "<6>trace McastDnsAclPlugin/0: through stdio\n"
            "<3>unfinished\n");
}

TEST_F(JournalStreamTest, OutsideTheJournalMarksAreDropped) {
  {
    JournalStream journal(false);
    std::cerr << kInfo << "acl-agent: reload: nothing to change\nacl-agent: failed\n";
  }
  EXPECT_EQ(written(), "acl-agent: reload: nothing to change\nacl-agent: failed\n");
}

TEST_F(JournalStreamTest, JournalStreamMustNameStandardErrorItself) {
  struct stat st;
  ASSERT_EQ(fstat(STDERR_FILENO, &st), 0);
  const std::string self = std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino);
  EXPECT_FALSE(standardErrorIsJournal());
  setenv("JOURNAL_STREAM", self.c_str(), 1);
  EXPECT_TRUE(standardErrorIsJournal());
  for (const std::string& other : {std::to_string(st.st_dev) + ":" + std::to_string(st.st_ino + 1),
                                   self + "x", std::string("garbage"), std::string()}) {
    setenv("JOURNAL_STREAM", other.c_str(), 1);
    EXPECT_FALSE(standardErrorIsJournal()) << other;
  }
}

}  // namespace
}  // namespace AclAgent
