#pragma once
// The tracker-to-FtId assignment kept across restarts, so that each tracker keeps its
// IPFIX observation domain id. One line per tracker: "<ftId> <tracker name>".

#include <map>
#include <string>
#include <string_view>

namespace Agent {

class FtIdStateFile {
 public:
  explicit FtIdStateFile(std::string path) : path_(std::move(path)) {}
  const std::string& path() const { return path_; }
  // The saved assignment; empty when there is no file. Malformed lines are skipped and
  // described in `warning`. A file that exists but cannot be read is described there
  // too, and from then on save() refuses to replace it: the ids it holds are not lost
  // because of a permission or an I/O error.
  std::map<std::string, uint32_t> load(std::string* warning = nullptr);
  // The assignment in a file's text (`path` names it in warnings): lines "<id> <name>"
  // with ids 1..65535; malformed lines and repeated ids or names are skipped and
  // described in `warning`.
  static std::map<std::string, uint32_t> parse(std::string_view text, const std::string& path,
                                               std::string* warning = nullptr);
  // The file's text for an assignment, as save() writes it.
  static std::string text(const std::map<std::string, uint32_t>& ids);
  // Writes the assignment atomically (a temporary file renamed over the old one).
  // Returns false with the reason in `error`.
  bool save(const std::map<std::string, uint32_t>& ids, std::string* error) const;
  // False after a load() that could not read an existing file.
  bool readable() const { return readable_; }

 private:
  std::string path_;
  bool readable_ = true;
};

}  // namespace Agent
