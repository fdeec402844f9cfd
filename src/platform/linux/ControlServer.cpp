#include "platform/linux/ControlServer.h"

#include <chrono>
#include <deque>
#include <future>
#include <utility>

#include <asio/local/stream_protocol.hpp>
#include <asio/post.hpp>
#include <asio/read_until.hpp>
#include <asio/steady_timer.hpp>
#include <asio/streambuf.hpp>
#include <asio/write.hpp>
#include <fmt/format.h>
#include <nlohmann/json.hpp>

#include "platform/foundation/NSLog.h"
#include "platform/linux/ControlSocket.h"

namespace tandor {

using asio::local::stream_protocol;
using nlohmann::json;

namespace {

/// Longer lines end the connection: nobody sends a configuration of a mebibyte.
constexpr std::size_t longestLine = std::size_t{1} << 20;
/// Whatever handles JSON values descends by recursion, so its depth has a limit.
constexpr int deepestNesting = 64;
/// Unread replies that a client may leave behind, before a further one, until it counts as gone.
constexpr std::size_t mostUnsent = std::size_t{4} << 20;
/// What a reply counts for that is made when its turn comes.
constexpr std::size_t unmadeReply = 4096;
/// How long the process may wait for a reply to be handed to the kernel.
constexpr auto replyPatience = std::chrono::seconds(1);

std::string replyLine(const json& reply) {
  return reply.dump(-1, ' ', false, json::error_handler_t::replace) + "\n";
}

}  // namespace

/// One connected client. All but the constructor on the service thread.
class ControlClient : public std::enable_shared_from_this<ControlClient> {
 public:
  ControlClient(ServiceThread& service, stream_protocol::socket socket,
                ControlServer::Handler handler)
      : service_(service),
        socket_(std::move(socket)),
        input_(longestLine),
        handler_(std::move(handler)) {}

  void readLine() {
    asio::async_read_until(
        socket_, input_, '\n',
        [self = shared_from_this()](const asio::error_code& error, std::size_t length) {
          if (error) {
            self->rejectIfTooLong(error);
            self->hangUp();
            return;
          }
          const auto data = self->input_.data();
          const std::string line(asio::buffers_begin(data),
                                 asio::buffers_begin(data) + static_cast<std::ptrdiff_t>(length));
          self->input_.consume(length);
          ControlServer::handleLine(self, self->handler_, line);
          self->readLine();
        });
  }

  /// Hands as much as possible to the kernel at once; the rest follows when there is room.
  void write(const std::string& line) {
    if (!mayWrite()) return;
    if (pieces_ == nullptr && waiting_.empty()) {
      unsent_ += line;
    } else {
      if (waiting_.empty() || waiting_.back().pieces != nullptr) waiting_.emplace_back();
      waiting_.back().text += line;
      waitingBytes_ += line.size();
    }
    if (!isWriting_) writeSome();
  }

  /// The same for a line whose pieces are made as the client reads them.
  void write(std::move_only_function<std::string()> pieces) {
    if (!mayWrite()) return;
    waiting_.push_back({.text = {}, .pieces = std::move(pieces)});
    waitingBytes_ += unmadeReply;
    if (!isWriting_) writeSome();
  }

  void whenUnsentFallsTo(std::size_t bytes, std::function<void()> handler) {
    lowMark_ = bytes;
    lowHandler_ = std::move(handler);
    checkLowMark();
  }
  void whenHungUp(std::function<void()> handler) { hungUpHandler_ = std::move(handler); }
  /// Whether the client has not hung up yet.
  [[nodiscard]] bool isConnected() const noexcept { return !hasHungUp_ && socket_.is_open(); }
  [[nodiscard]] std::size_t unsentBytes() const noexcept { return unsent_.size() + waitingBytes_; }
  [[nodiscard]] ServiceThread& service() noexcept { return service_; }

 private:
  void hangUp() {
    hasHungUp_ = true;
    if (const auto handler = std::exchange(hungUpHandler_, nullptr)) handler();
  }

  void rejectIfTooLong(const asio::error_code& error) {
    if (error == asio::error::not_found) {
      write(replyLine({{"id", nullptr},
                       {"error",
                        {{"code", static_cast<std::int64_t>(ControlError::malformed)},
                         {"description", "the line is longer than a mebibyte"}}}}));
    }
  }

  /// Whoever reads gets every reply, however long; whoever does not is let go.
  [[nodiscard]] bool mayWrite() {
    if (!socket_.is_open()) return false;
    if (unsentBytes() <= mostUnsent) return true;
    asio::error_code ignored;
    socket_.close(ignored);
    return false;
  }

  /// Brings what is to be sent next into unsent_; false when there is nothing.
  [[nodiscard]] bool hasUnsent() {
    while (unsent_.empty()) {
      if (pieces_ != nullptr) {
        unsent_ = pieces_();
        if (unsent_.empty()) pieces_ = nullptr;
      } else if (!waiting_.empty()) {
        Waiting next = std::move(waiting_.front());
        waiting_.pop_front();
        waitingBytes_ -= next.pieces != nullptr ? unmadeReply : next.text.size();
        unsent_ = std::move(next.text);
        pieces_ = std::move(next.pieces);
      } else {
        return false;
      }
    }
    return true;
  }

  void checkLowMark() {
    if (lowHandler_ == nullptr || unsentBytes() > lowMark_) return;
    asio::post(socket_.get_executor(),
               [self = shared_from_this(), handler = std::exchange(lowHandler_, nullptr)] {
                 if (self->isConnected()) handler();
               });
  }

  void writeSome() {
    if (!hasUnsent()) return;
    asio::error_code error;
    const std::size_t count = socket_.write_some(asio::buffer(unsent_), error);
    unsent_.erase(0, count);
    if (error && error != asio::error::would_block) {
      socket_.close(error);
      return;
    }
    checkLowMark();
    // One piece a turn: others have their turn between those of a long line.
    if (!hasUnsent()) return;
    isWriting_ = true;
    socket_.async_wait(stream_protocol::socket::wait_write,
                       [self = shared_from_this()](const asio::error_code& waitError) {
                         self->isWriting_ = false;
                         if (!waitError) self->writeSome();
                       });
  }

  ServiceThread& service_;
  stream_protocol::socket socket_;
  asio::streambuf input_;
  /// Lines, or a line that is yet to be made.
  struct Waiting {
    std::string text;
    std::move_only_function<std::string()> pieces;
  };
  std::string unsent_;                             // goes first,
  std::move_only_function<std::string()> pieces_;  // then the rest of a line that is being made,
  std::deque<Waiting> waiting_;                    // then these
  std::size_t waitingBytes_ = 0;
  std::size_t lowMark_ = 0;
  std::function<void()> lowHandler_;
  bool isWriting_ = false;
  bool hasHungUp_ = false;
  std::function<void()> hungUpHandler_;
  const ControlServer::Handler handler_;
};

/// Accepts clients as long as the server lives.
class ControlServer::Acceptor : public std::enable_shared_from_this<Acceptor> {
 public:
  Acceptor(ServiceThread& service, FileDescriptor listener, Handler handler)
      : service_(service),
        acceptor_(service.context(), stream_protocol(), listener.release()),
        retry_(service.context()),
        handler_(std::move(handler)) {}

  void accept() {
    acceptor_.async_accept(
        [self = shared_from_this()](const asio::error_code& error, stream_protocol::socket socket) {
          if (!self->acceptor_.is_open()) return;
          if (error) {
            // Out of descriptors, most likely: try again in a moment instead of spinning.
            self->retry_.expires_after(std::chrono::milliseconds(100));
            self->retry_.async_wait([self](const asio::error_code& cancelled) {
              if (!cancelled) self->accept();
            });
            return;
          }
          if (isPeerTrusted(socket.native_handle())) {
            socket.non_blocking(true);
            std::make_shared<ControlClient>(self->service_, std::move(socket), self->handler_)
                ->readLine();
          } else {
            NSLog("control: refused a client of another user");
          }
          self->accept();
        });
  }

  void end() {
    asio::post(acceptor_.get_executor(), [self = shared_from_this()] {
      asio::error_code ignored;
      self->acceptor_.close(ignored);
      self->retry_.cancel();
    });
  }

 private:
  ServiceThread& service_;
  stream_protocol::acceptor acceptor_;
  asio::steady_timer retry_;
  const Handler handler_;
};

ControlServer::ControlServer(ServiceThread& service, FileDescriptor listener, Handler handler)
    : acceptor_(std::make_shared<Acceptor>(service, std::move(listener), std::move(handler))) {
  asio::post(service.context(), [acceptor = acceptor_] { acceptor->accept(); });
}

ControlServer::~ControlServer() {
  acceptor_->end();
}

void ControlServer::handleLine(const std::shared_ptr<ControlClient>& client, const Handler& handler,
                               std::string_view line) {
  bool isTooDeep = false;
  const json request = json::parse(
      line,
      [&](int depth, json::parse_event_t /*event*/, const json& /*parsed*/) {
        isTooDeep = isTooDeep || depth > deepestNesting;
        return !isTooDeep;
      },
      /*allow_exceptions=*/false);
  if (isTooDeep || !request.is_object()) {
    Reply(client, "null").fail(ControlError::malformed, "not a JSON object");
    return;
  }
  const auto id = request.find("id");
  const Reply reply(client, id == request.end() ? "null" : id->dump());
  const auto call = request.find("call");
  if (call == request.end() || !call->is_string()) {
    reply.fail(ControlError::malformed, "the member \"call\" is missing");
    return;
  }
  handler(call->get<std::string>(), request, reply);
}

void ControlServer::Reply::succeed() const {
  send({{"error", nullptr}});
}

void ControlServer::Reply::succeed(const json& members) const {
  json reply = members;
  reply["error"] = nullptr;
  send(std::move(reply));
}

void ControlServer::Reply::succeed(std::string_view member,
                                   std::move_only_function<std::string()> pieces) const {
  enum class Stage : std::uint8_t { beginning, middle, end };
  client_->write(
      [beginning = fmt::format(R"({{"id":{},"error":null,{}:)", id_, json(member).dump()),
       pieces = std::move(pieces), stage = Stage::beginning]() mutable -> std::string {
        if (stage == Stage::end) return {};
        if (std::exchange(stage, Stage::middle) == Stage::beginning) return std::move(beginning);
        std::string piece = pieces();
        if (!piece.empty()) return piece;
        stage = Stage::end;
        return "}\n";
      });
}

void ControlServer::Reply::fail(std::int64_t code, std::string_view description) const {
  send({{"error", {{"code", code}, {"description", description}}}});
}

void ControlServer::Reply::push(const json& line) const {
  client_->write(replyLine(line));
}

void ControlServer::Reply::whenHungUp(std::function<void()> handler) const {
  client_->whenHungUp(std::move(handler));
}

void ControlServer::Reply::whenUnsentFallsTo(std::size_t bytes,
                                             std::function<void()> handler) const {
  client_->whenUnsentFallsTo(bytes, std::move(handler));
}

bool ControlServer::Reply::isConnected() const {
  return client_->isConnected();
}

std::size_t ControlServer::Reply::unsentBytes() const {
  return client_->unsentBytes();
}

void ControlServer::Reply::send(json reply) const {
  reply["id"] = json::parse(id_);
  const std::string line = replyLine(reply);
  ServiceThread& service = client_->service();
  if (service.isCurrent()) {
    client_->write(line);
    return;
  }
  // The process may end right after a reply, so the caller waits until it has left.
  const auto written = std::make_shared<std::promise<void>>();
  asio::post(service.context(), [client = client_, written, line] {
    client->write(line);
    written->set_value();
  });
  written->get_future().wait_for(replyPatience);
}

}  // namespace tandor
