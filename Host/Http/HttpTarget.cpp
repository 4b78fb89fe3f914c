#include "Host/Http/HttpTarget.h"

namespace loopstore::host {
namespace {

int HexValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

void AddParameter(std::string_view pair, HttpRequest& request) {
    if (pair.empty())
        return;
    const auto equals = pair.find('=');
    const std::string_view name = pair.substr(0, equals);
    const std::string_view value =
        equals == std::string_view::npos ? std::string_view() : pair.substr(equals + 1);
    request.query[HttpTarget::Unescape(name, true)] = HttpTarget::Unescape(value, true);
}

}  // namespace

std::string HttpTarget::Unescape(std::string_view text, bool plusIsSpace) {
    std::string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        const char c = text[i];
        if (c == '+' && plusIsSpace) {
            out.push_back(' ');
        } else if (c != '%') {
            out.push_back(c);
        } else {
            const bool complete = i + 2 < text.size();
            const int high = complete ? HexValue(text[i + 1]) : -1;
            const int low = complete ? HexValue(text[i + 2]) : -1;
            if (high < 0 || low < 0)
                throw HttpError(400, "bad percent escape in \"" + std::string(text) + "\"");
            out.push_back(static_cast<char>(high * 16 + low));
            i += 2;
        }
    }
    return out;
}

void HttpTarget::Decode(std::string_view target, HttpRequest& request) {
    if (target.empty() || target.front() != '/')
        throw HttpError(400, "request target \"" + std::string(target) + "\" is not a path");
    const auto question = target.find('?');
    request.path = Unescape(target.substr(0, question), false);
    request.query.clear();
    if (question == std::string_view::npos)
        return;
    std::string_view rest = target.substr(question + 1);
    while (!rest.empty()) {
        const auto amp = rest.find('&');
        AddParameter(rest.substr(0, amp), request);
        rest = amp == std::string_view::npos ? std::string_view() : rest.substr(amp + 1);
    }
}

}  // namespace loopstore::host
