#include <cstdint>
#include <cstdlib>
#include <fstream>
#include <iterator>
#include <string>

#include <benchmark/benchmark.h>

#include "micro/Allocations.h"
#include "platform/foundation/Data.h"
#include "tls/ClientHello.h"

namespace {

std::string recordedHello() {
  std::ifstream file(TANDOR_HELLO, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

void perHello(benchmark::State& state, std::uint64_t allocationsBefore) {
  state.counters["allocations"] =
      benchmark::Counter(static_cast<double>(tandor::bench::allocations() - allocationsBefore),
                         benchmark::Counter::kAvgIterations);
}

/// The parser alone.
void parser(benchmark::State& state) {
  const std::string hello = recordedHello();
  const auto* bytes = reinterpret_cast<const std::uint8_t*>(hello.data());
  const std::uint64_t before = tandor::bench::allocations();
  for ([[maybe_unused]] auto _ : state) {
    char* name = nullptr;
    benchmark::DoNotOptimize(tandor::parse_tls_header(bytes, hello.size(), &name));
    benchmark::DoNotOptimize(name);
    std::free(name);  // NOLINT: the parser hands over malloc's memory
  }
  perHello(state, before);
}
BENCHMARK(parser);

/// As the relay asks.
void serverName(benchmark::State& state) {
  const tandor::Data hello = tandor::Data::copying(recordedHello());
  const std::uint64_t before = tandor::bench::allocations();
  for ([[maybe_unused]] auto _ : state) {
    auto name = tandor::serverName(hello);
    if (!name || name->empty()) state.SkipWithError("no name");
    benchmark::DoNotOptimize(name);
  }
  perHello(state, before);
}
BENCHMARK(serverName);

}  // namespace
