#include "Host/Http/ProtectionApi.h"

#include <nlohmann/json.hpp>

#include "Host/Http/ApiTime.h"
#include "Host/Http/TrackApi.h"

namespace loopstore::host {
namespace {

nlohmann::json ParseBody(const std::string& body) {
    nlohmann::json json = nlohmann::json::parse(body, nullptr, false);
    if (json.is_discarded() || !json.is_object())
        throw HttpError(400, "the body must be a JSON object");
    return json;
}

int64_t RequiredNs(const nlohmann::json& body, const std::string& name) {
    if (!body.contains(name) || body[name].is_null())
        throw HttpError(400, name + " is missing");
    return ApiTime::JsonNs(body[name], name);
}

Protocol::ProtectionTerms Terms(const nlohmann::json& body) {
    Protocol::ProtectionTerms terms;
    if (body.contains("label") && !body["label"].is_null()) {
        if (!body["label"].is_string())
            throw HttpError(400, "label must be text");
        terms.set_label(body["label"].get<std::string>());
    }
    if (body.contains("expires_ms") && !body["expires_ms"].is_null()) {
        const int64_t expires = ApiTime::JsonNs(body["expires_ms"], "expires_ms");
        if (expires / 1'000'000 <= ApiTime::NowMs())
            throw HttpError(400, "expires_ms must lie in the future");
        *terms.mutable_expires() = ApiTime::Proto(expires);
    }
    return terms;
}

}  // namespace

HttpResponse ProtectionApi::Create(const HttpRequest& request) const {
    const int64_t trackId = TrackApi::KnownTrack(tracks_, request.params.at(0));
    const nlohmann::json body = ParseBody(request.body);
    const int64_t from = RequiredNs(body, "from_ms");
    const int64_t to = RequiredNs(body, "to_ms");
    int64_t length = 0;
    if (to <= from || __builtin_sub_overflow(to, from, &length))
        throw HttpError(400, "to_ms must come after from_ms, less than 292 years later");
    long id = 0;
    tracks_.ProtectWithTerms(trackId, ApiTime::Proto(from), ApiTime::Proto(length), Terms(body),
                             id);
    return HttpResponse::Json(JsonText({{"id", id}}), 201);
}

HttpResponse ProtectionApi::Remove(const HttpRequest& request) const {
    const std::string& text = request.params.at(0);
    int64_t id = 0;
    if (!TrackApi::ParseId(text, id))
        throw HttpError(400, "protection id \"" + text + "\" is not an integer");
    Protocol::ProtectionInfos all;
    tracks_.ListProtections(all);
    bool known = false;
    for (const Protocol::ProtectionInfo& p : all.infos())
        known = known || p.protection_id() == id;
    if (!known)
        throw HttpError(404, "no protection " + text);
    tracks_.Unprotect(id);
    HttpResponse response = HttpResponse::Json("", 204);
    response.contentType.clear();
    return response;
}

}  // namespace loopstore::host
