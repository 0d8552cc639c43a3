// JournalStream: standard error as the journal reads it. When the service
// manager connects standard error to the journal (`JOURNAL_STREAM` names its
// device and inode), each line goes out with its priority in front: `<3>`
// an error, `<4>` a warning, `<6>` information.
//
//   JournalStream journal;      // installs itself on std::cerr and stderr
//   std::cerr << kInfo << "acl-agent: configuration read again\n";
//
// A line says its priority with a leading `kInfo` or `kWarning`, kept for
// the journal and dropped elsewhere; without one, a line holding
// "warning: " or a "not ready:" report is a warning, a trace record
// information, and anything else an error: the agent's messages are its
// errors unless they say otherwise.
//
// Threading: one thread writes to standard error at a time.
#pragma once

#include <cstdio>
#include <streambuf>
#include <string>
#include <string_view>

namespace AclAgent {

// Leading marks that set a line's priority.
constexpr const char* kInfo = "<6>";
constexpr const char* kWarning = "<4>";

// Whether `JOURNAL_STREAM` names the file that descriptor 2 is.
bool standardErrorIsJournal();

// `line` (without its end) as it goes out: with its priority in front for
// the journal, or without any mark.
std::string journalLine(std::string_view line, bool journal);

class JournalStream : public std::streambuf {
 public:
  // Takes the place of std::cerr's buffer, and of stdio's stderr when
  // `journal` (the trace records go through stdio).
  explicit JournalStream(bool journal);
  ~JournalStream() override;
  JournalStream(const JournalStream&) = delete;
  JournalStream& operator=(const JournalStream&) = delete;

  // Writes `bytes`; whole lines go out at once.
  void write(std::string_view bytes);

 protected:
  int_type overflow(int_type c) override;
  std::streamsize xsputn(const char* text, std::streamsize n) override;

 private:
  bool journal_;
  std::string partial_;
  std::streambuf* previous_ = nullptr;
  FILE* previousStderr_ = nullptr;
};

}  // namespace AclAgent
