#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <mutex>
#include <sys/types.h>
#include <vector>

#include "platform/foundation/Data.h"
#include "platform/linux/FileDescriptor.h"

namespace tandor {

class EpollLoop;

/// The kernel pipes of one loop. Bytes that go from socket to socket and that nobody looks at stay
/// in the kernel: they go into a pipe and out of it by reference, and Data stands for them.
class PipePool {
 public:
  class Pipe final : public DataStorage {
   public:
    Pipe(EpollLoop& loop, FileDescriptor reading, FileDescriptor writing) noexcept
        : DataStorage(nullptr),
          loop_(loop),
          reading_(std::move(reading)),
          writing_(std::move(writing)) {}
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;
    ~Pipe();

    /// Moves in what a socket holds; once. Returns like recv. On the loop's thread, as all below.
    [[nodiscard]] ssize_t fill(int socket) noexcept;
    /// Whether the unread rest of the bytes has an owner who will never look at what is moved out.
    void setRestHeld(bool isHeld) noexcept { isRestHeld_ = isHeld; }
    /// Moves `range`, a range of this storage, out to a socket; returns like send. Does nothing and
    /// returns `mustBeRead` when the bytes have come into memory or somebody else may want to see
    /// them.
    [[nodiscard]] ssize_t drain(int socket, const Data& range) noexcept;
    static constexpr ssize_t mustBeRead = -2;

   private:
    friend class PipePool;
    void dispose() noexcept override;
    const std::uint8_t* bringIn() noexcept override;

    EpollLoop& loop_;
    FileDescriptor reading_;
    FileDescriptor writing_;
    bool isRestHeld_ = false;
    std::mutex mutex_;
    std::size_t drained_ = 0;  // guarded by mutex_, as all that follows: bytes moved out,
    std::size_t filled_ = 0;   // of
    std::unique_ptr<std::uint8_t[]> bytes_;
  };

  explicit PipePool(EpollLoop& loop) noexcept : loop_(loop) {}

  /// An empty pipe with no references yet, which the first Data made of it owns; null when enough
  /// are in use or there are no descriptors left for one. On the loop's thread.
  [[nodiscard]] Pipe* borrow();
  /// Empty pipes that are kept for the next ones. On the loop's thread.
  [[nodiscard]] bool hasSpare() const noexcept { return !spare_.empty(); }
  void dropSpare() noexcept { spare_.clear(); }

  /// The pipe in which these bytes still lie, if they do.
  [[nodiscard]] static Pipe* holding(const Data& data) noexcept;

 private:
  /// A reader who is slow holds its pipe. Behind so many, bytes go through memory.
  static constexpr int maximumInUse = 256;
  static constexpr std::size_t maximumSpare = 8;

  EpollLoop& loop_;
  std::atomic<int> pipes_{0};  // all there are; outlives the spare ones
  std::vector<std::unique_ptr<Pipe>> spare_;
};

}  // namespace tandor
