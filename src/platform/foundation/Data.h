#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string_view>
#include <utility>

namespace tandor {

/// What Data values share. The last Data to let go disposes of it, on whichever thread that
/// happens; a pool can therefore take its buffers back by overriding dispose().
///
/// The bytes may be elsewhere than in memory until somebody looks at them.
class DataStorage {
 public:
  DataStorage(const DataStorage&) = delete;
  DataStorage& operator=(const DataStorage&) = delete;

  /// Where the bytes begin; brings them in first if need be. Any thread.
  [[nodiscard]] const std::uint8_t* first() noexcept {
    const std::uint8_t* const first = first_.load(std::memory_order_acquire);
    return first != nullptr ? first : bringIn();
  }
  [[nodiscard]] bool isInMemory() const noexcept {
    return first_.load(std::memory_order_acquire) != nullptr;
  }

  void retain() noexcept { references_.fetch_add(1, std::memory_order_relaxed); }
  void release() noexcept {
    // A sole owner needs no read-modify-write: nobody else can gain a reference meanwhile.
    if (references_.load(std::memory_order_acquire) == 1 ||
        references_.fetch_sub(1, std::memory_order_acq_rel) == 1) {
      references_.store(0, std::memory_order_relaxed);
      dispose();
    }
  }

 protected:
  /// `first` is null while the bytes are elsewhere.
  explicit DataStorage(const std::uint8_t* first) noexcept : first_(first) {}
  ~DataStorage() = default;
  void setFirst(const std::uint8_t* first) noexcept {
    first_.store(first, std::memory_order_release);
  }
  [[nodiscard]] std::uint32_t references() const noexcept {
    return references_.load(std::memory_order_acquire);
  }
  /// Called when the bytes are not in memory, by any thread, also by several at once: brings them
  /// in and returns where they begin.
  [[nodiscard]] virtual const std::uint8_t* bringIn() noexcept { return nullptr; }
  /// Called once, when the last reference went; frees the storage or returns it to its pool.
  virtual void dispose() noexcept = 0;

 private:
  std::atomic<const std::uint8_t*> first_;
  std::atomic<std::uint32_t> references_{0};
};

/// A contiguous byte range, held by value: immutable, possibly empty, cheap to copy and to slice
/// because copies share their storage. Safe to hand between threads. Absence is
/// std::optional<Data>.
class Data {
 public:
  Data() noexcept = default;

  /// A range inside `storage`, which it keeps alive.
  Data(DataStorage& storage, std::size_t offset, std::size_t count) noexcept
      : storage_(&storage), offset_(offset), count_(count) {
    storage.retain();
  }

  Data(const Data& other) noexcept
      : storage_(other.storage_), offset_(other.offset_), count_(other.count_) {
    if (storage_ != nullptr) storage_->retain();
  }
  Data(Data&& other) noexcept
      : storage_(std::exchange(other.storage_, nullptr)),
        offset_(std::exchange(other.offset_, 0)),
        count_(std::exchange(other.count_, 0)) {}
  Data& operator=(const Data& other) noexcept {
    swap(Data(other));
    return *this;
  }
  Data& operator=(Data&& other) noexcept {
    swap(Data(std::move(other)));
    return *this;
  }
  ~Data() {
    if (storage_ != nullptr) storage_->release();
  }

  [[nodiscard]] static Data copying(std::span<const std::uint8_t> bytes);
  [[nodiscard]] static Data copying(std::string_view text);

  [[nodiscard]] std::size_t count() const noexcept { return count_; }
  [[nodiscard]] bool isEmpty() const noexcept { return count_ == 0; }

  /// The bytes, valid while this value or a copy of it lives.
  [[nodiscard]] std::span<const std::uint8_t> bytes() const noexcept {
    if (storage_ == nullptr) return {};
    return {storage_->first() + offset_, count_};
  }
  /// The same bytes as characters, of whatever encoding they are.
  [[nodiscard]] std::string_view characters() const noexcept;

  /// `count` bytes from `offset` on, sharing the storage; the range must lie inside this one.
  [[nodiscard]] Data slice(std::size_t offset, std::size_t count) const noexcept;

  /// Extends this range by `next` when `next` begins where it ends in the same storage.
  /// Returns false, and changes nothing, when it does not.
  [[nodiscard]] bool absorb(const Data& next) noexcept {
    if (storage_ == nullptr || storage_ != next.storage_ || offset_ + count_ != next.offset_)
      return false;
    count_ += next.count_;
    return true;
  }
  /// Drops the first `count` bytes, at most all of them.
  void removeFirst(std::size_t count) noexcept {
    offset_ += count;
    count_ -= count;
  }

  /// The storage and where in it the range begins, for whoever can do without the bytes. Null when
  /// there is nothing to store.
  [[nodiscard]] DataStorage* storage() const noexcept { return storage_; }
  [[nodiscard]] std::size_t offset() const noexcept { return offset_; }

  friend bool operator==(const Data& left, const Data& right) noexcept;

 private:
  void swap(Data&& other) noexcept {
    std::swap(storage_, other.storage_);
    std::swap(offset_, other.offset_);
    std::swap(count_, other.count_);
  }

  DataStorage* storage_ = nullptr;
  std::size_t offset_ = 0;
  std::size_t count_ = 0;
};

}  // namespace tandor
