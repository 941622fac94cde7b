#include "platform/nelo/IntfId.h"

#include <cctype>

namespace Nelo {

namespace {
// Consumes a run of decimal digits; false when there is none.
bool number(std::string_view& s) {
  size_t n = 0;
  while (n < s.size() && std::isdigit(static_cast<unsigned char>(s[n]))) ++n;
  if (n == 0) return false;
  s.remove_prefix(n);
  return true;
}

bool prefixedNumbers(std::string_view s, std::string_view prefix, int maxSlashParts) {
  if (s.substr(0, prefix.size()) != prefix) return false;
  s.remove_prefix(prefix.size());
  if (!number(s)) return false;
  for (int i = 0; i < maxSlashParts && !s.empty(); ++i) {
    if (s.front() != '/') return false;
    s.remove_prefix(1);
    if (!number(s)) return false;
  }
  return s.empty();
}
}  // namespace

bool EthIntfId::isEthIntfId(const IntfId& id) { return prefixedNumbers(id.name(), "Ethernet", 2); }

bool PortChannelIntfId::isPortChannelIntfId(const IntfId& id) {
  return prefixedNumbers(id.name(), "Port-Channel", 0);
}

}  // namespace Nelo
