// trim_blanks and replace_all on arbitrary texts.
//
// Input: one byte of spare room for the in-place replacement, then needle, replacement and text
// separated by zero bytes. Byte 1 is kept out of all three and put in front of the replacement,
// so the result holds the replacement exactly where it was put, and replacing back undoes it.
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "server/request.h"

// Spaces and tabs go from both ends, nothing else.
static void check_trim(std::string text) {
    const size_t first = text.find_first_not_of(" \t"), last = text.find_last_not_of(" \t");
    const std::string expected = first == std::string::npos ? "" : text.substr(first, last - first + 1);
    FUZZ_CHECK(trim_blanks(text.data()) == static_cast<int32_t>(expected.size()) && expected == text.c_str());
}

// On a copy: the caller's text is not touched.
static std::string replaced(const char *needle, const char *replacement, std::string text) {
    return fuzz_take(replace_all(needle, replacement, text.data(), -1));
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    std::string part[3];
    for (size_t i = 1, n = 0; i < size; i++)
        if (data[i] == 0 && n < 2) n++;
        else if (data[i] > 1) part[n] += static_cast<char>(data[i]);
    const std::string &needle = part[0], replacement = "\x01" + part[1], &text = part[2];
    std::for_each(part, part + 3, check_trim);
    const std::string result = replaced(needle.c_str(), replacement.c_str(), text);
    FUZZ_CHECK(replaced(replacement.c_str(), needle.c_str(), result) == text);
    FUZZ_CHECK(needle.empty() || needle != text || result == replacement);
    FUZZ_CHECK(replaced(nullptr, "x", text) == text);
    FUZZ_CHECK(replaced(needle.c_str(), nullptr, text) == replaced(needle.c_str(), "", text));
    // In place: the same text when it fits the buffer, null when it does not.
    std::vector<char> buffer(text.size() + 1 + (size > 0 ? data[0] : 0), '\0'); // a block of just that size
    std::ranges::copy(text, buffer.begin());
    const char *in_place = replace_all(needle.c_str(), replacement.c_str(), buffer.data(), std::ssize(buffer));
    FUZZ_CHECK(in_place == nullptr ? result.size() >= buffer.size() : in_place == buffer.data() && result == in_place);
    return 0;
}
