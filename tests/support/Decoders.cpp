#include "tests/support/Decoders.h"

#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace TestSupport {

namespace {
std::string readFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream ss;
  ss << in.rdbuf();
  return ss.str();
}

void put16(std::string& s, uint16_t v) {
  s.push_back(static_cast<char>(v >> 8));
  s.push_back(static_cast<char>(v));
}

uint16_t checksum(const std::string& data, uint32_t sum = 0) {
  for (size_t i = 0; i + 1 < data.size(); i += 2) {
    sum += static_cast<uint8_t>(data[i]) << 8 | static_cast<uint8_t>(data[i + 1]);
  }
  if (data.size() % 2) sum += static_cast<uint8_t>(data.back()) << 8;
  while (sum >> 16) sum = (sum & 0xffff) + (sum >> 16);
  return static_cast<uint16_t>(~sum);
}

// An IP packet carrying the datagram, with valid header and UDP checksums.
std::string ipPacket(const Datagram& d) {
  std::string udp;
  put16(udp, d.srcPort);
  put16(udp, d.dstPort);
  put16(udp, static_cast<uint16_t>(8 + d.payload.size()));
  put16(udp, 0);
  udp += d.payload;
  std::string pseudo;
  std::string pkt;
  const bool v6 = d.src.family == Nelo::IpGenAddr::ipv6;
  const size_t alen = v6 ? 16 : 4;
  pseudo.append(reinterpret_cast<const char*>(d.src.addr), alen);
  pseudo.append(reinterpret_cast<const char*>(d.dst.addr), alen);
  if (v6) {
    put16(pseudo, 0);
    put16(pseudo, static_cast<uint16_t>(udp.size()));
    put16(pseudo, 0);
    put16(pseudo, 17);
  } else {
    pseudo.push_back(0);
    pseudo.push_back(17);
    put16(pseudo, static_cast<uint16_t>(udp.size()));
  }
  uint16_t c = checksum(pseudo + udp);
  if (c == 0) c = 0xffff;
  udp[6] = static_cast<char>(c >> 8);
  udp[7] = static_cast<char>(c);
  int tos = d.tos < 0 ? 0 : d.tos;
  if (v6) {
    uint32_t w = 6u << 28 | static_cast<uint32_t>(tos) << 20;
    for (int i = 3; i >= 0; --i) pkt.push_back(static_cast<char>(w >> (8 * i)));
    put16(pkt, static_cast<uint16_t>(udp.size()));
    pkt.push_back(17);
    pkt.push_back(64);
    pkt.append(reinterpret_cast<const char*>(d.src.addr), 16);
    pkt.append(reinterpret_cast<const char*>(d.dst.addr), 16);
  } else {
    pkt.push_back(0x45);
    pkt.push_back(static_cast<char>(tos));
    put16(pkt, static_cast<uint16_t>(20 + udp.size()));
    put16(pkt, 0);
    put16(pkt, 0x4000);
    pkt.push_back(64);
    pkt.push_back(17);
    put16(pkt, 0);
    pkt.append(reinterpret_cast<const char*>(d.src.addr), 4);
    pkt.append(reinterpret_cast<const char*>(d.dst.addr), 4);
    uint16_t hc = checksum(pkt);
    pkt[10] = static_cast<char>(hc >> 8);
    pkt[11] = static_cast<char>(hc);
  }
  return pkt + udp;
}

template <class T>
void putLe(std::ofstream& out, T v) {
  out.write(reinterpret_cast<const char*>(&v), sizeof v);
}
}  // namespace

CommandResult runCommand(const std::string& command, int timeoutSeconds) {
  TempDir dir;
  std::string full = "timeout " + std::to_string(timeoutSeconds) + " " + command + " >" +
                     dir.file("out") + " 2>" + dir.file("err");
  CommandResult r;
  int rc = std::system(full.c_str());
  r.status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
  r.out = readFile(dir.file("out"));
  r.err = readFile(dir.file("err"));
  return r;
}

TempDir::TempDir() {
  std::string tmpl = (std::filesystem::temp_directory_path() / "flowexport-XXXXXX").string();
  if (!::mkdtemp(tmpl.data())) throw std::runtime_error("mkdtemp");
  path_ = tmpl;
}

TempDir::~TempDir() {
  std::error_code ec;
  std::filesystem::remove_all(path_, ec);
}

namespace {

// The datagrams as IPv4/IPv6 + UDP packets in a pcap file (link type raw IP).
void writePcap(const std::string& path, const std::vector<Datagram>& datagrams) {
  std::ofstream out(path, std::ios::binary);
  putLe<uint32_t>(out, 0xa1b2c3d4);
  putLe<uint16_t>(out, 2);
  putLe<uint16_t>(out, 4);
  putLe<int32_t>(out, 0);
  putLe<uint32_t>(out, 0);
  putLe<uint32_t>(out, 65535);
  putLe<uint32_t>(out, 101);  // LINKTYPE_RAW
  uint32_t sec = 1'800'000'000;
  for (const Datagram& d : datagrams) {
    std::string p = ipPacket(d);
    putLe<uint32_t>(out, sec++);
    putLe<uint32_t>(out, 0);
    putLe<uint32_t>(out, static_cast<uint32_t>(p.size()));
    putLe<uint32_t>(out, static_cast<uint32_t>(p.size()));
    out.write(p.data(), static_cast<std::streamsize>(p.size()));
  }
}

// The payloads back to back: an IPFIX file.
void writeIpfixFile(const std::string& path, const std::vector<Datagram>& datagrams) {
  std::ofstream out(path, std::ios::binary);
  for (const Datagram& d : datagrams) {
    out.write(d.payload.data(), static_cast<std::streamsize>(d.payload.size()));
  }
}

std::string decodeAs(const std::vector<Datagram>& datagrams) {
  std::string s;
  for (const Datagram& d : datagrams) {
    std::string opt = " -d udp.port==" + std::to_string(d.dstPort) + ",cflow";
    if (s.find(opt) == std::string::npos) s += opt;
  }
  return s;
}
}  // namespace

CommandResult tsharkDecode(const std::vector<Datagram>& datagrams) {
  TempDir dir;
  writePcap(dir.file("in.pcap"), datagrams);
  return runCommand("tshark -n -r " + dir.file("in.pcap") + decodeAs(datagrams) + " -V");
}

CommandResult tsharkFields(const std::vector<Datagram>& datagrams,
                           const std::vector<std::string>& fields) {
  TempDir dir;
  writePcap(dir.file("in.pcap"), datagrams);
  std::string cmd = "tshark -n -r " + dir.file("in.pcap") + decodeAs(datagrams) +
                    " -T fields -E separator=, -E 'aggregator=;'";
  for (const auto& f : fields) cmd += " -e " + f;
  return runCommand(cmd);
}

std::vector<TsharkRow> tsharkTable(const std::vector<Datagram>& datagrams,
                                   const std::vector<std::string>& fields) {
  const CommandResult r = tsharkFields(datagrams, fields);
  EXPECT_EQ(r.status, 0) << r.err;
  std::vector<TsharkRow> rows;
  std::istringstream lines(r.out);
  for (std::string line; std::getline(lines, line) && rows.size() < datagrams.size();) {
    TsharkRow row;
    std::istringstream cols(line + ",");
    for (std::string col; std::getline(cols, col, ',');) {
      std::vector<std::string> values;
      std::istringstream vs(col);
      for (std::string v; std::getline(vs, v, ';');) values.push_back(v);
      row.push_back(std::move(values));
    }
    rows.push_back(std::move(row));
  }
  return rows;
}

std::vector<std::map<std::string, std::string>> ipfixDumpRecords(const std::string& out,
                                                                 const std::set<int>& tids) {
  std::vector<std::map<std::string, std::string>> records;
  bool inRecord = false;
  std::istringstream lines(out);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("\tcount:", 0) == 0) {  // a data record's header: "count: 15 tid: 261"
      const auto tid = line.find("tid:");
      inRecord = tid != std::string::npos && tids.count(std::atoi(line.c_str() + tid + 4));
      if (inRecord) records.emplace_back();
    } else if (inRecord && line.rfind("\t(", 0) == 0) {  // "(7)   sourceTransportPort : 1004"
      const auto colon = line.find(" : ");
      const auto name = line.find_first_not_of(' ', line.find(')') + 1);
      if (colon == std::string::npos || name >= colon) continue;
      records.back()[line.substr(name, colon - name)] = line.substr(colon + 3);
    } else if (line != "fields:") {
      inRecord = false;  // the record ended
    }
  }
  return records;
}

CommandResult ipfixDumpDecode(const std::vector<Datagram>& datagrams) {
  TempDir dir;
  writeIpfixFile(dir.file("in.ipfix"), datagrams);
  return runCommand("ipfixDump --in " + dir.file("in.ipfix") + " --out -");
}

}  // namespace TestSupport
