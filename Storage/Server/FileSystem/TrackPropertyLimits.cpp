#include "Storage/Server/FileSystem/TrackPropertyLimits.h"

#include <boost/locale/utf.hpp>
#include <sstream>
#include <stdexcept>

#include "Platform/Services/StorageErrors.h"

namespace {

[[noreturn]] void Refuse(long track, const std::string& what) {
    throw MoreldStorageApi::InvalidArgumentError("T" + std::to_string(track) + ": " + what);
}

// `what` ends with its verb: "a key takes".
std::string TooLarge(const std::string& what, size_t bytes, size_t limit) {
    std::ostringstream text;
    text << what << " " << bytes << " bytes, more than " << limit;
    return text.str();
}

}  // namespace

bool TrackPropertyLimits::IsUtf8(std::string_view text) {
    namespace utf = boost::locale::utf;
    for (auto p = text.begin(); p != text.end();) {
        const utf::code_point c = utf::utf_traits<char>::decode(p, text.end());
        if (c == utf::illegal || c == utf::incomplete)
            return false;
    }
    return true;
}

void TrackPropertyLimits::Check(long track, const Protocol::PropertyList& properties) {
    for (const Protocol::Property& property : properties.properties()) {
        // A key that breaks a limit is not printed: it may be large or not text.
        if (property.key().size() > kMaxKeyBytes)
            Refuse(track, TooLarge("a property key takes", property.key().size(), kMaxKeyBytes));
        if (!IsUtf8(property.key()))
            Refuse(track, "a property key is not valid UTF-8");
        const std::string value = "the value of property <" + property.key() + ">";
        if (property.value().size() > kMaxValueBytes)
            Refuse(track, TooLarge(value + " takes", property.value().size(), kMaxValueBytes));
        if (!IsUtf8(property.value()))
            Refuse(track, value + " is not valid UTF-8");
    }
}

void TrackPropertyLimits::CheckTrackTotal(long track, size_t bytes) {
    if (bytes > kMaxTrackBytes)
        Refuse(track, TooLarge("the track's properties would take", bytes, kMaxTrackBytes));
}
