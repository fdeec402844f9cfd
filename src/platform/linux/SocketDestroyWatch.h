#pragma once

#include <cstdint>
#include <expected>
#include <memory>
#include <span>

#include "platform/linux/EpollLoop.h"
#include "platform/linux/FileDescriptor.h"

namespace tandor {

/// Hears from the kernel of every UDP socket that is destroyed. Lives on a loop.
class SocketDestroyWatch final : private EpollLoop::Source {
 public:
  class Owner {
   public:
    Owner() = default;
    Owner(const Owner&) = delete;
    Owner& operator=(const Owner&) = delete;
    /// `cookie` is the number that the kernel never gives twice.
    virtual void socketDestroyed(std::uint64_t cookie) = 0;
    /// More sockets were destroyed than the kernel could tell of: any may be gone, up to now.
    virtual void destructionsMissed() = 0;

   protected:
    ~Owner() = default;
  };

  /// Fails with an error number. On the loop's thread, like everything else here.
  [[nodiscard]] static std::expected<std::unique_ptr<SocketDestroyWatch>, int> make(EpollLoop& loop,
                                                                                    Owner& owner);
  SocketDestroyWatch(const SocketDestroyWatch&) = delete;
  SocketDestroyWatch& operator=(const SocketDestroyWatch&) = delete;
  ~SocketDestroyWatch();

 private:
  SocketDestroyWatch(EpollLoop& loop, FileDescriptor socket, Owner& owner) noexcept
      : loop_(loop), socket_(std::move(socket)), owner_(owner) {}
  void ready(std::uint32_t events) override;
  void receive();
  void report(std::span<const char> messages) const;

  EpollLoop& loop_;
  FileDescriptor socket_;
  Owner& owner_;
  bool hasMissed_ = false;
  EpollLoop::Task receive_{EpollLoop::Call::to<&SocketDestroyWatch::receive>(this)};
};

}  // namespace tandor
