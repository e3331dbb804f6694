// url_encode and url_decode on arbitrary texts: the encoding is the kept bytes and upper-case %XX
// for the rest and decodes back to the text; decoding shortens a text by its %XX escapes (either
// case) and passes one without any through unchanged.
#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstring>
#include <functional>
#include <regex>
#include <string>

#include "fuzz_check.h"
#include "server/request.h"

static bool kept(char c) { return isalnum(static_cast<unsigned char>(c)) || (c != 0 && strchr("-_.~+", c)); }
static bool upper_hex(char c) { return isxdigit(static_cast<unsigned char>(c)) && !islower(c); }
static const std::regex ESCAPE("%[0-9A-Fa-f]{2}");

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    const std::string text = std::string(reinterpret_cast<const char *>(data), size).c_str();
    const std::string encoded = fuzz_take(url_encode(text.c_str()));
    FUZZ_CHECK(encoded.size() == text.size() + 2 * std::ranges::count_if(text, std::not_fn(kept)));
    for (size_t i = 0; i < encoded.size(); i++)
        FUZZ_CHECK(kept(encoded[i]) || (encoded[i] == '%' && upper_hex(encoded[i + 1]) && upper_hex(encoded[i + 2])));
    FUZZ_CHECK(fuzz_take(url_decode(encoded.c_str())) == text);
    const std::string decoded = fuzz_take(url_decode(text.c_str()));
    FUZZ_CHECK(std::regex_search(text, ESCAPE) ? decoded.size() < text.size() : decoded == text);
    return 0;
}
