#include "platform/zub/Exception.h"

#include <cstring>

namespace Zub {

ErrnoException::ErrnoException(const std::string& operation, int error)
    : Exception(operation + ": " + std::strerror(error) + " (errno " + std::to_string(error) + ")"),
      error_(error) {}

}  // namespace Zub
