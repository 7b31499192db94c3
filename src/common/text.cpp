#include "common/text.h"

#include <cstdint>

namespace wharfy {

std::string repairUtf8(std::string_view bytes) {
    static constexpr char kReplacement[] = "\xEF\xBF\xBD";
    std::string out;
    out.reserve(bytes.size());
    size_t i = 0;
    const auto* s = reinterpret_cast<const unsigned char*>(bytes.data());
    const size_t n = bytes.size();
    while (i < n) {
        unsigned char c = s[i];
        if (c < 0x80) {
            out.push_back(static_cast<char>(c));
            ++i;
            continue;
        }
        size_t len = 0;
        uint32_t min = 0;
        if ((c & 0xE0) == 0xC0)
            len = 2, min = 0x80;
        else if ((c & 0xF0) == 0xE0)
            len = 3, min = 0x800;
        else if ((c & 0xF8) == 0xF0)
            len = 4, min = 0x10000;
        bool valid = len != 0 && i + len <= n;
        uint32_t cp = len ? (c & (0xFF >> (len + 1))) : 0;
        for (size_t k = 1; valid && k < len; ++k) {
            if ((s[i + k] & 0xC0) != 0x80)
                valid = false;
            else
                cp = (cp << 6) | (s[i + k] & 0x3F);
        }
        // Overlong forms, surrogates and values past U+10FFFF are not UTF-8.
        if (valid && (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF))) valid = false;
        if (valid) {
            out.append(bytes.substr(i, len));
            i += len;
        } else {
            out.append(kReplacement);
            ++i;
        }
    }
    return out;
}

}  // namespace wharfy
