#include "notify/notifier.h"

#include <charconv>

namespace wharfy {

std::string notificationIdentifier(std::string_view kindName, double secondsSince1970) {
    char digits[64];
    auto [end, ec] =
        std::to_chars(digits, digits + sizeof digits, secondsSince1970, std::chars_format::fixed);
    std::string time = ec == std::errc() ? std::string(digits, end) : "0";
    // The shortest form of a whole second has no point; keep the number a decimal.
    if (time.find('.') == std::string::npos) time += ".0";
    std::string id(kindName);
    id += '-';
    id += time;
    return id;
}

std::string escapeBodyMarkup(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        switch (c) {
            case '&':
                out += "&amp;";
                break;
            case '<':
                out += "&lt;";
                break;
            case '>':
                out += "&gt;";
                break;
            default:
                out += c;
        }
    }
    return out;
}

}  // namespace wharfy
