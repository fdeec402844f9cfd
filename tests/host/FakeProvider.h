#pragma once

#include <atomic>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

#include "platform/linux/FileDescriptor.h"

namespace tandor::host::test {

/// Speaks the provider's side of the control protocol and tells its status, but touches nothing
/// else of the machine.
class FakeProvider {
 public:
  struct Manner {
    std::string version = TANDOR_VERSION;
    std::string startError;  // the description of a start's error; empty for a start that succeeds
    std::string mutedCall;   // gets no answer
    std::string fatalCall;   // makes it hang up
  };

  explicit FakeProvider(const std::string& path) : FakeProvider(path, Manner()) {}
  FakeProvider(const std::string& path, Manner manner);
  FakeProvider(const FakeProvider&) = delete;
  FakeProvider& operator=(const FakeProvider&) = delete;
  ~FakeProvider();

  /// The requests of this call so far.
  [[nodiscard]] std::vector<nlohmann::json> requests(std::string_view call) const;
  /// The configuration of the last update.
  [[nodiscard]] nlohmann::json lastUpdate() const;
  /// Sends a line to every client that watches.
  void push(const nlohmann::json& line) const;

 private:
  struct Client {
    FileDescriptor socket;
    std::string unread;
    bool isWatching = false;
  };
  void serve();
  /// False when the client is to be dropped.
  [[nodiscard]] bool receive(Client& client);
  [[nodiscard]] bool answer(Client& client, const nlohmann::json& request);
  void tellStatus(bool hasStarted) const;

  const Manner manner_;
  const std::string path_;
  FileDescriptor listener_;
  mutable std::mutex mutex_;
  std::vector<nlohmann::json> requests_;  // guarded by mutex_
  std::vector<Client> clients_;           // guarded by mutex_
  std::string state_ = "idle";
  std::string statusPath_;
  std::atomic<bool> isEnding_ = false;
  std::jthread thread_;
};

}  // namespace tandor::host::test
