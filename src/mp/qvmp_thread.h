// The thread layer's primitives: a binary semaphore, a thread that can be
// started, stopped and started again, and a plain mutex record for the
// library's own locks. Thin layers over POSIX threads whose one policy is how a
// failure becomes a PLErr: a failed init or create is PLErrOutOfMemory, a failed
// join PLErrFailed, and errors of lock, unlock and destroy are ignored.
#pragma once

#include <pthread.h>

#include <cstdint>

#include "base/qvmem.h"

// Live pool threads: QVMP_Thread::Start adds one, QVMP_Thread::Stop takes one.
// Only counted, never consulted; touched only under the dispatch lock.
extern int32_t kqmp_threadcount;

// Signalled by one thread and waited on by another, so it can't be a bare
// mutex (unlocking a default mutex from a non-owner is undefined): a flag
// guarded by a mutex, with a condition variable to sleep on. A new semaphore
// is unsignalled; a second Signal before a Wait is not counted.
class QVMP_BinarySemaphore : public QVMem {
  public:
    explicit QVMP_BinarySemaphore(bool signalledAtStart);
    virtual ~QVMP_BinarySemaphore();
    QVMP_BinarySemaphore(const QVMP_BinarySemaphore&) = delete;
    QVMP_BinarySemaphore& operator=(const QVMP_BinarySemaphore&) = delete;

    void Create();
    void Wait();  // blocks until signalled, leaves the semaphore unsignalled
    void Signal();
    void Destroy();  // the semaphore can be created anew

    bool mutexCreated = false;
    pthread_mutex_t mutex;
    pthread_cond_t changed;
    bool signalled = false;
    bool created = false;
};

using QVMP_ThreadEntry = void* (*)(void* argument);

// The entry's side of the contract: after each wake-up on goSignal it reads
// stopRequested before anything else and returns when it is set.
class QVMP_Thread : public QVMem {
  public:
    QVMP_Thread();
    virtual ~QVMP_Thread();
    QVMP_Thread(const QVMP_Thread&) = delete;
    QVMP_Thread& operator=(const QVMP_Thread&) = delete;

    void Start(QVMP_ThreadEntry entry, void* argument);
    void Stop();

    QVMP_BinarySemaphore goSignal{false};
    QVMP_BinarySemaphore doneSignal{false};
    pthread_t handle{};
    bool stopRequested = false;
    bool started = false;
};

// Spins on trylock in Lock, deliberately: it neither sleeps nor yields.
struct kqmp_mutex {
    kqmp_mutex();
    ~kqmp_mutex();
    kqmp_mutex(const kqmp_mutex&) = delete;
    kqmp_mutex& operator=(const kqmp_mutex&) = delete;

    void Lock();
    void Unlock();

    bool created = false;
    pthread_mutex_t mutex;
};

// count mutexes in one block and a table of pointers to them in another, both
// from the library's allocator. A count below 1 gives a null table.
kqmp_mutex** kqmp_mutexarray(int32_t count);
// Destroys the mutexes in reverse order and frees both blocks; null is a no-op.
void kqmp_freemutexarray(kqmp_mutex** table, int32_t count);
