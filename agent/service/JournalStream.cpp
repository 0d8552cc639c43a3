#include "agent/service/JournalStream.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <iostream>

namespace AclAgent {

namespace {

bool markedPriority(std::string_view line) {
  return line.size() >= 3 && line[0] == '<' && line[1] >= '0' && line[1] <= '7' && line[2] == '>';
}

void writeAll(std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t n = ::write(STDERR_FILENO, bytes.data(), bytes.size());
    if (n < 0 && errno == EINTR) continue;
    // Standard error that cannot be written has nobody left to tell.
    if (n <= 0) return;
    bytes.remove_prefix(static_cast<std::size_t>(n));
  }
}

}  // namespace

bool standardErrorIsJournal() {
  const char* stream = std::getenv("JOURNAL_STREAM");
  struct stat st;
  if (!stream || fstat(STDERR_FILENO, &st) != 0) return false;
  unsigned long long device = 0;
  unsigned long long inode = 0;
  char end = 0;
  if (std::sscanf(stream, "%llu:%llu%c", &device, &inode, &end) != 2) return false;
  return device == st.st_dev && inode == st.st_ino;
}

std::string journalLine(std::string_view line, bool journal) {
  std::string_view priority;
  if (markedPriority(line)) {
    priority = line.substr(0, 3);
    line.remove_prefix(3);
  } else if (line.find("warning: ") != std::string_view::npos ||
             line.rfind("acl-agent: not ready:", 0) == 0) {
    priority = kWarning;
  } else if (line.rfind("trace ", 0) == 0) {
    priority = kInfo;
  } else {
    priority = "<3>";
  }
  std::string text;
  if (journal) text = priority;
  text += line;
  return text;
}

JournalStream::JournalStream(bool journal) : journal_(journal) {
  previous_ = std::cerr.rdbuf(this);
  if (journal_) {
    static const cookie_io_functions_t kFunctions{
        nullptr,
        [](void* cookie, const char* data, std::size_t size) -> ssize_t {
          static_cast<JournalStream*>(cookie)->write(std::string_view(data, size));
          return static_cast<ssize_t>(size);
        },
        nullptr, nullptr};
    if (FILE* file = fopencookie(this, "w", kFunctions)) {
      setvbuf(file, nullptr, _IOLBF, 0);
      previousStderr_ = stderr;
      stderr = file;
    }
  }
}

JournalStream::~JournalStream() {
  if (previousStderr_) {
    std::fflush(stderr);
    FILE* mine = stderr;
    stderr = previousStderr_;
    std::fclose(mine);
  }
  if (!partial_.empty()) writeAll(journalLine(partial_, journal_) + "\n");
  std::cerr.rdbuf(previous_);
}

void JournalStream::write(std::string_view bytes) {
  while (!bytes.empty()) {
    const std::size_t newline = bytes.find('\n');
    if (newline == std::string_view::npos) {
      partial_.append(bytes);
      return;
    }
    partial_.append(bytes.substr(0, newline));
    bytes.remove_prefix(newline + 1);
    writeAll(journalLine(partial_, journal_) + "\n");
    partial_.clear();
  }
}

JournalStream::int_type JournalStream::overflow(int_type c) {
  if (c != traits_type::eof()) {
    const char ch = traits_type::to_char_type(c);
    write(std::string_view(&ch, 1));
  }
  return traits_type::not_eof(c);
}

std::streamsize JournalStream::xsputn(const char* text, std::streamsize n) {
  write(std::string_view(text, static_cast<std::size_t>(n)));
  return n;
}

}  // namespace AclAgent
