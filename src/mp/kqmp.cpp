// The row-parallel dispatch: a static pool of 1024 slots, one job at a time.
// Share 0 runs on the calling thread; the others run on pool threads that start
// on first need and sleep between jobs, or on the host's threads when the
// shell's runner takes the job. Nothing escapes a worker on another thread: a
// failure there is caught, kept in its slot and thrown on the calling thread.
#include "mp/kqmp.h"

#include <cxxabi.h>
#include <unistd.h>

#include <atomic>

#include "mp/qvmp_thread.h"

namespace {

constexpr int32_t kqmp_maxslots = 1024;
constexpr bool kqmp_isfirstworker = true;

struct kqmp_slot {
    QVMP_Thread thread;  // slot 0's is never started: the calling thread works that share
    int32_t firstRow = -1;
    int32_t lastRow = -1;
    kqmp_args args{nullptr};  // each thread works from a private copy of this cursor
    kqmp_worker* worker = nullptr;
    int32_t threadIndex = 0;
    int32_t failure = PLErrNone;  // what escaped the worker on a pool or host thread
};

// Written once by the shell (or a test) before jobs run; read atomically since
// several render threads may ask for a thread count at once.
std::atomic<int32_t> gThreadLimit{0};  // 0 until known
kqmp_hostrunner* gHostRunner = nullptr;

// Where the pool stands in the module's life. A plain enum is constant-
// initialised, so it is valid before the pool's static constructor and after
// its destructor: the shell's atexit routine may call kqmp_shutdown on either
// side of the pool's teardown, the order across translation units being open.
enum PoolState : int32_t { kPoolRaw, kPoolLive, kPoolGone };
PoolState gPoolState = kPoolRaw;

// Admits one job at a time to the slots. Built before the slots, so destroyed
// after them.
QVMP_BinarySemaphore kqmp_dispatchlock(true);

// Destroyed from the highest slot down; each thread's destructor joins it, so
// unloading the module leaves no thread running its code.
kqmp_slot kqmp_slots[kqmp_maxslots];

// Built after the slots and so torn down before them.
struct PoolLife {
    PoolLife() { gPoolState = kPoolLive; }
    ~PoolLife() { gPoolState = kPoolGone; }
} gPoolLife;

// Runs one share off the calling thread, where nothing above may see an
// exception: any that escapes is kept in the slot as a PLErr.
void RunShareCaught(kqmp_slot* slot, bool isFirstWorker) {
    kqmp_args args = slot->args;
    try {
        slot->worker(slot->threadIndex, isFirstWorker, slot->firstRow, slot->lastRow, &args);
    } catch (PLErr e) {
        slot->failure = e;
    } catch (abi::__forced_unwind&) {
        throw;  // thread cancellation must run its course
    } catch (...) {
        slot->failure = PLErrFailed;
    }
}

// The first failure among slots [from, to), in slot order.
void ThrowSlotFailure(int32_t from, int32_t to) {
    for (int32_t i = from; i < to; ++i)
        if (kqmp_slots[i].failure != PLErrNone) throw static_cast<PLErr>(kqmp_slots[i].failure);
}

void* kqmp_poolthread(void* argument) {
    auto* slot = static_cast<kqmp_slot*>(argument);
    for (;;) {
        slot->thread.goSignal.Wait();
        if (slot->thread.stopRequested) break;
        if (!slot->worker) break;
        RunShareCaught(slot, false);
        slot->worker = nullptr;
        slot->thread.doneSignal.Signal();
    }
    return nullptr;
}

// Called by the host on its threads, index 0 to count - 1, with the slots.
void kqmp_hostthread(unsigned int index, unsigned int, void* argument) {
    auto* slots = static_cast<kqmp_slot*>(argument);
    RunShareCaught(&slots[index], kqmp_isfirstworker && index == 0);
}

void WaitForPool(int32_t threadCount, kqmp_slot* slots) {
    for (int32_t i = 1; i < threadCount; ++i) slots[i].thread.doneSignal.Wait();
}

void kqmp_runpool(int32_t threadCount, kqmp_slot* slots) {
    // A failed start leaves the threads started so far asleep: none is woken yet.
    for (int32_t i = 1; i < threadCount; ++i)
        if (!slots[i].thread.started) slots[i].thread.Start(kqmp_poolthread, &slots[i]);
    for (int32_t i = 1; i < threadCount; ++i) slots[i].thread.goSignal.Signal();

    // The pool threads read the driver's frame, so they are waited for even when
    // the calling thread's share fails, and every doneSignal is consumed.
    PLErr callerFailure = PLErrNone;
    kqmp_args args = slots[0].args;
    try {
        slots[0].worker(slots[0].threadIndex, kqmp_isfirstworker, slots[0].firstRow, slots[0].lastRow, &args);
    } catch (PLErr e) {
        callerFailure = e;  // a PLErrNone counts as success
    } catch (...) {
        WaitForPool(threadCount, slots);
        throw;
    }
    WaitForPool(threadCount, slots);
    if (callerFailure != PLErrNone) throw callerFailure;
    ThrowSlotFailure(1, threadCount);
}

}  // namespace

int32_t kqmp_numcpus() {
    return static_cast<int32_t>(sysconf(_SC_NPROCESSORS_ONLN));
}

// No job may ask for more threads than the pool has slots: it could never run.
int32_t kqmp_maxthreads() {
    int32_t limit = gThreadLimit.load(std::memory_order_relaxed);
    if (limit == 0) limit = kqmp_numcpus();
    if (limit < 1) limit = 1;
    if (limit > kqmp_maxslots) limit = kqmp_maxslots;
    gThreadLimit.store(limit, std::memory_order_relaxed);
    return limit;
}

void setThreadCount(int32_t count) {
    gThreadLimit.store(count > kqmp_maxslots ? kqmp_maxslots : count, std::memory_order_relaxed);
}

int32_t kqmp_threadsfor(int32_t rows) {
    int32_t limit = kqmp_maxthreads();
    int32_t m = limit < rows ? limit : rows;
    // Every thread gets at least 16 rows.
    while (m > 1) {
        if (rows / m >= 16) return m;
        --m;
    }
    return m;
}

void kqmp_splitrows(int32_t threadCount, int32_t index, int32_t rows, int32_t* first, int32_t* last) {
    int32_t share = rows / threadCount;
    *first = index * share;
    *last = index == threadCount - 1 ? rows - 1 : index * share + share - 1;
}

void kqmp_sethostrunner(kqmp_hostrunner* runner) {
    gHostRunner = runner;
}

void kqmp_dispatchlist(int32_t threadCount, int32_t rows, kqmp_worker* worker, const kqmp_arglist& list) {
    // No job: nothing to run, and the slots' previous job must not be replayed.
    if (threadCount <= 0) return;
    // Single-thread work takes no lock, so that of many render threads runs side by side.
    if (threadCount == 1 || rows == 1) {
        kqmp_args args(&list);
        worker(0, true, 0, rows - 1, &args);
        return;
    }
    if (threadCount > kqmp_maxslots) throw PLErrFailed;
    if (gPoolState != kPoolLive) throw PLErrFailed;  // before the pool's construction or after its teardown

    kqmp_dispatchlock.Wait();
    try {
        for (int32_t i = 0; i < threadCount; ++i) {
            kqmp_slot& slot = kqmp_slots[i];
            kqmp_splitrows(threadCount, i, rows, &slot.firstRow, &slot.lastRow);
            slot.worker = worker;
            slot.args = kqmp_args(&list);
            slot.threadIndex = i;
            slot.failure = PLErrNone;
        }
        if (gHostRunner && gHostRunner(kqmp_hostthread, static_cast<unsigned int>(threadCount), kqmp_slots))
            ThrowSlotFailure(0, threadCount);
        else
            kqmp_runpool(threadCount, kqmp_slots);
    } catch (...) {
        kqmp_dispatchlock.Signal();
        throw;
    }
    kqmp_dispatchlock.Signal();
}

void kqmp_shutdown() {
    if (gPoolState != kPoolLive) return;
    kqmp_dispatchlock.Wait();
    try {
        for (kqmp_slot& slot : kqmp_slots) slot.thread.Stop();
    } catch (PLErr) {
        kqmp_dispatchlock.Signal();
        throw;
    }
    kqmp_dispatchlock.Signal();
}
