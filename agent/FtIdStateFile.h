#pragma once
// The tracker-to-FtId assignment kept across restarts, so that each tracker keeps its
// IPFIX observation domain id. One line per tracker: "<ftId> <tracker name>".

#include <map>
#include <string>

namespace Agent {

class FtIdStateFile {
 public:
  explicit FtIdStateFile(std::string path) : path_(std::move(path)) {}
  const std::string& path() const { return path_; }
  // The saved assignment; empty when there is no file. Malformed lines are skipped and
  // described in `warning`.
  std::map<std::string, uint32_t> load(std::string* warning = nullptr) const;
  // Writes the assignment atomically (a temporary file renamed over the old one).
  // Returns false with the reason in `error`.
  bool save(const std::map<std::string, uint32_t>& ids, std::string* error) const;

 private:
  std::string path_;
};

}  // namespace Agent
