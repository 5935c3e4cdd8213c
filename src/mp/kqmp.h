// Parallel row dispatch: one mechanism runs all the parallel image work.
// A driver asks kqmp_threadsfor for a thread count, then hands a row worker and
// its arguments to kqmp_dispatch; the rows are cut into one contiguous share per
// thread, share 0 runs on the calling thread, and the call returns when all are
// done. This layer knows nothing about pixels or about OFX: a host's own thread
// suite is reached through the runner that the shell installs.
#pragma once

#include <cstdint>
#include <type_traits>

#include "base/plerr.h"

// The job's argument list: pointers and 32-bit integers, in the driver's order.
// A float or a group of values travels as a pointer to a local of the driver,
// whose frame outlives the job; workers only read through it.
union kqmp_arg {
    void* p;
    int32_t i;
};

constexpr int kqmp_maxargs = 16;

struct kqmp_arglist {
    kqmp_arg items[kqmp_maxargs];
    int32_t count = 0;
};

// A worker's private cursor over the job's list: each thread fetches the
// arguments independently, in the driver's order.
class kqmp_args {
  public:
    explicit kqmp_args(const kqmp_arglist* list) : list_(list) {}

    template <typename T>
    T next() {
        const kqmp_arg& a = list_->items[pos_++];
        if constexpr (std::is_pointer_v<T>) {
            return static_cast<T>(a.p);
        } else {
            static_assert(std::is_same_v<T, int32_t>, "job arguments are pointers or 32-bit integers");
            return a.i;
        }
    }

  private:
    const kqmp_arglist* list_;
    int pos_ = 0;
};

// threadIndex 0..count-1; isFirstWorker only for the share that may report
// progress; rows inclusive at both ends.
using kqmp_worker = void(int32_t threadIndex, bool isFirstWorker, int32_t firstRow, int32_t lastRow,
                         kqmp_args* args);

namespace kqmp_detail {
inline void pack(kqmp_arglist&) {}
template <typename T, typename... Rest>
void pack(kqmp_arglist& list, T first, Rest... rest) {
    static_assert(kqmp_maxargs > sizeof...(Rest), "too many job arguments");
    kqmp_arg a;
    if constexpr (std::is_pointer_v<T>) {
        a.p = const_cast<void*>(static_cast<const void*>(first));
    } else {
        static_assert(std::is_same_v<T, int32_t> || std::is_same_v<T, int>,
                      "job arguments are pointers or 32-bit integers");
        a.i = first;
    }
    list.items[list.count++] = a;
    pack(list, rest...);
}
}  // namespace kqmp_detail

int32_t kqmp_numcpus();
int32_t kqmp_maxthreads();
void setThreadCount(int32_t count);
int32_t kqmp_threadsfor(int32_t rows);
void kqmp_splitrows(int32_t threadCount, int32_t index, int32_t rows, int32_t* first, int32_t* last);
void kqmp_shutdown();

// Runs worker over rows 0..rows-1. May throw PLErr.
void kqmp_dispatchlist(int32_t threadCount, int32_t rows, kqmp_worker* worker, const kqmp_arglist& list);

template <typename... Args>
void kqmp_dispatch(int32_t threadCount, int32_t rows, kqmp_worker* worker, Args... args) {
    kqmp_arglist list;
    kqmp_detail::pack(list, args...);
    kqmp_dispatchlist(threadCount, rows, worker, list);
}

// Runs worker over `rows` rows with the thread count kqmp_threadsfor gives for
// them. Nothing is dispatched for no rows: the pool would run the previous
// job's share for a thread count of 0.
template <typename... Args>
void kqmp_runrows(int32_t rows, kqmp_worker* worker, Args... args) {
    if (rows < 1) return;
    kqmp_dispatch(kqmp_threadsfor(rows), rows, worker, args...);
}

// A host's thread suite, as the shell sees it: run fn(index, count, arg) on
// count threads. The runner answers false when the host is not to be used, and
// the pool runs the job instead.
using kqmp_threadfunction = void(unsigned int index, unsigned int count, void* arg);
using kqmp_hostrunner = bool(kqmp_threadfunction* fn, unsigned int count, void* arg);
void kqmp_sethostrunner(kqmp_hostrunner* runner);
