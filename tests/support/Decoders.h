#pragma once
// Third-party IPFIX decoders for end-to-end checks: the datagrams a collector received
// are written to a pcap file for tshark and to an IPFIX file for libfixbuf's ipfixDump,
// and the decoders' text output is returned for the test to check.

#include <map>
#include <set>
#include <string>
#include <vector>

#include "tests/support/Network.h"

namespace TestSupport {

struct CommandResult {
  int status = -1;  // exit status; -1 if the command could not run
  std::string out;
  std::string err;
};

// Runs a shell command (bounded by `timeout` seconds), capturing stdout and stderr.
CommandResult runCommand(const std::string& command, int timeoutSeconds = 60);

// A fresh directory under the system temporary directory, removed by the destructor.
class TempDir {
 public:
  TempDir();
  ~TempDir();
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;
  const std::string& path() const { return path_; }
  std::string file(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// tshark's verbose decode of the datagrams, with their UDP port decoded as IPFIX.
CommandResult tsharkDecode(const std::vector<Datagram>& datagrams);
// tshark's fields (-T fields -e ...): one line per packet, fields separated by
// ",", repeated values of one field by ";".
CommandResult tsharkFields(const std::vector<Datagram>& datagrams,
                           const std::vector<std::string>& fields);
// The same as a table: per datagram, per field, its values in order (none where the
// datagram has none). A decoder failure fails the calling test.
using TsharkRow = std::vector<std::vector<std::string>>;
std::vector<TsharkRow> tsharkTable(const std::vector<Datagram>& datagrams,
                                   const std::vector<std::string>& fields);
// ipfixDump's decode of the payloads.
CommandResult ipfixDumpDecode(const std::vector<Datagram>& datagrams);
// The data records of templates `tids` in ipfixDump's output, each by field name.
std::vector<std::map<std::string, std::string>> ipfixDumpRecords(const std::string& out,
                                                                 const std::set<int>& tids);

}  // namespace TestSupport
