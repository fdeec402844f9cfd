#include "host/InternetSockets.h"

#include <algorithm>
#include <charconv>
#include <fstream>
#include <iterator>
#include <optional>
#include <set>
#include <sstream>
#include <unordered_map>
#include <utility>

#include "platform/linux/application/Identifier.h"
#include "platform/linux/application/ProcessDirectory.h"

namespace tandor::host {
namespace {

using Protocol = InternetSocket::Protocol;

std::optional<ino_t> inodeIn(std::string_view text) {
  ino_t number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return number;
}

/// A line behind the header:
///   NUMBER: ADDRESS:PORT ADDRESS:PORT STATE QUEUES TIMER RETRIES UID TIMEOUT INODE ...
std::optional<InternetSocket> parseSocket(const std::string& line, Protocol protocol) {
  constexpr std::size_t inodeField = 9;
  std::istringstream stream(line);
  std::vector<std::string> fields;
  for (std::string field; fields.size() <= inodeField && stream >> field;)
    fields.push_back(std::move(field));
  if (fields.size() <= inodeField) return std::nullopt;
  const auto inode = inodeIn(fields[inodeField]);
  if (!inode) return std::nullopt;
  return InternetSocket{protocol, *inode};
}

}  // namespace

std::vector<InternetSocket> parseSocketTable(std::string_view table, Protocol protocol) {
  std::vector<InternetSocket> sockets;
  std::istringstream lines{std::string(table)};
  for (std::string line; std::getline(lines, line);)
    if (const auto socket = parseSocket(line, protocol)) sockets.push_back(*socket);
  return sockets;
}

std::vector<InternetSocket> readSocketTables(const std::filesystem::path& folder) {
  std::vector<InternetSocket> sockets;
  for (const auto& [name, protocol] : {std::pair("tcp", Protocol::tcp),
                                       {"tcp6", Protocol::tcp},
                                       {"udp", Protocol::udp},
                                       {"udp6", Protocol::udp}}) {
    std::stringstream table;
    table << std::ifstream(folder / name).rdbuf();
    std::ranges::copy(parseSocketTable(table.str(), protocol), std::back_inserter(sockets));
  }
  return sockets;
}

RunningApplications findRunningApplications() {
  std::unordered_map<ino_t, Protocol> protocols;
  for (const InternetSocket& socket : readSocketTables())
    if (socket.inode != 0) protocols.emplace(socket.inode, socket.protocol);

  RunningApplications running;
  std::set<std::pair<std::string, ino_t>> counted;
  for (const pid_t pid : runningProcesses()) {
    const auto process = ProcessDirectory::open(pid);
    if (!process) {
      ++running.unreadable;
      continue;
    }
    std::set<ino_t> held;
    for (const int descriptor : process->descriptors())
      if (const auto inode = process->socketInode(descriptor); inode && protocols.contains(*inode))
        held.insert(*inode);
    if (held.empty()) continue;
    const auto identifier = applicationIdentifier(*process);
    if (!identifier) continue;
    RunningApplication& application = running.applications[*identifier];
    application.pids.push_back(pid);
    for (const ino_t inode : held) {
      if (!counted.emplace(*identifier, inode).second) continue;
      ++(protocols.at(inode) == Protocol::tcp ? application.tcp : application.udp);
    }
  }
  return running;
}

}  // namespace tandor::host
