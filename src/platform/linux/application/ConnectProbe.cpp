#include "platform/linux/application/ConnectProbe.h"

#include <cerrno>
#include <cstddef>
#include <initializer_list>
#include <memory>
#include <netinet/tcp.h>
#include <string_view>
#include <sys/stat.h>
#include <vector>

#include <bpf/bpf.h>
#include <bpf/btf.h>
#include <bpf/libbpf.h>

namespace tandor {
namespace {

/// Sockets whose first packet has not been asked about; the oldest make room.
constexpr std::uint32_t mostNoted = 16'384;

/// What the probe's map holds for the inode of a socket.
struct NotedProcess {
  std::uint64_t pid;
  std::uint64_t startTime;
  std::uint64_t program;
};

/// The kernel's own description of its types.
class KernelTypes {
 public:
  [[nodiscard]] bool isKnown() const noexcept { return types_ != nullptr; }

  /// Where a member lies in a structure, in bytes. Absent when this kernel has no such member.
  [[nodiscard]] std::optional<int> offset(const char* structure, std::string_view name) const {
    const auto found =
        member(btf__find_by_name_kind(types_.get(), structure, BTF_KIND_STRUCT), name);
    return found ? std::optional(static_cast<int>(*found / 8)) : std::nullopt;
  }

 private:
  [[nodiscard]] std::optional<std::uint32_t> member(int type, std::string_view name) const {
    const btf_type* const structure =
        type > 0 ? btf__type_by_id(types_.get(), static_cast<std::uint32_t>(type)) : nullptr;
    if (structure == nullptr || !btf_is_composite(structure)) return std::nullopt;
    for (std::uint32_t index = 0; index < btf_vlen(structure); ++index) {
      const btf_member& candidate = btf_members(structure)[index];
      const std::uint32_t bits = btf_member_bit_offset(structure, index);
      const std::string_view found = btf__name_by_offset(types_.get(), candidate.name_off);
      if (found == name) return bits;
      if (!found.empty()) continue;
      // The members of a nameless structure or union count as its owner's.
      if (const auto inner = member(static_cast<int>(candidate.type), name)) return bits + *inner;
    }
    return std::nullopt;
  }

  struct Free {
    void operator()(btf* types) const noexcept { btf__free(types); }
  };
  std::unique_ptr<btf, Free> types_{btf__load_vmlinux_btf()};
};

// The few instructions of the kernel's virtual machine that the probe needs.

using Register = std::uint8_t;
constexpr Register stack = BPF_REG_10;

// BPF_K, a constant operand, is zero, and so is BPF_IMM.
constexpr bpf_insn instruction(int code, Register to, Register from, int offset, int value) {
  return {.code = static_cast<std::uint8_t>(code),
          .dst_reg = static_cast<std::uint8_t>(to & 0xF),
          .src_reg = static_cast<std::uint8_t>(from & 0xF),
          .off = static_cast<std::int16_t>(offset),
          .imm = value};
}
constexpr bpf_insn load(int size, Register to, Register from, int offset) {
  return instruction(BPF_LDX | size | BPF_MEM, to, from, offset, 0);
}
constexpr bpf_insn store(int size, Register to, int offset, Register from) {
  return instruction(BPF_STX | size | BPF_MEM, to, from, offset, 0);
}
constexpr bpf_insn copy(Register to, Register from) {
  return instruction(BPF_ALU64 | BPF_MOV | BPF_X, to, from, 0, 0);
}
constexpr bpf_insn set(Register to, int value) {
  return instruction(BPF_ALU64 | BPF_MOV, to, 0, 0, value);
}
constexpr bpf_insn add(Register to, int value) {
  return instruction(BPF_ALU64 | BPF_ADD, to, 0, 0, value);
}
constexpr bpf_insn call(int function) {
  return instruction(BPF_JMP | BPF_CALL, 0, 0, 0, function);
}
constexpr bpf_insn skipNextIfEqual(Register value, int constant) {
  return instruction(BPF_JMP32 | BPF_JEQ | BPF_K, value, 0, 1, constant);
}
constexpr bpf_insn end = instruction(BPF_JMP | BPF_EXIT, 0, 0, 0, 0);

std::optional<std::vector<bpf_insn>> assemble(const KernelTypes& types, int map) {
  const auto ownersSocket = types.offset("sock", "sk_socket");
  const auto inodeOfSocket = types.offset("socket_alloc", "vfs_inode");
  const auto number = types.offset("inode", "i_ino");
  const auto leader = types.offset("task_struct", "group_leader");
  const auto startTime = types.offset("task_struct", "start_boottime");
  const auto program = types.offset("task_struct", "self_exec_id");
  struct stat processes{};
  if (!ownersSocket || !inodeOfSocket || !number || !leader || !startTime || !program ||
      ::stat("/proc/self/ns/pid", &processes) != 0)
    return std::nullopt;

  // The places of things on the probe's stack.
  constexpr int key = -int{sizeof(std::uint64_t)};
  constexpr int value = key - int{sizeof(NotedProcess)};
  constexpr int start = value + int{offsetof(NotedProcess, startTime)};
  constexpr int numbers = value - int{sizeof(bpf_pidns_info)};
  constexpr Register arguments = BPF_REG_6;
  constexpr Register task = BPF_REG_7;
  constexpr Register r0 = BPF_REG_0;
  constexpr Register r1 = BPF_REG_1;
  constexpr Register r2 = BPF_REG_2;
  constexpr Register r3 = BPF_REG_3;
  constexpr Register r4 = BPF_REG_4;
  std::vector<bpf_insn> instructions;
  const auto append = [&](std::initializer_list<bpf_insn> more) {
    instructions.insert(instructions.end(), more);
  };
  const auto appendConstant = [&](Register to, Register kind, std::uint64_t constant) {
    append({instruction(BPF_LD | BPF_DW, to, kind, 0,
                        static_cast<int>(static_cast<std::uint32_t>(constant))),
            instruction(0, 0, 0, 0, static_cast<int>(constant >> 32))});
  };
  /// Reads eight bytes of the kernel, `offset` behind where `base` points, to a place on the stack.
  const auto appendRead = [&](int place, Register base, int offset) {
    append({copy(r3, base), add(r3, offset), copy(r1, stack), add(r1, place),
            set(r2, sizeof(std::uint64_t)), call(BPF_FUNC_probe_read_kernel)});
  };

  // A raw tracepoint's arguments: the socket, its old state and its new one.
  append({copy(arguments, r1), load(BPF_DW, r1, arguments, 16), set(r0, 0),
          skipNextIfEqual(r1, TCP_SYN_SENT), end});
  append({load(BPF_DW, r4, arguments, 0)});
  appendRead(key, r4, *ownersSocket);
  append({load(BPF_DW, r4, stack, key)});
  appendRead(key, r4, *inodeOfSocket + *number);
  // The process's number where this daemon lives; of other process namespaces nothing is noted.
  appendConstant(r1, 0, processes.st_dev);
  appendConstant(r2, 0, processes.st_ino);
  append({copy(r3, stack), add(r3, numbers), set(r4, sizeof(bpf_pidns_info)),
          call(BPF_FUNC_get_ns_current_pid_tgid), skipNextIfEqual(r0, 0), end,
          load(BPF_W, r1, stack, numbers + int{offsetof(bpf_pidns_info, tgid)}),
          store(BPF_DW, stack, value, r1)});
  append({call(BPF_FUNC_get_current_task), copy(task, r0)});
  appendRead(value + int{offsetof(NotedProcess, program)}, task, *program);
  appendRead(start, task, *leader);
  append({load(BPF_DW, r4, stack, start)});
  appendRead(start, r4, *startTime);
  appendConstant(r1, BPF_PSEUDO_MAP_FD, static_cast<std::uint32_t>(map));
  append({copy(r2, stack), add(r2, key), copy(r3, stack), add(r3, value), set(r4, BPF_ANY),
          call(BPF_FUNC_map_update_elem), set(r0, 0), end});
  return instructions;
}

}  // namespace

std::expected<ConnectProbe, int> ConnectProbe::load() {
  libbpf_set_print(nullptr);  // who cannot have the probe does without
  FileDescriptor map(bpf_map_create(BPF_MAP_TYPE_LRU_HASH, "tandor_connects", sizeof(std::uint64_t),
                                    sizeof(NotedProcess), mostNoted, nullptr));
  if (!map.isOpen()) return std::unexpected(errno);
  const KernelTypes types;
  if (!types.isKnown()) return std::unexpected(ENOTSUP);
  const auto instructions = assemble(types, map.get());
  if (!instructions) return std::unexpected(ENOTSUP);
  FileDescriptor program(bpf_prog_load(BPF_PROG_TYPE_RAW_TRACEPOINT, "tandor_connect", "GPL",
                                       instructions->data(), instructions->size(), nullptr));
  if (!program.isOpen()) return std::unexpected(errno);
  return ConnectProbe(std::move(map), std::move(program));
}

std::expected<FileDescriptor, int> ConnectProbe::attach() const {
  FileDescriptor link(bpf_raw_tracepoint_open("inet_sock_set_state", program_.get()));
  if (!link.isOpen()) return std::unexpected(errno);
  return link;
}

std::optional<ConnectProbe::Connector> ConnectProbe::take(ino_t socket) const noexcept {
  const std::uint64_t key = socket;
  NotedProcess process{};
  if (bpf_map_lookup_and_delete_elem(map_.get(), &key, &process) != 0) return std::nullopt;
  return Connector{.pid = static_cast<pid_t>(process.pid),
                   .startTime = process.startTime,
                   .program = process.program};
}

}  // namespace tandor
