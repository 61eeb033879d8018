// Ports and the undo history against what an application would otherwise write: a
// std::vector of std::function observers, and a std::vector of std::function undo closures.
#include <vxtools3/ports.h>
#include <vxtools3/undo.h>

#include "bench/ratio_reporter.h"

#include <algorithm>
#include <functional>
#include <vector>

namespace {

// ---- Notification: one event delivered to n clients ------------------------------------------

constexpr uintptr_t kServer = 1;

void CountEvent(uintptr_t key, uintptr_t, int32_t event, uintptr_t argument)
{
    *reinterpret_cast<uint64_t *>(key) += static_cast<uint64_t>(event) + argument;
}

void ReportDeliveries(benchmark::State &state, uint64_t total, int64_t clients)
{
    const auto expected = static_cast<uint64_t>(state.iterations()) * 3u;
    if (total != expected * static_cast<uint64_t>(clients))
        state.SkipWithError("wrong number of deliveries");
    state.counters["ns_per_delivery"] = benchmark::Counter(static_cast<double>(state.iterations() * clients),
                                                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
}

void NotifyPort(benchmark::State &state)
{
    const int64_t clients = state.range(0);
    std::vector<uint64_t> counters(static_cast<size_t>(clients));
    VxPort *port = PortCreate(0, kServer, nullptr);
    for (uint64_t &c : counters)
        PortAttach(port, reinterpret_cast<uintptr_t>(&c), 0, CountEvent);
    for (auto _ : state)
        PortNotify(port, kServer, 0, 1, 0, 2);
    PortDestroy(port);
    uint64_t total = 0;
    for (uint64_t c : counters)
        total += c;
    ReportDeliveries(state, total, clients);
}

void NotifyVector(benchmark::State &state)
{
    const int64_t clients = state.range(0);
    std::vector<uint64_t> counters(static_cast<size_t>(clients));
    std::vector<std::function<void(int32_t, uintptr_t)>> observers;
    for (uint64_t &c : counters)
        observers.emplace_back([&c](int32_t event, uintptr_t argument) { c += static_cast<uint64_t>(event) + argument; });
    for (auto _ : state)
        for (auto &observer : observers)
            observer(1, 2);
    uint64_t total = 0;
    for (uint64_t c : counters)
        total += c;
    ReportDeliveries(state, total, clients);
}

#define NOTIFY_CASE(n)                                                                              \
    BENCHMARK(NotifyPort)->Name("notify_" #n ":PortNotify")->Arg(n);                               \
    BENCHMARK(NotifyVector)->Name("notify_" #n ":vector<function>")->Arg(n);

NOTIFY_CASE(1)
NOTIFY_CASE(10)
NOTIFY_CASE(1000)

// ---- One cycle: record a change, undo it, redo it ----------------------------------------------
//
// The history is bounded to kKeep steps on both sides, so the steady state also discards the
// oldest step each cycle. The vector peer trims in batches (erase the oldest kKeep once it holds
// twice as many), the cheap way to bound a vector.

constexpr int32_t kKeep = 64;

void Toggle(uintptr_t, int32_t, uintptr_t data) { *reinterpret_cast<int64_t *>(data) ^= 1; }

void CycleUndo(benchmark::State &state)
{
    int64_t value = 0;
    UndoSysSetMax(kKeep);
    for (auto _ : state) {
        value ^= 1;
        UndoAddComplete(0, Toggle, reinterpret_cast<uintptr_t>(&value), nullptr);
        UndoSysUndo();
        UndoSysRedo();
    }
    const int64_t kept = std::min<int64_t>(state.iterations(), kKeep);
    if (value != static_cast<int64_t>(state.iterations() & 1) || UndoNumUndo() != kept)
        state.SkipWithError("history out of step");
    UndoSysShutdown();
}

void CycleVector(benchmark::State &state)
{
    int64_t value = 0;
    std::vector<std::function<void()>> undo, redo;
    for (auto _ : state) {
        value ^= 1;
        redo.clear();
        undo.emplace_back([&value] { value ^= 1; });
        if (undo.size() >= 2 * static_cast<size_t>(kKeep))
            undo.erase(undo.begin(), undo.begin() + kKeep);
        undo.back()();
        redo.push_back(std::move(undo.back()));
        undo.pop_back();
        redo.back()();
        undo.push_back(std::move(redo.back()));
        redo.pop_back();
    }
    if (value != static_cast<int64_t>(state.iterations() & 1))
        state.SkipWithError("history out of step");
}

BENCHMARK(CycleUndo)->Name("record_undo_redo:Undo");
BENCHMARK(CycleVector)->Name("record_undo_redo:vector<function>");

}  // namespace
