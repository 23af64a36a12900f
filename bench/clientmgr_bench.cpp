// Speed of the hot paths: configuration lookups (every accessor call reads
// the store), the client-table walk, and a full update through the handler
// with commands recorded instead of run.
//
//   cmake --build build --target clientmgr_bench && build/clientmgr_bench
#include <benchmark/benchmark.h>

#include <memory>
#include <string>

#include "clients/table.h"
#include "clients/update.h"
#include "common/runner.h"
#include "common/text.h"
#include "config/taglist.h"
#include "model/context.h"

namespace {

std::string sample_config(int keys) {
  std::string text;
  for (int i = 0; i < keys; ++i) text += common::format("WLAN%d_SETTING_%d=\"value %d\"\n", i % 16 + 1, i, i);
  return text;
}

void BM_TaglistLoad(benchmark::State& state) {
  const std::string text = sample_config(static_cast<int>(state.range(0)));
  for (auto _ : state) {
    auto list = config::load_taglist_buffer(text, 1);
    benchmark::DoNotOptimize(list->count);
  }
  state.SetItemsProcessed(state.iterations() * state.range(0));
}
BENCHMARK(BM_TaglistLoad)->Arg(256)->Arg(2048);

void BM_TaglistLookup(benchmark::State& state) {
  auto list = config::load_taglist_buffer(sample_config(2048), 1);
  int i = 0;
  for (auto _ : state) {
    auto value = config::get_taglist_default_ex(list.get(), "", "WLAN%d_SETTING_%d", i % 16 + 1, i % 2048);
    benchmark::DoNotOptimize(value.data());
    ++i;
  }
}
BENCHMARK(BM_TaglistLookup);

std::string station(int n) {
  return common::format("02:00:00:00:%02x:%02x", (n >> 8) & 0xff, n & 0xff);
}

std::unique_ptr<daemon_core::DaemonContext> full_table() {
  auto ctx = std::make_unique<daemon_core::DaemonContext>();
  clients::init_records(*ctx);
  for (int i = 0; i < clients::kClientSlots; ++i) {
    auto& rec = ctx->records[i];
    rec.mac = station(i);
    rec.in_use = 1;
    rec.ifindex = i % 4;
    rec.last_update = 1000 + i;
  }
  ctx->client_count = clients::kClientSlots;
  return ctx;
}

void BM_LookupFullTable(benchmark::State& state) {
  auto ctx = full_table();
  int i = 0;
  for (auto _ : state) {
    auto where = clients::lookup_record(*ctx, station(i % clients::kClientSlots), i % 4);
    benchmark::DoNotOptimize(where.slot);
    ++i;
  }
}
BENCHMARK(BM_LookupFullTable);

void BM_UpdateIpLearned(benchmark::State& state) {
  common::CommandRecorder recorder{[](const std::string&) {}, nullptr};
  common::set_command_recorder(&recorder);
  auto ctx = full_table();
  int i = 0;
  for (auto _ : state) {
    const std::string ip = common::format("10.0.%d.%d", (i >> 8) & 0xff, i & 0xff);
    clients::update_client_table(*ctx, clients::kEventIpLearned, i % 4, station(i % clients::kClientSlots), ip,
                                 std::nullopt);
    ++i;
  }
  common::set_command_recorder(nullptr);
}
BENCHMARK(BM_UpdateIpLearned);

}  // namespace

BENCHMARK_MAIN();
