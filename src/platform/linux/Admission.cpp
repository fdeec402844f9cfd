#include "platform/linux/Admission.h"

#include <algorithm>
#include <chrono>
#include <sys/resource.h>
#include <system_error>
#include <utility>

#include <fmt/format.h>

#include "platform/dispatch/DispatchQueue.h"
#include "platform/foundation/NSLog.h"
#include "platform/linux/Marks.h"
#include "platform/linux/PacketRules.h"

namespace tandor {
namespace {

using namespace std::chrono_literals;

/// How long a taken flow's socket may take to come.
constexpr auto attachPatience = 10s;
constexpr auto complaintInterval = 60s;
/// All sockets are looked at so often at most, however many come and go.
constexpr auto searchInterval = 200ms;
/// Descriptors that are kept for everything but flows.
constexpr std::uint64_t reservedDescriptors = 256;
constexpr std::uint64_t descriptorsAFlow = 2;
/// What is remembered of each has its price in the kernel, also of those that never come: about 100
/// bytes.
constexpr std::uint64_t mostTakenAtOnce = 65'536;
/// UDP flows whose answers are counted; beyond, those that were left are forgotten, and a later
/// socket may inherit one. Taken ones must hear of their socket's end, and are never so many.
constexpr std::size_t mostAnswered = 100'000;
/// Of identifiers that are kept for the next flow. Anybody can make up as many applications as
/// there are paths, and a path is up to 4 KiB.
constexpr std::size_t mostIdentifierBytes = std::size_t{1} << 20;
constexpr std::size_t bytesBesideIdentifier = 192;  // of the map and the memory's keeping

std::unexpected<std::string> failure(std::string_view what, int error) {
  return std::unexpected(fmt::format("{}: {}", what, std::generic_category().message(error)));
}

}  // namespace

std::expected<std::shared_ptr<Admission>, std::string> Admission::make(
    EpollLoop& loop, std::shared_ptr<NETransparentProxyProvider> provider,
    std::shared_ptr<AnnouncedFlows> flows, FlowRegistry& registry) {
  auto diagnosis = SocketDiagnosis::make();
  if (!diagnosis)
    return failure("the kernel does not tell about sockets (inet_diag)", diagnosis.error());
  auto sockets = SocketDiagnosis::udpSockets();
  if (!sockets) return failure("the kernel does not list UDP sockets (udp_diag)", sockets.error());
  auto admission = makeResident<Admission>(loop, std::move(provider), std::move(flows), registry,
                                           std::move(*diagnosis), std::move(*sockets));
  auto watch = SocketDestroyWatch::make(loop, *admission);
  if (!watch) return failure("the kernel does not tell of closed UDP sockets", watch.error());
  admission->destroyWatch_ = std::move(*watch);
  auto queue = PacketQueue::make(loop, packetQueueNumber, *admission);
  if (!queue) {
    if (queue.error() == EPERM || queue.error() == EBUSY) {
      return std::unexpected(
          fmt::format("packet queue {} has an owner already: another tandor-provider, most likely; "
                      "stop it first",
                      packetQueueNumber));
    }
    return failure(fmt::format("cannot bind packet queue {} (the kernel needs nfnetlink_queue)",
                               packetQueueNumber),
                   queue.error());
  }
  admission->queue_ = std::move(*queue);
  return admission;
}

std::size_t Admission::mostFlows() noexcept {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);
  const std::uint64_t spare = limit.rlim_cur - std::min(limit.rlim_cur, reservedDescriptors);
  return std::min(spare / descriptorsAFlow, mostTakenAtOnce);
}

Admission::Admission(EpollLoop& loop, std::shared_ptr<NETransparentProxyProvider> provider,
                     std::shared_ptr<AnnouncedFlows> flows, FlowRegistry& registry,
                     SocketDiagnosis diagnosis, std::unordered_set<std::uint64_t> socketsAtStart)
    : provider_(std::move(provider)),
      flows_(std::move(flows)),
      registry_(registry),
      diagnosis_(std::move(diagnosis)),
      socketsAtStart_(std::move(socketsAtStart)),
      missed_(loop, EpollLoop::Call::to<&Admission::searchGoneSockets>(this)),
      mostFlows_(mostFlows()),
      overdue_(loop, EpollLoop::Call::to<&Admission::checkOverdue>(this)) {
  settle(loop);
}

void Admission::begin(FlowAnswers& answers, const KernelPrograms* programs) {
  answers_ = &answers;
  programs_ = programs;
}

void Admission::leaveAll() {
  overdue_.stop();
  missed_.stop();
  abandonOverdue(EpollLoop::Clock::duration::zero());
  answers_ = nullptr;
  toRemember_.clear();
  for (const auto& [key, held] : held_)
    for (const PacketQueue::Packet& packet : held.packets) queue_->accept(packet, leaveMark);
  held_.clear();
  queue_->drain();
}

void Admission::end() {
  leaveAll();
  destroyWatch_ = nullptr;
  queue_ = nullptr;
}

void Admission::packetArrived(const PacketQueue::Packet& packet) {
  const FlowKey& key = packet.flow;
  if (key.protocol == 0 || answers_ == nullptr) {
    queue_->accept(packet, leaveMark);
    return;
  }
  if (const auto held = held_.find(key); held != held_.end()) {
    held->second.packets.push_back(packet);
    return;
  }
  if (flows_->contains(key)) {
    queue_->accept(packet, takeMark);  // one more of a flow that has its answer
    countAnother(key);
    return;
  }
  if (programs_ != nullptr && key.protocol == IPPROTO_TCP && concludeQuickly(packet)) return;
  const auto facts = diagnosis_.find(key, packet.interface);
  if (facts && isLeft(key, facts->cookie)) {
    queue_->accept(packet, leaveMark);
    countAnother(key);
    return;
  }
  // A flow without a process, or bound to an interface, cannot be ours: the one belongs to nobody,
  // the other cannot be rerouted.
  if (!facts || facts->inode == 0 || facts->interface != 0 ||
      (key.protocol == IPPROTO_UDP && socketsAtStart_.contains(facts->cookie))) {
    conclude(key, facts.value_or(SocketFacts{}), nullptr, {&packet, 1});
    return;
  }
  if (const auto owner = owners_.findQuickly(facts->inode, facts->cgroup)) {
    conclude(key, *facts, &*owner, {&packet, 1});
    return;
  }
  held_.emplace(key, Held{{packet}, *facts});
  searchOwners();
}

bool Admission::concludeQuickly(const PacketQueue::Packet& packet) {
  const auto connector = programs_->connectorOf(packet.flow);
  if (!connector) return false;
  if (connector->interface != 0) {
    conclude(packet.flow, {}, nullptr, {&packet, 1});
    return true;
  }
  const auto owner = owners_.identify(*connector);
  if (!owner) return false;  // it has ended; and may have left its socket to another one
  conclude(packet.flow, {}, &*owner, {&packet, 1});
  return true;
}

void Admission::searchOwners() {
  if (held_.empty() || std::exchange(isSearching_, true)) return;
  std::vector<ino_t> inodes;
  inodes.reserve(held_.size());
  for (const auto& [key, held] : held_) inodes.push_back(held.facts.inode);
  GlobalQueue::shared().async([weak = std::weak_ptr(self()), this, inodes = std::move(inodes)] {
    auto places = SocketOwners::searchEverywhere(inodes);
    if (const auto alive = weak.lock())
      onLoop([this, inodes, places = std::move(places)] { ownersFound(inodes, places); });
  });
}

void Admission::ownersFound(const std::vector<ino_t>& searched,
                            const SocketOwners::Places& places) {
  isSearching_ = false;
  if (queue_ == nullptr) return;
  const std::unordered_set<ino_t> inodes(searched.begin(), searched.end());
  std::vector<std::pair<FlowKey, Held>> concluded;
  std::erase_if(held_, [&](auto& item) {
    if (!inodes.contains(item.second.facts.inode)) return false;
    concluded.emplace_back(item.first, std::move(item.second));
    return true;
  });
  for (const auto& [key, held] : concluded) {
    const auto place = places.find(held.facts.inode);
    const auto owner =
        place == places.end() ? std::nullopt : owners_.confirm(place->second, held.facts.inode);
    conclude(key, held.facts, owner ? &*owner : nullptr, held.packets);
  }
  searchOwners();  // for those that came meanwhile
}

void Admission::conclude(const FlowKey& key, const SocketFacts& facts, const SocketOwner* owner,
                         std::span<const PacketQueue::Packet> packets) {
  InterceptedFlow::Origin origin{.key = key, .pid = 0, .metaData = nullptr};
  std::uint32_t mark = leaveMark;
  if (owner != nullptr && hasRoomForAnother()) {
    origin.pid = owner->pid;
    origin.metaData = metaDataOf(*owner);
    mark = offer(origin);
  }
  if (mark == leaveMark) registry_.countLeft(origin);
  if (mark == refuseMark) registry_.countRefused(origin);
  if (key.protocol == IPPROTO_UDP && facts.cookie != 0)
    count(key, facts.cookie, mark, packets.size());
  for (const PacketQueue::Packet& packet : packets) queue_->accept(packet, mark);
}

std::uint32_t Admission::offer(const InterceptedFlow::Origin& origin) {
  if (origin.key.protocol == IPPROTO_TCP) {
    return offerAs<SocketTCPFlow>(origin, [this](const std::shared_ptr<SocketTCPFlow>& flow) {
      return provider_->handleNewFlow(flow);
    });
  }
  return offerAs<SocketUDPFlow>(origin, [&](const std::shared_ptr<SocketUDPFlow>& flow) {
    return provider_->handleNewUDPFlow(
        flow,
        NWHostEndpoint{origin.key.destination.host(), std::to_string(origin.key.destination.port)});
  });
}

template <typename Flow, typename Handle>
std::uint32_t Admission::offerAs(const InterceptedFlow::Origin& origin, Handle handle) {
  auto flow = makeResident<Flow>(origin, registry_);
  if (!handle(flow)) return leaveMark;
  if (flow->isRefused()) return refuseMark;
  if constexpr (std::same_as<Flow, SocketUDPFlow>) {
    flow->setCloseHandler([flows = flows_, answers = answers_, key = origin.key] {
      // What the application sends from now on begins a new flow.
      flows->remove(key);
      answers->forget(key);
    });
  }
  flows_->add(std::move(flow));
  if (!overdue_.isRunning()) overdue_.start(attachPatience);
  return takeMark;
}

bool Admission::hasRoomForAnother() {
  if (registry_.existingCount() < mostFlows_) return true;
  const auto now = EpollLoop::Clock::now();
  if (!lastComplaint_ || now - *lastComplaint_ >= complaintInterval) {
    lastComplaint_ = now;
    NSLog(fmt::format("no room for more than {} flows: new ones are left to the kernel",
                      registry_.existingCount()));
  }
  return false;
}

std::shared_ptr<const NEFlowMetaData> Admission::metaDataOf(const SocketOwner& owner) {
  if (const auto known = metaData_.find(*owner.identifier); known != metaData_.end())
    return known->second;
  auto metaData = std::make_shared<const NEFlowMetaData>(NEFlowMetaData{*owner.identifier});
  metaDataBytes_ += owner.identifier->size() + bytesBesideIdentifier;
  if (metaDataBytes_ > mostIdentifierBytes) {
    metaData_.clear();
    metaDataBytes_ = 0;
  }
  metaData_.emplace(metaData->sourceAppSigningIdentifier, metaData);
  return metaData;
}

void Admission::count(const FlowKey& key, std::uint64_t cookie, std::uint32_t mark,
                      std::size_t datagrams) {
  if (mark == refuseMark) return;
  if (answered_.size() >= mostAnswered) forgetLeft();
  Answered& answered = answered_[key];
  if (answered.cookie != cookie) {
    answered.cookie = cookie;
    answered.datagrams = 0;
    flowsOfSockets_[cookie].push_back(key);
  }
  answered.mark = mark;
  add(key, answered, datagrams);
}

void Admission::forgetLeft() {
  std::erase_if(answered_, [](const auto& item) { return item.second.mark == leaveMark; });
  for (auto& [cookie, flows] : flowsOfSockets_)
    std::erase_if(flows, [this](const FlowKey& flow) { return !answered_.contains(flow); });
  std::erase_if(flowsOfSockets_, [](const auto& item) { return item.second.empty(); });
}

void Admission::countAnother(const FlowKey& key) {
  if (const auto answered = answered_.find(key); answered != answered_.end())
    add(key, answered->second, 1);
}

void Admission::add(const FlowKey& key, Answered& answered, std::size_t datagrams) {
  answered.datagrams += datagrams;
  if (!std::exchange(answered.isAboutToGoOn, true)) toRemember_.push_back(key);
}

bool Admission::isLeft(const FlowKey& key, std::uint64_t cookie) const {
  const auto answered = answered_.find(key);
  return answered != answered_.end() && answered->second.cookie == cookie &&
         answered->second.mark == leaveMark;
}

void Admission::packetsWentOn() {
  for (const FlowKey& key : toRemember_) {
    const auto found = answered_.find(key);
    if (found == answered_.end()) continue;
    Answered& answered = found->second;
    answered.isAboutToGoOn = false;
    if (answered.mark == leaveMark) {
      answers_->setLeft(key, answered.cookie, answered.datagrams);
    } else if (flows_->contains(key)) {  // it has not ended meanwhile
      answers_->setTaken(key, answered.cookie, answered.datagrams);
    }
  }
  toRemember_.clear();
}

void Admission::socketDestroyed(std::uint64_t cookie) {
  if (answers_ == nullptr) return;
  socketsAtStart_.erase(cookie);
  const auto flows = flowsOfSockets_.find(cookie);
  if (flows == flowsOfSockets_.end()) return;
  for (const FlowKey& key : flows->second) {
    const auto answered = answered_.find(key);
    // A later socket may have the same addresses by now.
    if (answered == answered_.end() || answered->second.cookie != cookie) continue;
    answered_.erase(answered);
    if (flows_->contains(key)) {
      flows_->end(key);
    } else {
      answers_->forget(key);
    }
  }
  flowsOfSockets_.erase(flows);
}

void Admission::destructionsMissed() {
  if (!missed_.isRunning()) missed_.start(searchInterval);
}

void Admission::searchGoneSockets() {
  if (flowsOfSockets_.empty()) return;
  if (std::exchange(isSearchingGone_, true)) {
    missed_.start(searchInterval);
    return;
  }
  std::vector<SocketDiagnosis::UDPSocket> sockets;
  sockets.reserve(flowsOfSockets_.size());
  for (const auto& [cookie, flows] : flowsOfSockets_) sockets.push_back({cookie, flows.front()});
  GlobalQueue::shared().async([weak = std::weak_ptr(self()), this, sockets = std::move(sockets)] {
    auto gone = SocketDiagnosis::findGone(sockets);
    const auto alive = weak.lock();
    if (alive == nullptr) return;
    onLoop([this, gone = std::move(gone)] {
      isSearchingGone_ = false;
      if (queue_ == nullptr) return;
      if (gone) {
        for (const std::uint64_t cookie : *gone) socketDestroyed(cookie);
      } else {
        destructionsMissed();  // the kernel may tell later
      }
    });
  });
}

void Admission::checkOverdue() {
  abandonOverdue(attachPatience);
  if (flows_->isAnyAnnounced()) overdue_.start(attachPatience);
}

void Admission::abandonOverdue(EpollLoop::Clock::duration patience) {
  const auto overdue = flows_->takeOverdue(patience);
  for (const auto& flow : overdue.tcp) {
    flow->abandon();
    answers_->forget(flow->key());
  }
  for (const auto& flow : overdue.udp) {
    flow->abandon();
    flows_->remove(flow->key());
    answers_->forget(flow->key());
  }
}

}  // namespace tandor
