// Semaphores, restartable threads and spin mutexes over POSIX threads.
#include "mp/qvmp_thread.h"

#include <new>

int32_t kqmp_threadcount = 0;

QVMP_BinarySemaphore::QVMP_BinarySemaphore(bool signalledAtStart) {
    Create();
    if (signalledAtStart) Signal();
}

QVMP_BinarySemaphore::~QVMP_BinarySemaphore() {
    Destroy();
}

void QVMP_BinarySemaphore::Create() {
    if (created) return;
    mutexCreated = false;
    if (pthread_mutex_init(&mutex, nullptr) != 0) throw PLErrOutOfMemory;
    if (pthread_cond_init(&changed, nullptr) != 0) {
        pthread_mutex_destroy(&mutex);
        throw PLErrOutOfMemory;
    }
    mutexCreated = true;
    signalled = false;
    created = true;
}

void QVMP_BinarySemaphore::Wait() {
    pthread_mutex_lock(&mutex);
    while (!signalled) pthread_cond_wait(&changed, &mutex);
    signalled = false;
    pthread_mutex_unlock(&mutex);
}

void QVMP_BinarySemaphore::Signal() {
    pthread_mutex_lock(&mutex);
    signalled = true;
    pthread_cond_signal(&changed);
    pthread_mutex_unlock(&mutex);
}

// Keyed on created as well, so that the destructor after an explicit Destroy
// doesn't destroy the same objects twice.
void QVMP_BinarySemaphore::Destroy() {
    if (mutexCreated && created) {
        pthread_cond_destroy(&changed);
        pthread_mutex_destroy(&mutex);
    }
    created = false;
}

QVMP_Thread::QVMP_Thread() = default;

QVMP_Thread::~QVMP_Thread() {
    // A destructor may not throw; a failed join leaves nothing better to do.
    try {
        Stop();
    } catch (PLErr) {
    }
}

void QVMP_Thread::Start(QVMP_ThreadEntry entry, void* argument) {
    if (started) return;
    goSignal.Create();
    doneSignal.Create();
    stopRequested = false;
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_JOINABLE);
    int failed = pthread_create(&handle, &attributes, entry, argument);
    pthread_attr_destroy(&attributes);
    if (failed) throw PLErrOutOfMemory;
    ++kqmp_threadcount;
    started = true;
}

void QVMP_Thread::Stop() {
    if (!started) return;
    stopRequested = true;
    goSignal.Signal();
    if (pthread_join(handle, nullptr) != 0) throw PLErrFailed;
    started = false;
    --kqmp_threadcount;
}

kqmp_mutex::kqmp_mutex() {
    if (pthread_mutex_init(&mutex, nullptr) != 0) throw PLErrOutOfMemory;
    created = true;
}

kqmp_mutex::~kqmp_mutex() {
    if (created) pthread_mutex_destroy(&mutex);
}

void kqmp_mutex::Lock() {
    while (pthread_mutex_trylock(&mutex) != 0) {
    }
}

void kqmp_mutex::Unlock() {
    pthread_mutex_unlock(&mutex);
}

kqmp_mutex** kqmp_mutexarray(int32_t count) {
    if (count < 1) return nullptr;
    auto* records = static_cast<kqmp_mutex*>(QVMemNew(sizeof(kqmp_mutex) * static_cast<size_t>(count)));
    kqmp_mutex** table;
    try {
        // A table of pointers, so the pointer's size. NOLINTNEXTLINE(bugprone-sizeof-expression)
        table = static_cast<kqmp_mutex**>(QVMemNew(sizeof(kqmp_mutex*) * static_cast<size_t>(count)));
    } catch (PLErr) {
        QVMemFree(records);
        throw;
    }
    int32_t built = 0;
    try {
        for (; built < count; ++built) table[built] = new (&records[built]) kqmp_mutex();
    } catch (PLErr) {
        while (built > 0) records[--built].~kqmp_mutex();
        QVMemFree(table);
        QVMemFree(records);
        throw;
    }
    return table;
}

void kqmp_freemutexarray(kqmp_mutex** table, int32_t count) {
    if (!table) return;
    kqmp_mutex* records = table[0];
    for (int32_t i = count - 1; i >= 0; --i) table[i]->~kqmp_mutex();
    QVMemFree(table);
    QVMemFree(records);
}
