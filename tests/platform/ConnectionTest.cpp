#include <cerrno>

#include "platform/Objects.h"

namespace tandor::test {
namespace {

using States = std::vector<std::string>;

std::string posixState(const std::string& name, int error) {
  return name + " " + std::string(NSError::posixDomain) + " " + std::to_string(error);
}

/// Every test runs with a pinned queue and with a free one.
class ConnectionTest : public LoopTest, public testing::WithParamInterface<bool> {
 protected:
  [[nodiscard]] Outbound started(const std::string& host, std::uint16_t port,
                                 const NWParameters& parameters = NWParameters::tcp()) {
    return outbound(GetParam(), host, port, parameters);
  }
};

INSTANTIATE_TEST_SUITE_P(Queue, ConnectionTest, testing::Bool(),
                         [](const auto& kind) { return kind.param ? "Pinned" : "Free"; });

TEST_P(ConnectionTest, ReportsWhatBecomesOfTheWay) {
  const Listener listener;
  const Listener listener6("::1");
  const std::uint16_t used = listener.port();
  const std::uint16_t unused = [] { return Listener().port(); }();
  const auto tcp = NWParameters::tcp();
  const auto udp = NWParameters::udp();
  const auto through = [](NWParameters parameters, const char* interface) {
    parameters.requiredInterface = NWInterface{.name = interface};
    return parameters;
  };
  const std::string refused = posixState("waiting", ECONNREFUSED);
  const std::string unreachable = posixState("waiting", ENETUNREACH);
  const std::string noDevice = posixState("failed", ENODEV);
  struct Case {
    std::string host;
    std::uint16_t port;
    NWParameters parameters;
    std::string last;
  };
  const std::vector<Case> cases = {
      {"127.0.0.1", used, tcp, "ready"},
      {"::1", listener6.port(), tcp, "ready"},
      {"localhost", used, tcp, "ready"},              // where only IPv4 listens
      {"localhost", listener6.port(), tcp, "ready"},  // only IPv6
      {"several.test", used, tcp, "ready"},           // only the last of its addresses
      {"127.0.0.1", used, through(tcp, "lo"), "ready"},
      {"127.0.0.1", unused, tcp, refused},
      {"several.test", unused, tcp, refused},
      {"192.0.2.1", 80, tcp, unreachable},
      {"127.0.0.1", used, through(tcp, "down0"), unreachable},
      {"127.0.0.1", used, through(tcp, "absent0"), noDevice},
      {"nowhere.invalid", 80, tcp, "waiting DNSErrorDomain"},
      {"", 80, tcp, "waiting"},
      {"localhost", unused, udp, "ready"},
      {"192.0.2.1", 53, udp, unreachable},
      {"127.0.0.1", 53, through(udp, "absent0"), noDevice},
  };
  for (const auto& [host, port, parameters, last] : cases) {
    SCOPED_TRACE(host + " " + std::to_string(port));
    const Outbound connection = started(host, port, parameters);
    EXPECT_TRUE(connection.reaches(last));
    const States states = connection.states();
    EXPECT_EQ(states.size(), 2U);
    EXPECT_EQ(states.front(), "preparing");
    EXPECT_EQ(codeOf(connection.send("x").get()) == 0, last == "ready");
    connection.cancel();
    EXPECT_TRUE(connection.reaches("cancelled"));
    connection.cancel();
    settle();
    EXPECT_EQ(connection.states().size(), 3U);
  }
}

TEST_P(ConnectionTest, CancelEndsWhateverItIsDoing) {
  const auto expectCancelled = [this](const Outbound& connection) {
    EXPECT_EQ(codeOf(connection.send("late").get()), ECANCELED);
    const Read received = connection.receive().get();
    EXPECT_EQ(codeOf(received.error), ECANCELED);
    EXPECT_FALSE(received.data);
    settle();
    EXPECT_EQ(connection.states().back(), "cancelled");
  };
  const Outbound connecting = started("203.0.113.200", 80);
  EXPECT_EQ(codeOf(connecting.receive().get().error), ENOTCONN);
  connecting.cancel();
  expectCancelled(connecting);
  EXPECT_EQ(connecting.states().size(), 2U);

  const Outbound resolving = started("several.test", 80);
  resolving.cancel();
  const Awaited<bool> resolved;
  resolver().resolve("several.test", [&](const auto&) { resolved.set(true); });
  static_cast<void>(resolved.get());
  expectCancelled(resolving);
}

}  // namespace
}  // namespace tandor::test
