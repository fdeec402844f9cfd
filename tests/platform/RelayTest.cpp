#include <array>
#include <cerrno>
#include <future>
#include <poll.h>
#include <random>
#include <sched.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

#include <asio/post.hpp>
#include <fmt/format.h>

#include "ipc/AppMessage.h"
#include "platform/Objects.h"
#include "platform/linux/LinuxBackend.h"
#include "provider/TandorTransparentProxyProvider.h"

namespace tandor::test {
namespace {

using namespace std::chrono_literals;

constexpr std::size_t mebibyte = std::size_t{1} << 20;
constexpr const char* established = "HTTP/1.1 200 Connection Established\r\n\r\n";

/// `body` behind its length in `width` bytes.
std::string sized(std::size_t width, const std::string& body) {
  std::string text;
  for (std::size_t shift = 8 * width; shift > 0; shift -= 8)
    text += static_cast<char>(body.size() >> (shift - 8));
  return text + body;
}

/// A TLS ClientHello, in one record, to the server of this name.
std::string helloTo(const std::string& name) {
  const std::string none(2, '\0');
  const std::string serverName = none + sized(2, sized(2, '\0' + sized(2, name)));
  const std::string body = "\x03\x03" + pattern(32) + '\0' + sized(2, "\x13\x01") +
                           sized(1, std::string(1, '\0')) + sized(2, serverName);
  return "\x16\x03\x01" + sized(2, '\x01' + sized(3, body));
}

/// A whole provider over the real backend, in this process: flows are offered to it as the platform
/// would, from sockets whose other end plays the application.
class RelayTest : public DescriptorTest, private NEProviderHost {
 protected:
  using Settings = std::map<std::string, std::string>;

  void SetUp() override {
    DescriptorTest::SetUp();
    backend_ = LinuxBackend::make(2).value();
    PlatformBackend::install(backend_.get());
  }

  void TearDown() override {
    provider_->stopProxy(NEProviderStopReason::userInitiated, [] {});
    EXPECT_TRUE(provider_->proxyConnections().empty());
    EXPECT_TRUE(eventually([this] { return openDescriptors() <= idleDescriptors_; }))
        << openDescriptors() - idleDescriptors_ << " descriptors of flows are left";
    provider_ = nullptr;
    backend_ = nullptr;
    PlatformBackend::install(nullptr);
    DescriptorTest::TearDown();
  }

  static Settings proxyAt(std::uint16_t port, const std::string& host = "127.0.0.1") {
    return {{"mode", "webProxy"}, {"proxyHostname", host}, {"proxyPort", std::to_string(port)}};
  }
  static Settings mode(const std::string& name) { return {{"mode", name}}; }

  /// Starts a provider that takes the flows of "app".
  void start(Settings settings) {
    complete(settings);
    AnyDictionary dictionary;
    for (const auto& [key, value] : settings) dictionary.emplace(key, value);
    provider_ = std::make_shared<TandorTransparentProxyProvider>();
    provider_->attach(*this, std::make_shared<NETunnelProviderProtocol>(dictionary));
    const Awaited<Error> started;
    provider_->startProxy({}, [started](const Error& error) { started.set(error); });
    ASSERT_EQ(codeOf(started.get()), 0);
    const Awaited<bool> watching;
    asio::post(backend_->service().context(), [watching] { watching.set(true); });
    static_cast<void>(watching.get());
    idleDescriptors_ = openDescriptors();
  }

  void configure(Settings settings) {
    complete(settings);
    std::string json;
    for (const auto& [key, value] : settings)
      json += fmt::format(R"({}"{}":"{}")", json.empty() ? "{" : ",", key,
                          value.starts_with('[') ? R"([\"app\"])" : value);
    provider_->handleAppMessage(makeAppMessage("updateConfig", Data::copying(json + "}")), nullptr);
  }

  /// Offers a flow; the application's end of it if the provider takes it.
  [[nodiscard]] std::optional<Peer> offer(const SocketAddress& remote,
                                          const std::string& app = "app", int buffer = 0) {
    TCPFlow pair = makeTCPFlow(backend_->nextLoop(), buffer, app,
                               {remote.host(), std::to_string(remote.port())});
    if (!provider_->handleNewFlow(pair.flow)) return std::nullopt;
    return std::move(pair.app);
  }
  [[nodiscard]] std::optional<Peer> offerDatagrams(const SocketAddress& remote) {
    const NWHostEndpoint endpoint{remote.host(), std::to_string(remote.port())};
    UDPFlow pair = makeUDPFlow(backend_->nextLoop(), "app", endpoint);
    if (!provider_->handleNewUDPFlow(pair.flow, endpoint)) return std::nullopt;
    return std::move(pair.app);
  }

  [[nodiscard]] TandorTransparentProxyProvider& provider() { return *provider_; }

  /// Where applications want to go: an address that is no private one and yet reaches us.
  const Listener origin_{"203.0.113.1"};
  Listener proxy_;

 private:
  static void complete(Settings& settings) {
    settings.emplace("enable", "true");
    settings.emplace("appIds", R"(["app"])");
  }
  void setTunnelNetworkSettings(const NETransparentProxyNetworkSettings& /*settings*/,
                                Completion completion) override {
    completion(std::nullopt);
  }

  std::unique_ptr<LinuxBackend> backend_;
  std::shared_ptr<TandorTransparentProxyProvider> provider_;
  std::size_t idleDescriptors_ = 0;
};

TEST_F(RelayTest, TakesTheRouteOfItsModeAndOfTheFirstBytes) {
  enum class Route : std::uint8_t { untaken, direct, tunnel, plain };
  const std::string hello = helloTo("web.example");
  const std::string request = fmt::format(
      "CONNECT web.example:{0} HTTP/1.1\r\nHost: web.example:{0}\r\n"
      "Proxy-Connection: keep-alive\r\n\r\n",
      origin_.port());
  const Settings web = proxyAt(proxy_.port());
  struct Case {
    std::string what;
    Settings settings;
    std::string first;
    Route route;
    std::string reply{};  // of the proxy when it is asked for a tunnel; empty: it hangs up
    std::string app = "app";
  };
  const std::vector<Case> cases = {
      {"listed, direct", mode("directlyWhiteList"), hello, Route::direct},
      {"not listed", mode("directlyWhiteList"), hello, Route::untaken, {}, "other"},
      {"listed apart", mode("tunnelWhiteList"), hello, Route::untaken},
      {"all others", mode("tunnelWhiteList"), "SSH-2.0", Route::direct, {}, "other"},
      {"tunnel", web, hello, Route::tunnel, established},
      {"long hello", web, helloTo("web.example") + pattern(30'000), Route::tunnel, established},
      {"refused tunnel", web, hello, Route::direct, "HTTP/1.1 403 Forbidden\r\n\r\n"},
      {"hung up on", web, hello, Route::direct},
      {"plain request", web, "GET / HTTP/1.1\r\n\r\n", Route::plain},
      {"neither", web, "SSH-2.0", Route::direct, "none"},
      {"name that goes direct", web, helloTo("www.gnome.org"), Route::direct, "none"},
      {"proxy by its name", proxyAt(proxy_.port(), "localhost"), hello, Route::tunnel, established},
  };
  start(web);
  for (const Case& item : cases) {
    SCOPED_TRACE(item.what);
    configure(item.settings);
    const auto app = offer(origin_.address(), item.app);
    ASSERT_EQ(app.has_value(), item.route != Route::untaken);
    if (!app) continue;
    app->send(item.first);
    std::optional<Peer> far;
    if (item.settings.contains("proxyPort")) {
      far = proxy_.accept();
      if (item.first.starts_with("\x16") && item.reply != "none") {
        EXPECT_EQ(far->receive(request.size()), request);
        if (item.reply.empty()) far->finishSending();
        if (!item.reply.empty()) far->send(item.reply);
      }
    }
    if (item.route == Route::direct) {
      EXPECT_TRUE(!far || far->receiveAll().text.empty());
      far = origin_.accept();
    }
    EXPECT_TRUE(far->receive(item.first.size()) == item.first);
    app->send("ping");
    EXPECT_EQ(far->receive(4), "ping");
    far->send("pong");
    EXPECT_EQ(app->receive(4), "pong");
    far->finishSending();
    const Transcript end = app->receiveAll();
    EXPECT_EQ(end.text, "");
    EXPECT_EQ(end.error, 0);
    EXPECT_EQ(far->receiveAll().error, 0);
  }
}

TEST_F(RelayTest, ShowsEachSideHowTheOtherEnds) {
  start(mode("directlyWhiteList"));
  const auto nowhere = SocketAddress::fromNumeric("203.0.113.1", 1).value();
  const auto unreachable = SocketAddress::fromNumeric("192.0.2.1", 80).value();
  EXPECT_EQ(offer(nowhere)->receiveError(), ECONNRESET);
  EXPECT_EQ(offer(unreachable)->receiveError(), ECONNRESET);
  const auto connect = [this] {
    auto app = offer(origin_.address());
    return std::pair(std::move(*app), origin_.accept());
  };
  {
    SCOPED_TRACE("the destination resets");
    auto [app, far] = connect();
    far.send("partly");
    EXPECT_EQ(app.receive(6), "partly");
    far.reset();
    EXPECT_EQ(app.receiveError(), ECONNRESET);
  }
  {
    SCOPED_TRACE("the application is done: all of it arrives, though nobody waits for the answer");
    auto [app, far] = connect();
    const std::jthread sending([&] {
      app.sendPattern(4 * mebibyte);
      app.finishSending();
    });
    const Transcript all = far.receiveAll(1ms);
    EXPECT_TRUE(all.text == pattern(4 * mebibyte));
    EXPECT_EQ(all.error, 0);
    EXPECT_EQ(app.receiveError(), 0);
  }
  {
    SCOPED_TRACE("the application resets");
    auto [app, far] = connect();
    app.send("partly");
    EXPECT_EQ(far.receive(6), "partly");
    app.reset();
    EXPECT_EQ(far.receiveAll().text, "");
  }
  {
    SCOPED_TRACE("switched off, with the last bytes on their way to a slow reader");
    auto [app, far] = connect();
    std::jthread sending([&] { EXPECT_NE(far.trySend(pattern(64 * mebibyte)), 0); });
    EXPECT_EQ(app.receive(4096), pattern(4096));
    provider().sleep([] {});
    const Transcript rest = app.receiveAll(1ms);
    EXPECT_EQ(rest.error, 0);
    EXPECT_TRUE(rest.text == pattern(rest.text.size(), 4096));
    EXPECT_FALSE(offer(origin_.address()));
    provider().wake();
    app.close();
    sending.join();  // ended by a reset, as a sender whom nobody hears
  }
  configure(proxyAt(1));
  EXPECT_EQ(offer(origin_.address())->receiveError(), ECONNRESET);
  configure(proxyAt(80, "nowhere.invalid"));
  EXPECT_EQ(offer(origin_.address())->receiveError(), ECONNRESET);
}

TEST_F(RelayTest, CarriesDatagramsAndRefusesWhatTheProxyCannotCarry) {
  start(mode("directlyWhiteList"));
  const Peer far = boundPeer(SOCK_DGRAM, "203.0.113.1");
  const auto app = offerDatagrams(far.address());
  app->send("hello");
  EXPECT_EQ(far.acceptDatagram(), "hello");
  for (const std::size_t size : {60'000U, 1U, 1400U}) {
    for (std::size_t number = 0; number < 20; ++number) {
      app->send(pattern(size, number));
      EXPECT_TRUE(far.receiveOnce() == pattern(size, number));
      far.send(pattern(size, number + 1));
      EXPECT_TRUE(app->receiveOnce() == pattern(size, number + 1));
    }
  }
  const auto nobody = offerDatagrams(boundPeer(SOCK_DGRAM, "203.0.113.1").address());
  nobody->send("anybody?");
  EXPECT_TRUE(eventually([&] { return nobody->trySend("still?") == ECONNREFUSED; }));

  configure(proxyAt(proxy_.port()));
  EXPECT_FALSE(offerDatagrams(far.address()));
  const auto quic = offerDatagrams(SocketAddress::fromNumeric("203.0.113.1", 443).value());
  EXPECT_TRUE(eventually([&] { return quic->trySend("hello") == ECONNREFUSED; }));
}

TEST_F(RelayTest, CarriesMuchBothWaysThroughATunnel) {
  constexpr std::size_t count = (isSanitized ? 8 : 64) * mebibyte;
  start(proxyAt(proxy_.port()));
  const auto app = offer(origin_.address());
  const std::string hello = helloTo("web.example");
  app->send(hello);
  const Peer far = proxy_.accept();
  EXPECT_TRUE(far.receiveOnce().starts_with("CONNECT "));
  far.send(established);
  EXPECT_EQ(far.receive(hello.size()), hello);
  const std::jthread up([&] { app->sendPattern(count); });
  const std::jthread down([&] { far.sendPattern(count); });
  const std::jthread back([&] { EXPECT_EQ(app->receivePattern(count), count); });
  EXPECT_EQ(far.receivePattern(count), count);
}

TEST_F(RelayTest, HoldsLittleForASlowReader) {
  start(mode("directlyWhiteList"));
  constexpr std::size_t flows = 8;
  constexpr std::size_t muchMore = 32 * mebibyte;
  const std::size_t before = residentBytes();
  std::vector<Peer> peers;
  for (std::size_t flow = 0; flow < flows; ++flow) {
    peers.push_back(std::move(*offer(origin_.address(), "app", 65'536)));
    const Peer& far = peers.emplace_back(origin_.accept());
    const std::string text(65'536, 'x');
    std::size_t sent = 0;
    for (int stalls = 0; stalls < 3;) {
      const ssize_t count = ::send(far.descriptor(), text.data(), text.size(), MSG_DONTWAIT);
      sent += count > 0 ? static_cast<std::size_t>(count) : 0;
      stalls = count > 0 ? 0 : stalls + 1;
      if (count < 0) std::this_thread::sleep_for(10ms);
      ASSERT_LT(sent, muchMore) << "nothing holds the sender back";
    }
  }
  EXPECT_LT(std::max(residentBytes(), before) - before, flows * mebibyte);
}

TEST_F(RelayTest, LeavesNothingOfManyShortConnections) {
  start(mode("directlyWhiteList"));
  for (int count = 0; count < (isSanitized ? 500 : 2000); ++count) {
    auto app = offer(origin_.address());
    app->send("?");
    Peer far = origin_.accept();
    EXPECT_EQ(far.receive(1), "?");
    far.send("!");
    // In turn: the far side ends, the application ends, either goes away without reading.
    const int way = count % 4;
    if (way == 0) far.finishSending();
    EXPECT_EQ(app->receive(way == 0 ? 2 : way == 1 ? 1 : 0), way < 2 ? "!" : "");
    if (way == 3) far.reset();
  }
}

/// Sockets of another namespace, at 203.0.113.7, to which two ways lead: the better one over
/// `near1`, the default route over `near0`. The namespace lasts as long as they do.
struct FarSide {
  Listener listener;
  Peer datagrams;
};

FarSide makeFarSide() {
  const Awaited<pid_t> thread;
  const Awaited<bool> linked;
  const Awaited<std::shared_ptr<FarSide>> made;
  const std::jthread far([&] {
    if (::unshare(CLONE_NEWNET) != 0) return;
    thread.set(::gettid());
    static_cast<void>(linked.get());
    ip("link set lo up\n"
       "address add 203.0.113.7/32 dev lo\n"
       "address add 10.99.0.2/24 dev far0\n"
       "address add 10.99.1.2/24 dev far1\n"
       "link set far0 up\n"
       "link set far1 up\n");
    made.set(
        std::make_shared<FarSide>(Listener("203.0.113.7"), boundPeer(SOCK_DGRAM, "203.0.113.7")));
  });
  for (const int number : {0, 1}) {
    ip(
        fmt::format("link add near{0} type veth peer name far{0}\n"
                    "link set far{0} netns {1}\n"
                    "address add 10.99.{0}.1/24 dev near{0}\n"
                    "link set near{0} up\n",
                    number, thread.get()));
  }
  linked.set(true);
  FarSide side = std::move(*made.get());
  ip("route add default via 10.99.0.2 dev near0\n"
     "route add 203.0.113.7/32 via 10.99.1.2 dev near1\n");
  return side;
}

TEST_F(RelayTest, BindsDirectConnectionsToTheInterfaceOfTheDefaultRoute) {
  const FarSide far = makeFarSide();
  start(mode("tunnelWhiteList"));
  const auto usesInterface = [this](const std::optional<std::string>& name) {
    return eventually([&] {
      const auto interface = provider().directlyInterface();
      return interface ? interface->name == name : !name;
    });
  };
  const auto sourceOf = [&](const Peer& peer) { return peer.remoteAddress().host(); };
  ASSERT_TRUE(usesInterface("near0"));
  const Peer native = connectedPeer(SOCK_STREAM, far.listener.address());
  EXPECT_EQ(sourceOf(far.listener.accept()), "10.99.1.1");

  const auto app = offer(far.listener.address(), "other");
  EXPECT_EQ(sourceOf(far.listener.accept()), "10.99.0.1");
  configure(mode("directlyWhiteList"));
  const auto datagrams = offerDatagrams(far.datagrams.address());
  datagrams->send("hello");
  EXPECT_EQ(far.datagrams.acceptDatagram(), "hello");
  EXPECT_EQ(sourceOf(far.datagrams), "10.99.0.1");

  ip("link set near0 down");
  ASSERT_TRUE(usesInterface(std::nullopt));
  const auto unbound = offer(far.listener.address());
  EXPECT_EQ(sourceOf(far.listener.accept()), "10.99.1.1");
  ip("link delete near0\nlink delete near1\n");
}

/// Sends back whatever comes, and establishes every tunnel that it is asked for, until it goes.
class Echo {
 public:
  explicit Echo(Listener listener) : listener_(std::move(listener)) {}
  [[nodiscard]] SocketAddress address() const { return listener_.address(); }

 private:
  void run(const std::stop_token& stop) {
    std::vector<Peer> peers;
    std::vector<char> buffer(65'536);
    while (!stop.stop_requested()) {
      std::vector<pollfd> polled = {{listener_.descriptor(), POLLIN, 0}};
      for (const Peer& peer : peers) polled.push_back({peer.descriptor(), POLLIN, 0});
      ::poll(polled.data(), polled.size(), 20);
      for (std::size_t index = peers.size(); index > 0; --index) {
        if (polled[index].revents == 0) continue;
        const Peer& peer = peers[index - 1];
        const ssize_t count = ::recv(peer.descriptor(), buffer.data(), buffer.size(), 0);
        std::string_view text(buffer.data(), count > 0 ? static_cast<std::size_t>(count) : 0);
        if (text.starts_with("CONNECT ")) text = established;
        if (text.empty() || peer.trySend(text) != 0)
          peers.erase(peers.begin() + static_cast<std::ptrdiff_t>(index) - 1);
      }
      if (polled[0].revents != 0) peers.push_back(listener_.accept());
    }
  }

  Listener listener_;
  std::jthread thread_{[this](const std::stop_token& stop) { run(stop); }};
};

TEST_F(RelayTest, EndsCleanlyWhateverHappensAtTheSameTime) {
  const Echo origin(Listener("203.0.113.1"));
  const Echo proxy(Listener("127.0.0.1"));
  ip("link add near0 type veth peer name near1\nlink set near1 up\nlink set near0 up\n");
  start(proxyAt(proxy.address().port()));
  std::atomic<bool> isOver = false;
  std::atomic<int> echoed = 0;
  std::vector<std::jthread> applications;
  applications.reserve(3);
  for (unsigned number = 0; number < 3; ++number) {
    applications.emplace_back([&, number] {
      std::minstd_rand random(number);
      const std::array firsts = {helloTo("web.example"), std::string("GET / HTTP/1.1\r\n\r\n"),
                                 std::string("SSH-2.0"), pattern(40'000)};
      while (!isOver) {
        if (random() % 4 == 0) {
          if (const auto app = offerDatagrams(origin.address()))
            static_cast<void>(app->trySend("hello"));
          continue;
        }
        auto app = offer(origin.address());
        if (!app) {
          std::this_thread::yield();
          continue;
        }
        const std::string& first = firsts.at(random() % firsts.size());
        static_cast<void>(app->trySend(first));
        if (random() % 8 == 0) {
          app->reset();
          continue;
        }
        // Whatever becomes of the flow, its bytes are right as far as they come, and it ends.
        std::string text(first.size(), '\0');
        const ssize_t count = ::recv(app->descriptor(), text.data(), text.size(), MSG_WAITALL);
        if (count < 0) {
          EXPECT_NE(errno, EAGAIN) << "a flow hangs";
        } else {
          EXPECT_TRUE(first.starts_with(text.substr(0, static_cast<std::size_t>(count))));
          if (static_cast<std::size_t>(count) == first.size()) ++echoed;
        }
        ::shutdown(app->descriptor(), SHUT_WR);
        if (random() % 2 == 0) static_cast<void>(app->receiveAll());
      }
    });
  }
  std::minstd_rand random(99);
  const auto end = std::chrono::steady_clock::now() + 2500ms;
  while (std::chrono::steady_clock::now() < end) {
    switch (random() % 8) {
      case 0:
        provider().setEnable(random() % 2 == 0);
        break;
      case 1:
        configure(mode("directlyWhiteList"));
        break;
      case 2:
        ip(random() % 2 == 0 ? "route replace default dev near0" : "route flush dev near0");
        break;
      case 3:
        provider().sleep([] {});
        break;
      case 4:
        provider().wake();
        break;
      default:
        configure(proxyAt(proxy.address().port()));
        std::this_thread::sleep_for(20ms);
        break;
    }
  }
  provider().stopProxy(NEProviderStopReason::providerDisabled, [] {});
  isOver = true;
  applications.clear();
  EXPECT_GT(echoed, 20);
  ip("link delete near0");
}

}  // namespace
}  // namespace tandor::test
