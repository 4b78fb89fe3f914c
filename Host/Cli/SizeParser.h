#pragma once

#include <cstdint>
#include <string>

namespace loopstore::cli {

// Reads byte counts and bit rates of the command line.
//
// Sizes: a whole number with an optional suffix. K, M, G, T (and KiB, MiB,
// GiB, TiB) are powers of 1024, as file and pool sizes usually are; KB, MB,
// GB, TB are powers of 1000; B is bytes. "16M" is 16777216. At most 2^63 - 1,
// since sizes travel as signed 64-bit integers.
// Bit rates: a number (fraction allowed) with an optional k, M or G suffix,
// powers of 1000 as bit rates are counted ("4M" is 4000000 bit/s); a trailing
// "bps" or "b/s" is accepted.
//
// Stateless and thread-safe. Errors throw CliError naming the text.
class SizeParser {
  public:
    SizeParser() = delete;

    static uint64_t ParseSize(const std::string& text);
    // A size with an optional leading '+' or '-' (a change of size).
    static int64_t ParseSignedSize(const std::string& text);
    // Bits per second, strictly positive.
    static uint64_t ParseBitRate(const std::string& text);

  private:
    static uint64_t SuffixMultiplier(const std::string& suffix, const std::string& whole);
};

}  // namespace loopstore::cli
