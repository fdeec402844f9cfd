#include <cstring>
#include <fcntl.h>
#include <linux/if_tun.h>
#include <mutex>
#include <net/if.h>
#include <sys/ioctl.h>
#include <thread>

#include "platform/Support.h"
#include "platform/linux/CurrentPath.h"
#include "platform/linux/NetlinkPathMonitor.h"

namespace tandor::test {
namespace {

using namespace std::chrono_literals;
using Type = NWInterface::InterfaceType;

/// Three interfaces with their peers, up, and a monitor that has told its first path.
class PathMonitorTest : public DescriptorTest {
 protected:
  using Interfaces = std::vector<std::pair<std::string, Type>>;

  void SetUp() override {
    DescriptorTest::SetUp();
    ip("link add path0 type veth peer name path1\n"
       "link set path0 up\n"
       "link set path1 up\n"
       "link add path2 type bridge\n"
       "link set path2 up\n"
       "link set path0 master path2\n"
       "link add path3 type veth peer name path4\n"
       "link set path3 up\n"
       "link set path4 up\n");
    monitor_ = std::make_unique<NetlinkPathMonitor>(*service_);
    monitor_->setPathUpdateHandler([this](const NWPath& path) {
      const std::scoped_lock lock(mutex_);
      reports_.push_back(path);
    });
    monitor_->start(GlobalQueue::shared());
    EXPECT_TRUE(shows({}));
  }
  void TearDown() override {
    monitor_.reset();
    for (const char* name : {"path0", "path2", "path3"})
      ip(std::string("link delete ") + name + "\n");
    service_.reset();
    DescriptorTest::TearDown();
  }

  [[nodiscard]] std::size_t reports() const {
    const std::scoped_lock lock(mutex_);
    return reports_.size();
  }
  /// Whether the last report tells exactly these interfaces, in this order, within a second of the
  /// call; the machine's load is forgiven.
  [[nodiscard]] bool shows(const Interfaces& expected) const {
    return eventually([&] {
      const std::scoped_lock lock(mutex_);
      if (reports_.empty()) return false;
      Interfaces interfaces;
      for (const NWInterface& interface : reports_.back().availableInterfaces)
        interfaces.emplace_back(interface.name, interface.type);
      return interfaces == expected;
    });
  }

  std::unique_ptr<ServiceThread> service_ = std::make_unique<ServiceThread>();
  std::unique_ptr<NetlinkPathMonitor> monitor_;
  mutable std::mutex mutex_;
  std::vector<NWPath> reports_;
};

TEST_F(PathMonitorTest, FollowsInterfacesAndDefaultRoutes) {
  const std::pair ethernet("path1", Type::wiredEthernet);
  const std::pair second("path3", Type::wiredEthernet);
  const std::pair bridge("path2", Type::other);
  struct Step {
    std::string command;
    Interfaces expected;
  };
  const std::vector<Step> steps = {
      {"route add default dev path1 metric 100", {ethernet}},
      {"route add default dev path2 metric 50", {bridge, ethernet}},
      {"route add default dev path2 metric 500", {bridge, ethernet}},
      {"route delete default dev path2 metric 50", {ethernet, bridge}},
      {"route add default dev path3 metric 90 table 77", {ethernet, bridge, second}},
      {"link set path4 down", {ethernet, bridge}},  // no carrier
      {"link set path4 up", {ethernet, bridge, second}},
      {"route delete default dev path3 table 77", {ethernet, bridge}},
      {"link set path1 down", {bridge}},  // takes its route with it
      {"link set path1 up\nroute add default nexthop dev path1 nexthop dev path3",
       {ethernet, second, bridge}},
      {"route delete default nexthop dev path1 nexthop dev path3", {bridge}},
      {"route delete default dev path2 metric 500", {}},
  };
  for (const Step& step : steps) {
    SCOPED_TRACE(step.command);
    const auto begin = std::chrono::steady_clock::now();
    ip(step.command + "\n");
    EXPECT_TRUE(shows(step.expected));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, isSanitized ? 5s : 2s);
  }
}

TEST_F(PathMonitorTest, KnowsATunnelFromAnEthernet) {
  const FileDescriptor tunnel(::open("/dev/net/tun", O_RDWR | O_CLOEXEC));
  if (!tunnel.isOpen()) GTEST_SKIP() << "this machine has no tunnels";
  ifreq request{};
  std::strcpy(request.ifr_name, "path9");  // NOLINT(*-strcpy): it fits
  request.ifr_flags = IFF_TUN | IFF_NO_PI;
  ASSERT_EQ(::ioctl(tunnel.get(), TUNSETIFF, &request), 0);
  ip("link set path9 up\nroute add default dev path9 metric 10\n"
     "route add default dev path1 metric 20\n");
  EXPECT_TRUE(shows({{"path9", Type::other}, {"path1", Type::wiredEthernet}}));
}

TEST_F(PathMonitorTest, ReportsNothingWhenThePathStaysTheSame) {
  ip("route add default dev path1\n");
  ASSERT_TRUE(shows({{"path1", Type::wiredEthernet}}));
  const std::size_t before = reports();
  std::string commands;
  for (int number = 0; number < 300; ++number) {
    commands +=
        "address add 10.77.0.1/24 dev path3\nroute add 10.78.0.0/16 dev path3\n"
        "route delete 10.78.0.0/16 dev path3\naddress delete 10.77.0.1/24 dev path3\n";
    if (number % 10 == 0)
      commands += "link add path8 type veth peer name path7\nlink delete path8\n";
  }
  const Awaited<bool> over;
  const std::jthread changes([&] {
    ip(commands);
    over.set(true);
  });
  const NWPath path = currentPath();
  int others = 0;
  while (!over.isSet()) others += currentPath() == path ? 0 : 1;
  EXPECT_EQ(others, 0);
  EXPECT_EQ(reports(), before);
  // A change at the end shows that everything before it has been looked at.
  ip("route delete default\n");
  ASSERT_TRUE(shows({}));
  EXPECT_EQ(reports(), before + 1);
}

TEST_F(PathMonitorTest, IsSilentOnceItIsGone) {
  for (int round = 0; round < 6; ++round) {
    std::atomic<bool> isGone = false;
    auto monitor = std::make_unique<NetlinkPathMonitor>(*service_);
    monitor->setPathUpdateHandler([&](const NWPath& /*path*/) { EXPECT_FALSE(isGone); });
    monitor->start(GlobalQueue::shared());
    ip(round % 2 == 0 ? "route add default dev path1\n" : "route delete default dev path1\n");
    monitor.reset();
    isGone = true;
    EXPECT_TRUE(shows(round % 2 == 0 ? Interfaces{{"path1", Type::wiredEthernet}} : Interfaces{}));
  }
}

}  // namespace
}  // namespace tandor::test
