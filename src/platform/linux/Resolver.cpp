#include "platform/linux/Resolver.h"

#include <cerrno>
#include <netdb.h>
#include <utility>

#include <fmt/format.h>

#include "platform/dispatch/DispatchQueue.h"

namespace tandor {
namespace {

constexpr std::string_view resolverDomain = "DNSErrorDomain";

Resolver::Answer lookUp(const std::string& host) {
  addrinfo hints{};
  hints.ai_flags = AI_ADDRCONFIG;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* list = nullptr;
  const int result = ::getaddrinfo(host.c_str(), nullptr, &hints, &list);
  if (result == EAI_SYSTEM) return std::unexpected(NSError::posix(errno));
  if (result != 0) {
    return std::unexpected(NSError(resolverDomain, result,
                                   fmt::format("dns({}: {})", result, ::gai_strerror(result))));
  }
  const std::unique_ptr<addrinfo, decltype(&::freeaddrinfo)> owner(list, &::freeaddrinfo);
  Resolver::Addresses addresses;
  for (const addrinfo* entry = list; entry != nullptr; entry = entry->ai_next)
    addresses.emplace_back(*entry->ai_addr, entry->ai_addrlen);
  return addresses;
}

}  // namespace

void Resolver::resolve(const std::string& host, Completion completion) {
  std::unique_lock lock(mutex_);
  const auto now = std::chrono::steady_clock::now();
  if (!entries_.contains(host)) {
    std::erase_if(entries_, [&](const auto& item) {
      return !item.second.isResolving && item.second.expiry <= now;
    });
  }
  Entry& entry = entries_[host];
  if (!entry.isResolving && entry.expiry > now) {
    const Answer answer = entry.addresses;
    lock.unlock();
    completion(answer);
    return;
  }
  entry.waiting.push_back(std::move(completion));
  if (std::exchange(entry.isResolving, true)) return;
  GlobalQueue::shared().async([this, host] { answer(host, lookUp(host)); });
}

void Resolver::answer(const std::string& host, const Answer& answer) {
  std::vector<Completion> waiting;
  {
    const std::scoped_lock lock(mutex_);
    Entry& entry = entries_[host];
    entry.isResolving = false;
    waiting = std::exchange(entry.waiting, {});
    if (answer) {
      entry.addresses = *answer;
      entry.expiry = std::chrono::steady_clock::now() + lifetime;
    }
  }
  for (Completion& completion : waiting) completion(answer);
}

}  // namespace tandor
