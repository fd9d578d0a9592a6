// The status queries, which applications call often, while a run is flashing.
#include <benchmark/benchmark.h>

#include "upgrade/upgrade_api.h"

namespace {

void pretendToFlash() {
    UpgradeProc* const proc = UpgradeProc::getInstance();
    proc->running = true;
    proc->upgradeFlag.mpu = true;
    proc->stage = UPGRADE_STAGE_FLASHING_START;
    proc->onProgrameStatusChg();
}

template <int (*query)()>
void ask(benchmark::State& state) {
    pretendToFlash();
    for (auto round : state) {
        (void)round;
        benchmark::DoNotOptimize(query());
    }
}

BENCHMARK(ask<UPGRADE_get_stage>)->Name("get_stage");
BENCHMARK(ask<UPGRADE_get_progress>)->Name("get_progress");
BENCHMARK(ask<UPGRADE_get_state>)->Name("get_state");

}  // namespace

BENCHMARK_MAIN();
