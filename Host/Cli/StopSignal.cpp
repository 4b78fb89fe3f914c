#include "Host/Cli/StopSignal.h"

namespace loopstore::cli {

StopSignal::StopSignal() {
    sigemptyset(&signals_);
    sigaddset(&signals_, SIGINT);
    sigaddset(&signals_, SIGTERM);
    pthread_sigmask(SIG_BLOCK, &signals_, &previous_);
    waiter_ = std::thread([this] {
        int signal = 0;
        while (!closing_.load()) {
            if (sigwait(&signals_, &signal) == 0 && !closing_.load())
                stopped_.store(true);
        }
    });
}

StopSignal::~StopSignal() {
    closing_.store(true);
    pthread_kill(waiter_.native_handle(), SIGTERM);
    waiter_.join();
    pthread_sigmask(SIG_SETMASK, &previous_, nullptr);
}

}  // namespace loopstore::cli
