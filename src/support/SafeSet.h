#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <unordered_set>
#include <utility>
#include <vector>

#include "platform/dispatch/DispatchQueue.h"

namespace tandor {

/// A set that several threads may change and read: every access runs on one private serial queue.
/// It owns its elements, so an element lives at least as long as it is in the set. No operation may
/// be called from that queue itself; elements that go are released by the caller, outside it.
template <typename Element, typename Hash = std::hash<Element>,
          typename Equal = std::equal_to<Element>>
class SafeSet {
 public:
  struct Insertion {
    bool inserted;              // false when an equal element was present
    Element memberAfterInsert;  // the element now in the set: the earlier one when it was present
  };

  /// Adds the element; an equal one that is present stays. Any thread.
  Insertion insert(Element element) {
    return queue_->sync([&] {
      const auto [position, inserted] = set_.insert(std::move(element));
      return Insertion{inserted, *position};
    });
  }

  /// Takes the element that equals `key` out of the set; absent when there is none. Any thread.
  template <typename Key>
  std::optional<Element> remove(const Key& key) {
    return queue_->sync([&]() -> std::optional<Element> {
      const auto position = set_.find(key);
      if (position == set_.end()) return std::nullopt;
      return std::move(set_.extract(position).value());
    });
  }

  /// A copy of the whole set as it is at this moment. Any thread.
  [[nodiscard]] std::vector<Element> allItems() const {
    return queue_->sync([&] { return std::vector<Element>(set_.begin(), set_.end()); });
  }

  [[nodiscard]] const DispatchQueue& queue() const noexcept { return *queue_; }

 private:
  std::unordered_set<Element, Hash, Equal> set_;
  std::shared_ptr<DispatchQueue> queue_ = DispatchQueue::serial("SafeSetQueue");
};

}  // namespace tandor
