// Image operations split over workers: the process-wide worker count, the runner that hands
// the parts of an operation to the threads of a thread group, and the pieces of work that
// those parts take in turn.
//
// Each part runs inside a checkpoint block of its own thread. A failure there (out of memory,
// a pixel that cannot be converted) ends only that part; once every part has ended, the
// failure of the first failed part is raised again on the calling thread, inside the
// operation's own block, which then unwinds exactly as it does when everything runs on one
// thread.
#include "image/image_internal.h"

#include <vxtools3/threads.h>

#include <algorithm>
#include <atomic>

namespace vx::image {
namespace {

std::atomic<int32_t> g_workers{1};
std::atomic<int64_t> g_minPartWork{kDefaultMinPartWork};

struct PartTask {
    PartWork *work;
    void *context;
    int32_t part;
    int32_t code;
    bool failed;
    bool done;
};

// Runs one part in a block of this thread's own; a failure is recorded, not raised.
void RunGuarded(PartTask *task)
{
    if (CkptBegin()) {
        task->code = CkptLatchCode();
        task->failed = true;
        return;
    }
    task->work(task->context, task->part);
    CkptEnd();
    task->done = true;
}

int RunTask(MTThreadID thread)
{
    RunGuarded(static_cast<PartTask *>(MTThreadGetArg(thread)));
    return 0;
}

void DestroyGroupArm(uintptr_t group, uintptr_t) { MTGroupDestroy(reinterpret_cast<MTGroupID>(group)); }

}  // namespace

int32_t WorkerCount()
{
    const int32_t n = g_workers.load(std::memory_order_relaxed);
    return std::clamp(n == 0 ? static_cast<int32_t>(MTSystemCountProcs()) : n, 1, kMaxWorkers);
}

void SetMinPartWork(int64_t work) { g_minPartWork.store(std::max<int64_t>(work, 1), std::memory_order_relaxed); }

int32_t PartsFor(int64_t units, int64_t work)
{
    const int64_t bySize = std::max<int64_t>(work / g_minPartWork.load(std::memory_order_relaxed), 1);
    return static_cast<int32_t>(std::clamp<int64_t>(std::min<int64_t>(units, bySize), 1, WorkerCount()));
}

void RunParts(int32_t parts, PartWork *work, void *context)
{
    if (parts <= 1) {
        work(context, 0);
        return;
    }
    PartTask tasks[kMaxWorkers];
    for (int32_t i = 0; i < parts; ++i)
        tasks[i] = PartTask{work, context, i, 0, false, false};
    CKPT_BEGIN_OR_RETURN();
    MTGroupID group = MTGroupCreate(parts);
    if (!group) {  // only when no block would take the failure; cannot happen inside ours
        CkptEnd();
        for (int32_t i = 0; i < parts; ++i)
            work(context, i);
        return;
    }
    CkptArm(DestroyGroupArm, reinterpret_cast<uintptr_t>(group), 0);
    for (int32_t i = 0; i < parts; ++i)
        MTGroupAddThread(group, RunTask, &tasks[i], 0);
    // When the system refuses a thread the parts that never started run here; the started
    // ones do not poll for the abort that follows the refusal and have finished.
    if (!MTGroupRun(group))
        for (int32_t i = 0; i < parts; ++i)
            if (!tasks[i].done && !tasks[i].failed)
                RunGuarded(&tasks[i]);
    for (int32_t i = 0; i < parts; ++i)
        if (tasks[i].failed)
            CkptRecover(tasks[i].code);
    CkptEnd();
    MTGroupDestroy(group);
}

namespace {

// The first of `count` units that piece `piece` of `pieces` covers (piece `pieces` gives
// `count`): the pieces take consecutive runs of nearly equal size.
int32_t PieceStart(int32_t count, int32_t piece, int32_t pieces)
{
    return static_cast<int32_t>(static_cast<int64_t>(count) * piece / pieces);
}

// Pieces a worker's share is cut into, when there are several workers.
constexpr int32_t kPiecesPerWorker = 4;

// The pieces not yet taken are [front, back), packed in one word (front in the low half).
// Even workers take from the front and odd ones from the back: two workers then start at
// opposite ends of the result and share a huge page of it only where they meet. The first
// touch of a fresh page holds up every thread that touches it until the kernel has cleared
// it, and with both workers at the front that came to 9% of a halving's time.
struct Pieces {
    PieceWork *work;
    void *context;
    int32_t units, count;
    std::atomic<uint64_t> range{0};
    std::atomic<bool> failed{false};
};

// The piece taken from the front or the back of what is left, or -1 when none is.
int32_t TakePiece(Pieces &p, bool fromFront)
{
    uint64_t range = p.range.load(std::memory_order_relaxed);
    for (;;) {
        const auto front = static_cast<uint32_t>(range), back = static_cast<uint32_t>(range >> 32);
        if (front >= back)
            return -1;
        const uint64_t taken = fromFront ? range + 1 : range - (uint64_t{1} << 32);
        if (p.range.compare_exchange_weak(range, taken, std::memory_order_relaxed))
            return static_cast<int32_t>(fromFront ? front : back - 1);
    }
}

// A worker's loop: a piece from its end of those left, until none is or a piece has failed.
void TakePieces(void *context, int32_t worker)
{
    auto &p = *static_cast<Pieces *>(context);
    if (CkptBegin()) {
        p.failed.store(true, std::memory_order_relaxed);
        CkptRecover(CkptLatchCode());  // on to RunParts' block of this worker
    }
    for (int32_t i; !p.failed.load(std::memory_order_relaxed) && (i = TakePiece(p, worker % 2 == 0)) >= 0;)
        p.work(p.context, worker, PieceStart(p.units, i, p.count), PieceStart(p.units, i + 1, p.count));
    CkptEnd();
}

}  // namespace

void RunPieces(int32_t workers, int32_t units, PieceWork *work, void *context)
{
    if (workers <= 1) {
        work(context, 0, 0, units);
        return;
    }
    Pieces pieces;
    pieces.work = work;
    pieces.context = context;
    pieces.units = units;
    pieces.count = std::min(units, workers * kPiecesPerWorker);
    pieces.range.store(static_cast<uint64_t>(pieces.count) << 32, std::memory_order_relaxed);
    RunParts(workers, TakePieces, &pieces);
}

}  // namespace vx::image

extern "C" {

VX_API int32_t ImageSetWorkers(int32_t workers)
{
    if (workers < 0)
        return -1;
    return vx::image::g_workers.exchange(workers, std::memory_order_relaxed);
}

VX_API int32_t ImageGetWorkers(void) { return vx::image::g_workers.load(std::memory_order_relaxed); }

}  // extern "C"
