#pragma once

#include <sstream>
#include <string>
#include <thread>

// The calling thread's id as the monitoring records it: its decimal text
// parsed as a 64-bit integer (std::stoll errors propagate).
inline long CurrentThreadId() {
    std::ostringstream text;
    text << std::this_thread::get_id();
    return std::stoll(text.str());
}
