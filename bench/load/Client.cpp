#include "load/Client.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <map>
#include <memory>
#include <poll.h>
#include <span>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <fmt/format.h>

#include "load/Datagrams.h"
#include "load/Flow.h"
#include "load/Measurement.h"
#include "load/Protocol.h"

namespace tandor::load {
namespace {

constexpr std::size_t largeRead = std::size_t{1024} * 1024;
/// How long flows may take to come about, or a last reply to come.
constexpr auto patience = std::chrono::seconds(20);

/// The flows of a client that does not wait.
class Epoll {
 public:
  [[nodiscard]] int get() const { return descriptor_.get(); }
  /// The flows that something happened to.
  [[nodiscard]] std::span<Flow* const> wait(std::chrono::milliseconds time) {
    const int count =
        ::epoll_wait(descriptor_.get(), events_.data(), static_cast<int>(events_.size()),
                     static_cast<int>(time.count()));
    const auto ready = static_cast<std::size_t>(std::max(count, 0));
    for (std::size_t index = 0; index < ready; ++index)
      flows_[index] = static_cast<Flow*>(events_[index].data.ptr);
    return std::span(flows_).first(ready);
  }
  /// From now on for these events only, and for as long as they are so.
  void watch(Flow& flow, std::uint32_t events) {
    epoll_event event{.events = events, .data = {.ptr = &flow}};
    if (::epoll_ctl(descriptor_.get(), EPOLL_CTL_MOD, flow.socket(), &event) != 0)
      fail("epoll_ctl");
  }

 private:
  static constexpr std::size_t batch = 256;
  FileDescriptor descriptor_{::epoll_create1(EPOLL_CLOEXEC)};
  std::array<epoll_event, batch> events_{};
  std::array<Flow*, batch> flows_{};
};

/// Warms up, then measures; however late the caller comes, it measures for the whole time.
class Period {
 public:
  explicit Period(const ClientOptions& options)
      : measurement(options.watched), time_(options.time), next_(Clock::now() + options.warmUp) {}
  /// False once it is over.
  bool goesOn(std::uint64_t bytes = 0) {
    if (Clock::now() < next_) return true;
    if (isMeasuring_) {
      measurement.end(bytes);
      return false;
    }
    measurement.begin(bytes);
    next_ = Clock::now() + time_;
    isMeasuring_ = true;
    return true;
  }
  [[nodiscard]] bool isMeasuring() const { return isMeasuring_; }

  Measurement measurement;

 private:
  Clock::duration time_;
  Clock::time_point next_;  // of the beginning, or of the end
  bool isMeasuring_ = false;
};

/// Opens them all; `atOnce` of them are under way at any time.
std::vector<std::unique_ptr<Flow>> openAll(Epoll& epoll, FlowMaker& maker, std::size_t count,
                                           std::size_t atOnce) {
  std::vector<std::unique_ptr<Flow>> flows;
  std::size_t open = 0;
  const auto deadline = Clock::now() + patience;
  while (open < count) {
    while (flows.size() < std::min(count, open + atOnce))
      flows.push_back(std::make_unique<Flow>(maker, epoll.get()));
    for (Flow* flow : epoll.wait(std::chrono::milliseconds(100))) {
      if (flow->stage() == Flow::Stage::open) continue;
      if (flow->advance() == Flow::Stage::failed) fail("a flow does not come about");
      if (flow->stage() == Flow::Stage::open) ++open;
    }
    if (Clock::now() > deadline) {
      errno = ETIMEDOUT;
      fail(fmt::format("{} of {} flows come about", open, count));
    }
  }
  return flows;
}

/// What is still on its way at the end of a measurement is nobody's business.
void abandon(const std::vector<std::unique_ptr<Flow>>& flows) {
  const linger now{.l_onoff = 1, .l_linger = 0};
  for (const auto& flow : flows)
    ::setsockopt(flow->socket(), SOL_SOCKET, SO_LINGER, &now, sizeof now);
}

void checkDown(const ClientOptions& options, const Pattern& pattern) {
  FlowMaker maker(options, {.operation = Operation::down, .isChecked = true, .size = options.size});
  const FileDescriptor flow = maker.open();
  std::vector<char> room(largeRead);
  std::uint64_t done = 0;
  for (;;) {
    const ssize_t count = ::recv(flow.get(), room.data(), room.size(), 0);
    if (count < 0) fail("down");
    if (count == 0) break;
    if (!pattern.matches(std::span(room).first(static_cast<std::size_t>(count)),
                         Pattern::downPhase + done)) {
      errno = EBADMSG;
      fail(fmt::format("down, behind byte {}", done));
    }
    done += static_cast<std::uint64_t>(count);
  }
  if (done != options.size) {
    errno = ENODATA;
    fail(fmt::format("down: {} of {} bytes came", done, options.size));
  }
}

void checkUp(const ClientOptions& options, const Pattern& pattern) {
  FlowMaker maker(options, {.operation = Operation::up, .isChecked = true, .size = options.size});
  const FileDescriptor flow = maker.open();
  for (std::uint64_t done = 0; done < options.size;) {
    const std::uint64_t count = std::min(options.size - done, std::uint64_t{Pattern::longestPiece});
    const ssize_t sent =
        ::send(flow.get(), pattern.at(Pattern::upPhase + done), count, MSG_NOSIGNAL);
    if (sent < 0) fail("up");
    done += static_cast<std::uint64_t>(sent);
  }
  std::uint64_t right = 0;
  if (::recv(flow.get(), &right, sizeof right, MSG_WAITALL) != sizeof right) fail("up: the reply");
  if (right != options.size) {
    errno = EBADMSG;
    fail("up");
  }
}

FileDescriptor datagramSocket(const ClientOptions& options) {
  FileDescriptor socket(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  const sockaddr_in& to = options.destinations.front();
  if (::connect(socket.get(), reinterpret_cast<const sockaddr*>(&to), sizeof to) != 0)
    fail("connect");
  return socket;
}

}  // namespace

std::string runCheck(const ClientOptions& options) {
  const Pattern pattern;
  checkDown(options, pattern);
  checkUp(options, pattern);
  return fmt::format(R"("checked":{})", options.size);
}

std::string runBulk(const ClientOptions& options, bool isUp) {
  const Counters& counters = Counters::shared(options.countersPath);
  FlowMaker maker(options, {.operation = isUp ? Operation::up : Operation::down, .size = endless});
  Epoll epoll;
  const auto flows = openAll(epoll, maker, options.flows, options.flows);
  const Pattern pattern;
  std::vector<char> room(largeRead);
  std::uint64_t received = 0;
  for (const auto& flow : flows) epoll.watch(*flow, isUp ? EPOLLOUT : EPOLLIN);
  const auto moved = [&] { return isUp ? counters.bytes : received; };
  Period period(options);
  while (period.goesOn(moved())) {
    for (const Flow* flow : epoll.wait(std::chrono::milliseconds(10))) {
      const ssize_t count =
          isUp ? ::send(flow->socket(), pattern.at(0), Pattern::longestPiece,
                        MSG_NOSIGNAL | MSG_DONTWAIT)
               : ::recv(flow->socket(), room.data(), room.size(), MSG_TRUNC | MSG_DONTWAIT);
      if (count == 0) errno = ECONNRESET;
      if (count <= 0 && errno != EAGAIN) fail("a flow ended");
      if (count > 0) received += static_cast<std::uint64_t>(count);
    }
  }
  abandon(flows);
  return period.measurement.members();
}

std::string runStorm(const ClientOptions& options) {
  struct Slot {
    std::unique_ptr<Flow> flow;
    Clock::time_point began;
    std::uint64_t received = 0;
  };
  FlowMaker maker(options, {.operation = Operation::flow, .size = options.size});
  Epoll epoll;
  std::vector<Slot> slots(options.flows);
  std::vector<char> room(largeRead);
  Samples samples;
  std::uint64_t failed = 0;
  const auto renew = [&](Slot& slot) {
    slot.flow.reset();
    slot = {.flow = std::make_unique<Flow>(maker, epoll.get()), .began = Clock::now()};
  };
  for (Slot& slot : slots) renew(slot);
  const auto slotOf = [&](const Flow* flow) -> Slot& {
    return *std::ranges::find_if(slots, [&](const Slot& slot) { return slot.flow.get() == flow; });
  };
  Period period(options);
  while (period.goesOn()) {
    for (Flow* flow : epoll.wait(std::chrono::milliseconds(10))) {
      Slot& slot = slotOf(flow);
      if (flow->stage() != Flow::Stage::open) flow->advance();
      ssize_t count = 0;
      while (flow->stage() == Flow::Stage::open &&
             (count = ::recv(flow->socket(), room.data(), room.size(), MSG_DONTWAIT)) > 0)
        slot.received += static_cast<std::uint64_t>(count);
      if (flow->stage() != Flow::Stage::failed &&
          (flow->stage() != Flow::Stage::open || (count < 0 && errno == EAGAIN)))
        continue;
      if (flow->stage() == Flow::Stage::open && count == 0 && slot.received == options.size) {
        if (period.isMeasuring()) samples.add(Clock::now() - slot.began);
      } else {
        ++failed;
      }
      renew(slot);
    }
  }
  return fmt::format(R"({},"failed":{},{})", period.measurement.members(), failed,
                     samples.members("flow"));
}

namespace {

/// Short round trips on one flow, every few milliseconds.
class Trips {
 public:
  Trips(const ClientOptions& options, int epoll)
      : maker_(options, {.operation = Operation::echo}), flow_(maker_.open()) {
    epoll_event event{.events = EPOLLIN, .data = {.ptr = nullptr}};
    if (::epoll_ctl(epoll, EPOLL_CTL_ADD, flow_.get(), &event) != 0) fail("epoll_ctl");
  }
  void beginIfDue() {
    const auto now = Clock::now();
    if (isUnderWay_ || now < began_ + std::chrono::milliseconds(5)) return;
    const char byte = 0;
    if (::send(flow_.get(), &byte, 1, MSG_NOSIGNAL) != 1) fail("round trip");
    began_ = now;
    isUnderWay_ = true;
  }
  void end(Samples& samples) {
    char byte = 0;
    if (::recv(flow_.get(), &byte, 1, MSG_DONTWAIT) != 1) fail("round trip");
    samples.add(Clock::now() - began_);
    isUnderWay_ = false;
  }

 private:
  FlowMaker maker_;
  FileDescriptor flow_;
  Clock::time_point began_;
  bool isUnderWay_ = false;
};

}  // namespace

std::string runChurn(const ClientOptions& options) {
  constexpr int parts = 6;
  FlowMaker maker(options, {.operation = Operation::idle});
  Epoll epoll;
  Trips trips(options, epoll.get());
  std::map<const Flow*, std::unique_ptr<Flow>> flows;
  const auto pace = options.rate == 0 ? Clock::duration(0)
                                      : Clock::duration(std::chrono::seconds(1)) / options.rate;
  std::string members;
  std::uint64_t failed = 0;
  Measurement measurement(options.watched);
  measurement.begin();
  auto next = Clock::now();
  auto end = next;
  for (int part = 0; part < parts; ++part) {
    std::uint64_t done = 0;
    Samples samples;
    end += options.time / parts;
    while (Clock::now() < end) {
      trips.beginIfDue();
      for (; flows.size() < options.flows && next <= Clock::now(); next += pace) {
        auto flow = std::make_unique<Flow>(maker, epoll.get());
        flows.emplace(flow.get(), std::move(flow));
      }
      // What could not be kept up with is not made up for later.
      next = std::max(next, Clock::now() - pace);
      for (Flow* flow : epoll.wait(std::chrono::milliseconds(1))) {
        if (flow == nullptr) {
          trips.end(samples);
          continue;
        }
        if (flow->stage() != Flow::Stage::open) flow->advance();
        char byte = 0;
        const ssize_t count =
            flow->stage() == Flow::Stage::open ? ::recv(flow->socket(), &byte, 1, MSG_DONTWAIT) : 0;
        const bool hasFailed =
            flow->stage() == Flow::Stage::failed ||
            (flow->stage() == Flow::Stage::open && count != 1 && (count == 0 || errno != EAGAIN));
        if (!hasFailed && count != 1) continue;
        ++(hasFailed ? failed : done);
        flows.erase(flow);
      }
    }
    members += fmt::format(R"(,"part{0}_flows":{1},{2})", part, done,
                           samples.members(fmt::format("part{}_trip", part)));
  }
  measurement.end();
  return fmt::format(R"({},"failed":{}{})", measurement.members(), failed, members);
}

std::string runSetUp(const ClientOptions& options) {
  FlowMaker maker(options, {.operation = Operation::flow, .size = options.size});
  std::vector<char> room(largeRead);
  Samples samples;
  Period period(options);
  while (period.goesOn()) {
    const auto began = Clock::now();
    const FileDescriptor flow = maker.open();
    ssize_t count = ::recv(flow.get(), room.data(), room.size(), 0);
    if (count <= 0) fail("no reply");
    if (period.isMeasuring()) samples.add(Clock::now() - began);
    while (count > 0) count = ::recv(flow.get(), room.data(), room.size(), 0);
  }
  return fmt::format("{},{}", period.measurement.members(), samples.members("setup"));
}

std::string runEcho(const ClientOptions& options) {
  FlowMaker maker(options, {.operation = Operation::echo});
  const FileDescriptor flow = maker.open();
  std::vector<char> room(options.size);
  Samples samples;
  Period period(options);
  while (period.goesOn()) {
    const auto began = Clock::now();
    if (::send(flow.get(), room.data(), room.size(), MSG_NOSIGNAL) < 0 ||
        ::recv(flow.get(), room.data(), room.size(), MSG_WAITALL) !=
            static_cast<ssize_t>(room.size()))
      fail("round trip");
    if (period.isMeasuring()) samples.add(Clock::now() - began);
  }
  return fmt::format("{},{}", period.measurement.members(), samples.members("trip"));
}

std::string runIdle(const ClientOptions& options) {
  FlowMaker maker(options, {.operation = Operation::idle});
  Epoll epoll;
  constexpr std::size_t atOnce = 32;
  const auto flows = openAll(epoll, maker, options.flows, atOnce);
  // The server's byte has come through everything that is between.
  const auto deadline = Clock::now() + patience;
  for (const auto& flow : flows) {
    pollfd event{.fd = flow->socket(), .events = POLLIN, .revents = 0};
    char byte = 0;
    errno = ETIMEDOUT;
    // A SYN that the server had no room for comes again after a second, and after three.
    if (::poll(&event, 1, 5000) != 1 || Clock::now() > deadline) fail("an idle flow stays silent");
    const ssize_t count = ::recv(flow->socket(), &byte, 1, MSG_DONTWAIT);
    if (count == 0) errno = ECONNRESET;
    if (count != 1) fail("an idle flow is not open");
  }
  fmt::print("{{\"open\":{}}}\n", flows.size());
  std::fflush(stdout);
  char ignored = 0;
  while (::read(STDIN_FILENO, &ignored, 1) > 0) {
  }
  std::size_t ended = 0;
  for (const auto& flow : flows) {
    char byte = 0;
    if (::recv(flow->socket(), &byte, 1, MSG_DONTWAIT) != -1 || errno != EAGAIN) ++ended;
  }
  abandon(flows);
  return fmt::format(R"("ended":{})", ended);
}

std::string runDatagramEcho(const ClientOptions& options) {
  const FileDescriptor socket = datagramSocket(options);
  DatagramBatch batch;
  std::uint64_t received = 0;
  std::uint64_t lost = 0;
  std::size_t outstanding = 0;
  Period period(options);
  while (period.goesOn(received)) {
    outstanding += batch.send(socket.get(), options.flows - outstanding, options.size);
    pollfd event{.fd = socket.get(), .events = POLLIN, .revents = 0};
    constexpr int longestTrip = 200;
    if (::poll(&event, 1, longestTrip) == 0) {
      lost += outstanding;
      outstanding = 0;
      continue;
    }
    const std::size_t count = batch.receive(socket.get());
    received += count;
    outstanding -= std::min(outstanding, count);
  }
  return fmt::format(R"({},"lost":{})", period.measurement.members(), lost);
}

std::string runDatagramSink(const ClientOptions& options) {
  const Counters& counters = Counters::shared(options.countersPath);
  const FileDescriptor socket = datagramSocket(options);
  DatagramBatch batch;
  std::uint64_t sent = 0;
  Period period(options);
  while (period.goesOn(counters.datagrams))
    sent += batch.send(socket.get(), DatagramBatch::capacity, options.size);
  return fmt::format(R"({},"sent":{})", period.measurement.members(), sent);
}

}  // namespace tandor::load
