#include "stop_signal.h"

#include <signal.h>

#include <atomic>
#include <cstring>

namespace {

// Written by the handler, read by the frame loop and the render's watcher
// thread: it must be lock-free to be touched from a handler.
std::atomic<int> gStopSignal{0};
static_assert(std::atomic<int>::is_always_lock_free, "the signal handler needs a lock-free flag");

void onStopSignal(int signal) {
    gStopSignal.store(signal);
}

}  // namespace

void installStopHandlers() {
    struct sigaction action;
    std::memset(&action, 0, sizeof action);
    action.sa_handler = onStopSignal;
    sigemptyset(&action.sa_mask);
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
}

int stopSignal() {
    return gStopSignal.load();
}

int stopStatus() {
    return 128 + gStopSignal.load();
}
