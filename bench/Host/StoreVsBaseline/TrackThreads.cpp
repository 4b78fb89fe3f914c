#include "bench/Host/StoreVsBaseline/TrackThreads.h"

#include <barrier>
#include <chrono>
#include <exception>
#include <thread>
#include <vector>

namespace loopstore::bench {

double RunTrackThreads(int count, const std::function<void(int)>& prepare,
                       const std::function<void(int)>& work) {
    using Clock = std::chrono::steady_clock;
    Clock::time_point start;
    auto release = [&start]() noexcept { start = Clock::now(); };
    std::barrier ready(count, release);
    std::vector<std::exception_ptr> errors(count);
    std::vector<std::thread> threads;
    threads.reserve(count);
    for (int t = 0; t < count; ++t) {
        threads.emplace_back([&, t] {
            try {
                prepare(t);
            } catch (...) {
                errors[t] = std::current_exception();
            }
            ready.arrive_and_wait();
            if (errors[t])
                return;
            try {
                work(t);
            } catch (...) {
                errors[t] = std::current_exception();
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    for (const std::exception_ptr& error : errors) {
        if (error)
            std::rethrow_exception(error);
    }
    return seconds;
}

}  // namespace loopstore::bench
