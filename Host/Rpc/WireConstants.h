#pragma once

namespace loopstore::rpc {

// The largest message of the loopstore protocol, set alike on the server and
// on every client channel, both ways. It holds what the store accepts: a
// chunk at most as large as a writer's cache (50,000,000 bytes), and a
// track's properties (at most 16 MiB), with room for the other fields.
inline constexpr int kMaxMessageBytes = 64 * 1024 * 1024;

// Trailing metadata of an export: how many records could not be read and
// were skipped, and the start times (decimal nanoseconds, comma-separated)
// of the first kMaxDamagedListed of them.
inline constexpr char kDamagedRecordsKey[] = "loopstore-damaged-records";
inline constexpr char kDamagedAtKey[] = "loopstore-damaged-at";
inline constexpr int kMaxDamagedListed = 100;

}  // namespace loopstore::rpc
