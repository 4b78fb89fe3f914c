#pragma once

#include <cstddef>

#include "Platform/Protocol/Protocol.pb.h"
#include "Platform/Time/TimePoint.h"
#include "Storage/Indexes/SQLite/ProtectionDB.h"

// Turns the label and expiry of a protection between the host's messages
// and the protection database's record, checking them on the way in.
//
// Stateless; thread-safe.
class ProtectionTermsCodec {
  public:
    using TimePoint = Moreld::Time::TimePoint;

    // A label is a name to find a protection by, not a document.
    static constexpr size_t kMaxLabelBytes = 1024;

    ProtectionTermsCodec() = delete;

    // The terms of a new protection of `track`. Throws std::runtime_error
    // "T<track>: Protection expiry <expires> is not after now (<now>)" when
    // the expiry is not after `now`, and "T<track>: a protection label takes
    // <n> bytes, more than 1024" for a longer label.
    static ProtectionDB::Terms FromRequest(long track, const Protocol::ProtectionTerms& request,
                                           const TimePoint& now);
    // Writes the label and (when there is one) the expiry into `info`.
    static void ToInfo(const ProtectionDB::Terms& terms, Protocol::ProtectionInfo& info);
};
