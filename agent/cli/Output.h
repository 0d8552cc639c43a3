// FdOutput: buffered output to a file descriptor that knows why it failed.
//
// Standard output through stdio loses the reason of a failed write (a full
// disk, a closed descriptor) by the time anyone asks. This buffer keeps the
// error number of the first write that failed, drops what it holds then, and
// fails every later write, so that the program can say why and stop:
//
//   AclAgent::FdOutput buffer(STDOUT_FILENO);
//   std::ostream out(&buffer);
//   out << "text\n";
//   if (!out.flush() || buffer.error()) report(std::strerror(buffer.error()));
//
// Threading: one thread.
#pragma once

#include <streambuf>
#include <vector>

namespace AclAgent {

class FdOutput : public std::streambuf {
 public:
  explicit FdOutput(int fd, std::size_t bufferSize = 64 * 1024);
  // Writes out what is buffered; a failure then goes unreported.
  ~FdOutput() override;
  FdOutput(const FdOutput&) = delete;
  FdOutput& operator=(const FdOutput&) = delete;

  // The error number of the first write that failed, or 0.
  int error() const { return error_; }

 protected:
  int_type overflow(int_type c) override;
  std::streamsize xsputn(const char* text, std::streamsize n) override;
  int sync() override;

 private:
  // Writes out the bytes in the buffer; false once a write has failed.
  bool drain();
  bool writeAll(const char* data, std::size_t n);

  int fd_;
  std::vector<char> buffer_;
  int error_ = 0;
};

}  // namespace AclAgent
