#pragma once

#include <functional>
#include <stdexcept>
#include <string>

namespace loopstore::test {

// The text of the std::runtime_error `f` throws, or "<nothing thrown>":
// for tests that check an error's exact wording.
inline std::string ThrownText(const std::function<void()>& f) {
    try {
        f();
    } catch (const std::runtime_error& e) {
        return e.what();
    }
    return "<nothing thrown>";
}

}  // namespace loopstore::test
