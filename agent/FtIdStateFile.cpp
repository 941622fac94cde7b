#include "agent/FtIdStateFile.h"

#include "agent/AgentConfig.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>

namespace Agent {

std::map<std::string, uint32_t> FtIdStateFile::load(std::string* warning) {
  auto unreadable = [&](int err) {
    readable_ = false;
    if (warning) {
      *warning += "cannot read " + path_ + ": " + std::strerror(err) +
                  "; it is kept as it is and not written until it can be read at a start\n";
    }
    return std::map<std::string, uint32_t>();
  };
  readable_ = true;
  struct stat st {};
  if (::stat(path_.c_str(), &st) == 0 && !S_ISREG(st.st_mode)) return unreadable(EISDIR);
  std::ifstream in(path_);
  if (!in) {
    if (errno == ENOENT) return {};  // the first start
    return unreadable(errno);
  }
  std::string text((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  if (in.bad()) return unreadable(errno ? errno : EIO);
  return parse(text, path_, warning);
}

std::map<std::string, uint32_t> FtIdStateFile::parse(std::string_view text, const std::string& path,
                                                     std::string* warning) {
  std::map<std::string, uint32_t> ids;
  std::map<uint32_t, std::string> owners;  // an id belongs to the first line that names it
  int lineNo = 0;
  // A damaged file may hold millions of bad lines: the first few are named, the rest
  // counted.
  constexpr int kNamed = 5;
  int bad = 0;
  auto ignored = [&](const std::string& why) {
    if (warning && ++bad <= kNamed) {
      *warning += path + ":" + std::to_string(lineNo) + ": ignored " + why + "\n";
    }
  };
  for (size_t at = 0; at < text.size();) {
    const size_t end = std::min(text.find('\n', at), text.size());
    const std::string line(text.substr(at, end - at));
    at = end + 1;
    ++lineNo;
    if (line.empty() || line[0] == '#') continue;
    size_t space = line.find(' ');
    unsigned long id = 0;
    bool ok = space != std::string::npos && space > 0 && space + 1 < line.size();
    if (ok) {
      // Digits only (no sign, no blank, no NUL byte that would end strtoul early), and
      // few enough that they cannot wrap.
      const std::string number = line.substr(0, space);
      ok = number.size() <= 9 &&
           std::all_of(number.begin(), number.end(), [](char c) { return c >= '0' && c <= '9'; });
      if (ok) id = std::strtoul(number.c_str(), nullptr, 10);
      ok = ok && id >= 1 && id <= 65535;
    }
    if (!ok) {
      ignored("malformed line");
      continue;
    }
    // Read back like a name in the configuration: the file is outside input.
    const std::string name = line.substr(space + 1);
    if (const std::string why = nameProblem(name); !why.empty()) {
      ignored("line: " + why);
      continue;
    }
    const auto owner = owners.find(static_cast<uint32_t>(id));
    if (owner != owners.end() || ids.count(name)) {
      // A repeated id or name (a hand-edited or damaged file): the later line is dropped
      // and its tracker gets a fresh id.
      ignored("line: " + (owner != owners.end()
                              ? "id " + std::to_string(id) + " is " + owner->second + "'s"
                              : "tracker " + name + " has an id already"));
      continue;
    }
    owners[static_cast<uint32_t>(id)] = name;
    ids[name] = static_cast<uint32_t>(id);
  }
  if (warning && bad > kNamed) {
    *warning += path + ": and " + std::to_string(bad - kNamed) + " more lines ignored\n";
  }
  return ids;
}

std::string FtIdStateFile::text(const std::map<std::string, uint32_t>& ids) {
  std::string out = "# flowexportd: tracker observation domain ids (FtId tracker)\n";
  for (const auto& [name, id] : ids) out += std::to_string(id) + ' ' + name + '\n';
  return out;
}

bool FtIdStateFile::save(const std::map<std::string, uint32_t>& ids, std::string* error) const {
  if (!readable_) {
    if (error) *error = "not writing " + path_ + ": it could not be read at start";
    return false;
  }
  std::error_code ec;
  const auto dir = std::filesystem::path(path_).parent_path();
  if (!dir.empty()) std::filesystem::create_directories(dir, ec);
  const std::string tmp = path_ + ".tmp";
  {
    std::ofstream out(tmp, std::ios::trunc);
    if (!out) {
      if (error) *error = "cannot write " + tmp + ": " + std::strerror(errno);
      return false;
    }
    out << text(ids);
    out.flush();
    if (!out) {
      if (error) *error = "cannot write " + tmp + ": " + std::strerror(errno);
      ::unlink(tmp.c_str());
      return false;
    }
  }
  if (std::rename(tmp.c_str(), path_.c_str()) != 0) {
    if (error) *error = "cannot rename " + tmp + ": " + std::strerror(errno);
    ::unlink(tmp.c_str());
    return false;
  }
  return true;
}

}  // namespace Agent
