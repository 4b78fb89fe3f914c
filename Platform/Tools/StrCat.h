#pragma once

#include <sstream>
#include <string>

namespace Moreld::Tools {

// The text of `parts` written one after the other through their stream
// operators, with nothing in between: the way error texts are built from
// literal pieces and values (track ids, time points, files).
//   StrCat("T", 7, ": track is empty") -> "T7: track is empty"
template <typename... Parts>
std::string StrCat(const Parts&... parts) {
    std::ostringstream os;
    (os << ... << parts);
    return os.str();
}

}  // namespace Moreld::Tools
