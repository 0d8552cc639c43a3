#include "agent/cli/Output.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace AclAgent {

FdOutput::FdOutput(int fd, std::size_t bufferSize) : fd_(fd), buffer_(bufferSize) {
  setp(buffer_.data(), buffer_.data() + buffer_.size());
}

FdOutput::~FdOutput() {
  drain();
}

bool FdOutput::writeAll(const char* data, std::size_t n) {
  while (n > 0 && error_ == 0) {
    const ssize_t written = write(fd_, data, n);
    if (written < 0) {
      if (errno != EINTR) error_ = errno;
      continue;
    }
    data += written;
    n -= static_cast<std::size_t>(written);
  }
  return error_ == 0;
}

bool FdOutput::drain() {
  const std::size_t n = static_cast<std::size_t>(pptr() - pbase());
  const bool ok = writeAll(pbase(), n);
  setp(buffer_.data(), buffer_.data() + buffer_.size());
  return ok;
}

FdOutput::int_type FdOutput::overflow(int_type c) {
  if (!drain()) return traits_type::eof();
  if (traits_type::eq_int_type(c, traits_type::eof())) return traits_type::not_eof(c);
  *pptr() = traits_type::to_char_type(c);
  pbump(1);
  return c;
}

std::streamsize FdOutput::xsputn(const char* text, std::streamsize n) {
  const auto size = static_cast<std::size_t>(n);
  if (error_) return 0;
  if (size <= static_cast<std::size_t>(epptr() - pptr())) {
    std::memcpy(pptr(), text, size);
    pbump(static_cast<int>(n));
    return n;
  }
  // Too big for what is left: what is buffered goes first, then the text.
  if (!drain()) return 0;
  if (size < buffer_.size()) return xsputn(text, n);
  return writeAll(text, size) ? n : 0;
}

int FdOutput::sync() {
  return drain() ? 0 : -1;
}

}  // namespace AclAgent
