// Timing a figure and its baseline in turns, shared by the benchmark
// binaries.
#pragma once

#include <benchmark/benchmark.h>

#include <chrono>

namespace kiv::bench {

// Runs `figure` and `baseline` in turns, the order swapped every iteration,
// and times each on its own. This machine runs whole repetitions in fast and
// slow phases (up to a third apart) that move both sides alike, so a ratio
// taken within each repetition holds where the ratio of two separately run
// benchmarks' medians mixes phases. The benchmark's (manual) time is the
// figure's; counter baseline_ms is the baseline's and ratio the figure's
// total over the baseline's.
//
// When a turn is several units of work (look-ups, say), `perTurn` tells how
// many on each side: ratio is then per unit, and counters ns and baseline_ns
// give the time of one unit.
struct PerTurn {
    double figure = 1;
    double baseline = 1;
};

template <class Figure, class Baseline>
void inTurns(benchmark::State& state, Figure&& figure, Baseline&& baseline, PerTurn perTurn = {}) {
    using Clock = std::chrono::steady_clock;
    auto timed = [](auto& work) {
        const auto start = Clock::now();
        work();
        return std::chrono::duration<double>(Clock::now() - start).count();
    };
    double figureSeconds = 0, baselineSeconds = 0;
    bool figureFirst = true;
    for (auto _ : state) {
        double f, b;
        if (figureFirst) {
            f = timed(figure);
            b = timed(baseline);
        } else {
            b = timed(baseline);
            f = timed(figure);
        }
        figureFirst = !figureFirst;
        figureSeconds += f;
        baselineSeconds += b;
        state.SetIterationTime(f);
    }
    const auto turns = static_cast<double>(state.iterations());
    state.counters["baseline_ms"] = baselineSeconds * 1e3 / turns;
    state.counters["ratio"] = (figureSeconds / perTurn.figure) / (baselineSeconds / perTurn.baseline);
    if (perTurn.figure != 1 || perTurn.baseline != 1) {
        state.counters["ns"] = figureSeconds * 1e9 / (turns * perTurn.figure);
        state.counters["baseline_ns"] = baselineSeconds * 1e9 / (turns * perTurn.baseline);
    }
}

}  // namespace kiv::bench
