#pragma once

#include <cstdint>
#include <expected>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "platform/linux/AnnouncedFlows.h"
#include "platform/linux/EpollLoop.h"
#include "platform/linux/FlowRegistry.h"
#include "platform/linux/PacketQueue.h"
#include "platform/linux/SocketDestroyWatch.h"
#include "platform/linux/SocketDiagnosis.h"
#include "platform/linux/application/SocketOwners.h"
#include "platform/linux/kernel/KernelPrograms.h"
#include "platform/networkextension/NETransparentProxyProvider.h"

namespace tandor {

/// Answers for every held first packet: finds the application behind it, offers the flow to the
/// provider, and gives the packet its verdict. A look-up that takes long happens elsewhere, while
/// its packet waits and the others go on. Lives on a loop of its own.
class Admission final : public EpollLoop::Resident,
                        private PacketQueue::Owner,
                        private SocketDestroyWatch::Owner {
 public:
  /// Everything given outlives the admission. Fails with the words for the user. On the loop.
  [[nodiscard]] static std::expected<std::shared_ptr<Admission>, std::string> make(
      EpollLoop& loop, std::shared_ptr<NETransparentProxyProvider> provider,
      std::shared_ptr<AnnouncedFlows> flows, FlowRegistry& registry);

  Admission(EpollLoop& loop, std::shared_ptr<NETransparentProxyProvider> provider,
            std::shared_ptr<AnnouncedFlows> flows, FlowRegistry& registry,
            SocketDiagnosis diagnosis, std::unordered_set<std::uint64_t> socketsAtStart);

  /// Offers flows from now on; until then, whatever is held goes its native way. `answers` outlives
  /// the admission; so do the programs, null where none watch. On the loop.
  void begin(FlowAnswers& answers, const KernelPrograms* programs);
  /// Offers no flow any more: whatever waits goes its native way, and what comes at once. On the
  /// loop.
  void leaveAll();
  /// The same, and gives up the queue: packets pass from now on. On the loop.
  void end();

  /// So many flows can be taken at once: as many as there are descriptors for.
  [[nodiscard]] static std::size_t mostFlows() noexcept;

 private:
  /// Packets of one flow that wait until its application is known.
  struct Held {
    std::vector<PacketQueue::Packet> packets;
    SocketFacts facts;
  };

  void packetArrived(const PacketQueue::Packet& packet) override;
  void packetsWentOn() override;
  void socketDestroyed(std::uint64_t cookie) override;
  void destructionsMissed() override;

  /// Concludes when the programs in the kernel saw who connects; false when they did not.
  [[nodiscard]] bool concludeQuickly(const PacketQueue::Packet& packet);
  void searchGoneSockets();
  void searchOwners();
  void ownersFound(const std::vector<ino_t>& searched, const SocketOwners::Places& places);
  void conclude(const FlowKey& key, const SocketFacts& facts, const SocketOwner* owner,
                std::span<const PacketQueue::Packet> packets);
  /// Offers the flow; returns the mark that stands for the answer.
  [[nodiscard]] std::uint32_t offer(const InterceptedFlow::Origin& origin);
  template <typename Flow, typename Handle>
  [[nodiscard]] std::uint32_t offerAs(const InterceptedFlow::Origin& origin, Handle handle);
  [[nodiscard]] bool hasRoomForAnother();
  [[nodiscard]] std::shared_ptr<const NEFlowMetaData> metaDataOf(const SocketOwner& owner);
  /// Counts datagrams of a flow that have their answer, to be remembered when they have gone on.
  void count(const FlowKey& key, std::uint64_t cookie, std::uint32_t mark, std::size_t datagrams);
  void forgetLeft();
  /// One more of a flow that has its answer, if it is one of UDP.
  void countAnother(const FlowKey& key);
  struct Answered;
  void add(const FlowKey& key, Answered& answered, std::size_t datagrams);
  /// Whether this socket's UDP flow was left: it is offered once.
  [[nodiscard]] bool isLeft(const FlowKey& key, std::uint64_t cookie) const;
  void checkOverdue();
  void abandonOverdue(EpollLoop::Clock::duration patience);

  const std::shared_ptr<NETransparentProxyProvider> provider_;
  std::shared_ptr<AnnouncedFlows> flows_;
  FlowRegistry& registry_;
  SocketDiagnosis diagnosis_;
  SocketOwners owners_;
  FlowAnswers* answers_ = nullptr;  // from the beginning on
  const KernelPrograms* programs_ = nullptr;
  std::unique_ptr<SocketDestroyWatch> destroyWatch_;
  std::unique_ptr<PacketQueue> queue_;

  std::unordered_map<FlowKey, Held> held_;
  bool isSearching_ = false;
  /// What flows of one application share; each by the identifier that it holds itself.
  std::unordered_map<std::string_view, std::shared_ptr<const NEFlowMetaData>> metaData_;
  std::size_t metaDataBytes_ = 0;

  /// UDP sockets that talked before us; their flows are none that begin.
  std::unordered_set<std::uint64_t> socketsAtStart_;
  /// UDP flows that have their answer.
  struct Answered {
    std::uint64_t cookie = 0;
    std::uint32_t mark = 0;
    bool isAboutToGoOn = false;  // some of its datagrams are
    std::uint64_t datagrams = 0;
  };
  std::unordered_map<FlowKey, Answered> answered_;
  std::vector<FlowKey> toRemember_;  // those with datagrams that are about to go on
  /// Those of each socket: what follows the socket must not inherit its answers.
  std::unordered_map<std::uint64_t, std::vector<FlowKey>> flowsOfSockets_;
  EpollLoop::Timer missed_;  // until the kernel is asked which of these sockets are gone
  bool isSearchingGone_ = false;

  const std::size_t mostFlows_;
  EpollLoop::Timer overdue_;
  std::optional<EpollLoop::Clock::time_point> lastComplaint_;
};

}  // namespace tandor
