#include "Storage/Server/FileSystem/ProtectionTermsCodec.h"

#include <sstream>
#include <stdexcept>

#include "Platform/Plexa/Converter.h"
#include "Platform/Services/StorageErrors.h"

using Moreld::Plexa::Converter;

ProtectionDB::Terms ProtectionTermsCodec::FromRequest(long track,
                                                      const Protocol::ProtectionTerms& request,
                                                      const TimePoint& now) {
    if (request.label().size() > kMaxLabelBytes) {
        std::ostringstream os;
        os << "T" << track << ": a protection label takes " << request.label().size()
           << " bytes, more than " << kMaxLabelBytes;
        throw MoreldStorageApi::InvalidArgumentError(os.str());
    }
    ProtectionDB::Terms terms{request.label(), std::nullopt};
    if (!request.has_expires())
        return terms;
    const TimePoint expires = Converter::From(request.expires());
    if (expires <= now) {
        std::ostringstream os;
        os << "T" << track << ": Protection expiry " << expires << " is not after now (" << now
           << ")";
        throw MoreldStorageApi::InvalidArgumentError(os.str());
    }
    terms.expires = expires;
    return terms;
}

void ProtectionTermsCodec::ToInfo(const ProtectionDB::Terms& terms,
                                  Protocol::ProtectionInfo& info) {
    info.set_label(terms.label);
    if (terms.expires)
        *info.mutable_expires() = Converter::To(*terms.expires);
}
