#include <csignal>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <stdexcept>
#include <string>
#include <string_view>
#include <sys/mount.h>

#include <gtest/gtest.h>

#include "platform/foundation/NSLog.h"

// The whole program runs in a network namespace of its own, made before the first test: loopback
// with more addresses besides its usual ones, an interface `void0` whose network, 203.0.113.128/25,
// swallows everything, and one, `down0`, that is down. Names come from a file of its own.

namespace tandor::test {
namespace {

constexpr const char* hosts =
    "127.0.0.1 localhost\n"
    "::1 localhost\n"
    "127.0.0.2 several.test\n"
    "127.0.0.3 several.test\n"
    "127.0.0.1 several.test\n";

/// Runs the lines as commands of ip(8).
void ip(const char* commands) {
  std::FILE* pipe = ::popen("ip -batch -", "w");
  ASSERT_NE(pipe, nullptr);
  std::fputs(commands, pipe);
  ASSERT_EQ(::pclose(pipe), 0);
}

/// Shows other content at a file's place, in this process's mount namespace only.
void replaceFile(const std::string& path, std::string_view content) {
  if (!std::filesystem::exists(path)) return;
  const std::string copy = testing::TempDir() + "tandor-" + std::to_string(::getpid());
  std::ofstream(copy) << content;
  const int result = ::mount(copy.c_str(), path.c_str(), nullptr, MS_BIND, nullptr);
  std::filesystem::remove(copy);
  if (result != 0) throw std::runtime_error("cannot replace " + path);
}

class Surroundings final : public testing::Environment {
 public:
  void SetUp() override {
    ASSERT_EQ(::unshare(CLONE_NEWNET | CLONE_NEWNS), 0) << "these tests need root";
    ASSERT_EQ(::mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), 0);
    replaceFile("/etc/hosts", hosts);
    replaceFile("/etc/resolv.conf", "nameserver 192.0.2.53\n");  // there is no way to it
    ip("link set lo up\n"
       "address add 203.0.113.1/32 dev lo\n"
       "link add void0 type veth peer name void1\n"
       "link set void0 up arp off\n"
       "link set void1 up\n"
       "link add down0 type bridge\n"
       "route add 203.0.113.128/25 dev void0\n");
    std::signal(SIGPIPE, SIG_IGN);
    setNSLogSink([](std::string_view) {});
  }
};

// The test program takes ownership.
const testing::Environment* const surroundings =
    testing::AddGlobalTestEnvironment(std::make_unique<Surroundings>().release());

}  // namespace

}  // namespace tandor::test
