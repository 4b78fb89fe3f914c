#include "Host/Http/HttpAccess.h"

#include "Host/Http/HttpRouter.h"

namespace loopstore::host {

namespace {

std::string Trim(const std::string& text) {
    const auto first = text.find_first_not_of(' ');
    if (first == std::string::npos)
        return "";
    return text.substr(first, text.find_last_not_of(' ') - first + 1);
}

}  // namespace

bool HttpAccess::Matches(const std::string& given) const {
    // Looks at every byte whatever the first difference, so that the time a
    // refusal takes tells nothing about how much of the token was right.
    if (given.size() != token_.size())
        return false;
    unsigned char diff = 0;
    for (std::size_t i = 0; i < given.size(); ++i)
        diff |= static_cast<unsigned char>(given[i] ^ token_[i]);
    return diff == 0;
}

std::optional<std::string> HttpAccess::Cookie(const HttpRequest& request, const std::string& name) {
    const auto header = request.headers.find("cookie");
    if (header == request.headers.end())
        return std::nullopt;
    const std::string& text = header->second;
    std::string::size_type begin = 0;
    while (begin < text.size()) {
        const auto end = std::min(text.find(';', begin), text.size());
        const std::string pair = Trim(text.substr(begin, end - begin));
        const auto equals = pair.find('=');
        if (equals != std::string::npos && pair.substr(0, equals) == name)
            return pair.substr(equals + 1);
        begin = end + 1;
    }
    return std::nullopt;
}

bool HttpAccess::CarriesToken(const HttpRequest& request) const {
    const auto authorization = request.headers.find("authorization");
    if (authorization != request.headers.end() && authorization->second.rfind("Bearer ", 0) == 0 &&
        Matches(Trim(authorization->second.substr(7))))
        return true;
    const std::optional<std::string> cookie = Cookie(request, kCookie);
    return cookie && Matches(*cookie);
}

std::optional<HttpResponse> HttpAccess::Check(const HttpRequest& request) const {
    if (token_.empty())
        return std::nullopt;
    const auto given = request.query.find("token");
    if (request.method == "GET" && request.path == "/" && given != request.query.end() &&
        Matches(given->second)) {
        HttpResponse redirect = HttpResponse::Text("");
        redirect.status = 303;
        redirect.headers = {{"Location", "/"},
                            {"Set-Cookie", std::string(kCookie) + "=" + token_ +
                                               "; Path=/; HttpOnly; SameSite=Strict"}};
        return redirect;
    }
    if (CarriesToken(request))
        return std::nullopt;
    HttpResponse refused = ErrorResponse(
        401, "a valid token is required: \"Authorization: Bearer <token>\", the cookie " +
                 std::string(kCookie) + ", or open /?token=<token> once");
    refused.headers.emplace_back("WWW-Authenticate", "Bearer");
    return refused;
}

}  // namespace loopstore::host
