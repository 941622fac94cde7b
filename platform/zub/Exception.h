#pragma once
// The framework's exceptions. A bad value raises RangeException with a fixed text and
// leaves the target unchanged; a failed system call raises ErrnoException; creating a
// collection member again with different constructor values raises NameInUseException;
// storing a null pointer where a member must exist raises NullPointerException.

#include <exception>
#include <string>

namespace Zub {

class Exception : public std::exception {
 public:
  explicit Exception(std::string message) : message_(std::move(message)) {}
  const char* what() const noexcept override { return message_.c_str(); }
  const std::string& message() const noexcept { return message_; }

 private:
  std::string message_;
};

class RangeException : public Exception {
 public:
  using Exception::Exception;
};

class NameInUseException : public Exception {
 public:
  using Exception::Exception;
};

class NullPointerException : public Exception {
 public:
  using Exception::Exception;
};

class ErrnoException : public Exception {
 public:
  // `operation` names what failed ("socket", "sendmsg", ...); the text adds strerror.
  ErrnoException(const std::string& operation, int error);
  int error() const noexcept { return error_; }

 private:
  int error_;
};

}  // namespace Zub
