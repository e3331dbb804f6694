// url_encode then url_decode: the round trip gives back the text up to its first zero byte, and
// the encoding uses only the kept characters and upper-case %XX escapes.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_check.h"
#include "server/request.h"

namespace {

bool kept_as_is(unsigned char c)
{
    return isalnum(c) || (c != '\0' && strchr("-_.~+", c) != nullptr);
}

bool upper_hex(char c)
{
    return isdigit(static_cast<unsigned char>(c)) || (c >= 'A' && c <= 'F');
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string input(reinterpret_cast<const char *>(data), size);
    const char *text = input.c_str(); // ends at the first zero byte of the input

    char *encoded = url_encode(text);
    const size_t length = strlen(text);
    size_t out = 0;
    for (size_t i = 0; i < length; i++) {
        const auto c = static_cast<unsigned char>(text[i]);
        if (kept_as_is(c)) {
            FUZZ_CHECK(encoded[out] == text[i]);
            out += 1;
        } else {
            FUZZ_CHECK(encoded[out] == '%' && upper_hex(encoded[out + 1]) && upper_hex(encoded[out + 2]));
            FUZZ_CHECK(strtol(std::string(encoded + out + 1, 2).c_str(), nullptr, 16) == c);
            out += 3;
        }
    }
    FUZZ_CHECK(encoded[out] == '\0');

    char *decoded = url_decode(encoded);
    FUZZ_CHECK(strcmp(decoded, text) == 0);
    free(decoded);
    free(encoded);

    // Decoding never lengthens a text, whatever it holds.
    char *raw_decoded = url_decode(text);
    FUZZ_CHECK(strlen(raw_decoded) <= length);
    free(raw_decoded);
    return 0;
}
