#include "platform/linux/kernel/KernelPrograms.h"

#include <atomic>
#include <cstring>
#include <filesystem>
#include <linux/magic.h>
#include <netinet/in.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/vfs.h>
#include <unistd.h>

#include <bpf/bpf.h>
#include <bpf/libbpf.h>
#include <fmt/format.h>

// The compiled programs, from where the assembler has put them.
extern "C" const std::byte tandorPrograms[];
extern "C" const std::byte tandorProgramsEnd[];

namespace tandor {
namespace {

constexpr const char* namesRoot = "/sys/fs/bpf";
constexpr std::size_t askedFlowsBytes = rememberedConnectors * sizeof(AskedFlow);

/// The file system for names of programs is there on every machine that systemd has started; on
/// others it is usual that who needs it mounts it.
void mountNames() noexcept {
  struct statfs names{};
  if (::statfs(namesRoot, &names) == 0 && names.f_type != BPF_FS_MAGIC)
    ::mount("bpf", namesRoot, "bpf", MS_NOSUID | MS_NODEV | MS_NOEXEC, "mode=700");
}

std::optional<ProgramSurroundings> findSurroundings() noexcept {
  struct stat network{};
  struct stat processes{};
  if (::stat("/proc/self/ns/net", &network) != 0 || ::stat("/proc/self/ns/pid", &processes) != 0)
    return std::nullopt;
  return ProgramSurroundings{.networkNamespace = static_cast<__u32>(network.st_ino),
                             .daemon = static_cast<__u32>(::getpid()),
                             .processNamespaceDevice = processes.st_dev,
                             .processNamespace = processes.st_ino};
}

std::filesystem::path namesFolder() {
  struct stat network{};
  ::stat("/proc/self/ns/net", &network);
  return fmt::format("{}/tandor-{}", namesRoot, network.st_ino);
}

FlowAddresses addressesOf(const FlowKey& flow) noexcept {
  return {.source = htonl(flow.source.address),
          .destination = htonl(flow.destination.address),
          .sourcePort = htons(flow.source.port),
          .destinationPort = htons(flow.destination.port),
          .protocol = flow.protocol};
}

int descriptorOf(bpf_object* object, const char* map) noexcept {
  return bpf_object__find_map_fd_by_name(object, map);
}

}  // namespace

void KernelPrograms::Free::operator()(bpf_object* object) const noexcept {
  bpf_object__close(object);
}

void KernelPrograms::Free::operator()(AskedFlow* flows) const noexcept {
  ::munmap(flows, askedFlowsBytes);
}

std::unique_ptr<KernelPrograms> KernelPrograms::load(std::size_t mostFlows) {
  libbpf_set_print(nullptr);  // who cannot have the programs does without
  std::unique_ptr<bpf_object, Free> object(bpf_object__open_mem(
      tandorPrograms, static_cast<std::size_t>(tandorProgramsEnd - tandorPrograms), nullptr));
  const auto surroundings = findSurroundings();
  if (object == nullptr || !surroundings) return nullptr;
  bpf_map* constants = bpf_object__find_map_by_name(object.get(), ".rodata");
  bpf_map* takenFlows = bpf_object__find_map_by_name(object.get(), "takenFlows");
  if (bpf_map__set_initial_value(constants, &*surroundings, sizeof *surroundings) != 0 ||
      bpf_map__set_max_entries(takenFlows, static_cast<__u32>(mostFlows + mostFlows / 4)) != 0 ||
      bpf_object__load(object.get()) != 0)
    return nullptr;
  void* const askedFlows = ::mmap(nullptr, askedFlowsBytes, PROT_READ, MAP_SHARED,
                                  descriptorOf(object.get(), "askedFlows"), 0);
  if (askedFlows == MAP_FAILED) return nullptr;
  mountNames();
  // The constructor is private: only loaded programs are ever held.
  return std::unique_ptr<KernelPrograms>(  // NOLINT(*-owning-memory)
      new KernelPrograms(std::move(object), static_cast<AskedFlow*>(askedFlows)));
}

KernelPrograms::KernelPrograms(std::unique_ptr<bpf_object, Free> object,
                               AskedFlow* askedFlows) noexcept
    : object_(std::move(object)),
      takenFlows_(descriptorOf(object_.get(), "takenFlows")),
      leftFlows_(descriptorOf(object_.get(), "leftFlows")),
      askedFlows_(askedFlows) {}

KernelPrograms::~KernelPrograms() = default;

std::optional<std::string> KernelPrograms::publish() const {
  retract();
  const std::filesystem::path folder = namesFolder();
  if (::mkdir(folder.c_str(), S_IRWXU) != 0) return std::nullopt;
  bpf_program* program = nullptr;
  while ((program = bpf_object__next_program(object_.get(), program)) != nullptr) {
    if (bpf_program__type(program) != BPF_PROG_TYPE_SOCKET_FILTER) continue;
    const std::filesystem::path name = folder / bpf_program__name(program);
    if (bpf_obj_pin(bpf_program__fd(program), name.c_str()) != 0) {
      retract();
      return std::nullopt;
    }
  }
  return folder.string();
}

void KernelPrograms::retract() noexcept {
  std::error_code nothingThere;
  std::filesystem::remove_all(namesFolder(), nothingThere);
}

FileDescriptor KernelPrograms::watch() const {
  const bpf_program* program = bpf_object__find_program_by_name(object_.get(), "stateChanges");
  return FileDescriptor(bpf_raw_tracepoint_open("inet_sock_set_state", bpf_program__fd(program)));
}

std::optional<Connector> KernelPrograms::connectorOf(const FlowKey& flow) const noexcept {
  const FlowAddresses addresses = addressesOf(flow);
  AskedFlow& asked = askedFlows_.get()[placeOfAsked(&addresses)];
  const std::atomic_ref version(asked.version);
  const auto versionBefore = version.load(std::memory_order_acquire);
  const AskedFlow copy = asked;
  std::atomic_thread_fence(std::memory_order_acquire);
  // Another flow may take the place meanwhile.
  if (versionBefore % 2 != 0 || version.load(std::memory_order_relaxed) != versionBefore ||
      std::memcmp(&copy.flow, &addresses, sizeof addresses) != 0 || copy.process.number == 0)
    return std::nullopt;
  return Connector{.pid = static_cast<pid_t>(copy.process.number),
                   .startTime = copy.process.startTime,
                   .program = copy.process.program,
                   .interface = copy.process.interface};
}

void KernelPrograms::setTaken(const FlowKey& flow, std::uint64_t cookie, std::uint64_t datagrams) {
  const FlowAddresses key = addressesOf(flow);
  const TakenFlow taken{.datagrams = {.cookie = cookie, .answered = datagrams}, .endsGone = 0};
  bpf_map_update_elem(takenFlows_, &key, &taken, BPF_ANY);
}

void KernelPrograms::setLeft(const FlowKey& flow, std::uint64_t cookie, std::uint64_t datagrams) {
  const FlowAddresses key = addressesOf(flow);
  const AnsweredDatagrams left{.cookie = cookie, .answered = datagrams};
  bpf_map_update_elem(leftFlows_, &key, &left, BPF_ANY);
}

void KernelPrograms::forget(const FlowKey& flow) {
  const FlowAddresses key = addressesOf(flow);
  bpf_map_delete_elem(takenFlows_, &key);
  if (flow.protocol == IPPROTO_UDP) bpf_map_delete_elem(leftFlows_, &key);
}

}  // namespace tandor
