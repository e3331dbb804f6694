// replace_all and trim_blanks against plain string references.
//
// Input: one mode byte, then needle, replacement and text separated by zero bytes (texts cannot
// hold a zero byte anyway). Mode bits: 1 trim_blanks instead of replace_all, 2 null needle,
// 4 null replacement, 8 in place (otherwise on a copy), bits 4-7 extra capacity for in place.
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "server/request.h"

namespace {

std::vector<std::string> split_at_zero(const uint8_t *data, size_t size, size_t parts)
{
    std::vector<std::string> out(1);
    for (size_t i = 0; i < size; i++) {
        if (data[i] == 0 && out.size() < parts)
            out.emplace_back();
        else if (data[i] != 0)
            out.back() += static_cast<char>(data[i]);
    }
    out.resize(parts);
    return out;
}

std::string reference_trim(const std::string &text)
{
    const size_t first = text.find_first_not_of(" \t");
    if (first == std::string::npos)
        return "";
    return text.substr(first, text.find_last_not_of(" \t") - first + 1);
}

// Starts of the occurrences that the one-pass match counter finds (it never steps back).
std::vector<size_t> occurrences(const std::string &text, const std::string &needle)
{
    std::vector<size_t> starts;
    size_t matched = 0;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] != needle[matched]) {
            matched = 0;
            if (text[i] != needle[0])
                continue;
        }
        if (++matched == needle.size()) {
            starts.push_back(i + 1 - needle.size());
            matched = 0;
        }
    }
    return starts;
}

std::string reference_replace(const std::string &text, const std::string &needle, const std::string &replacement,
                              const std::vector<size_t> &starts)
{
    std::string out;
    size_t from = 0;
    for (size_t start : starts) {
        out += text.substr(from, start - from) + replacement;
        from = start + needle.size();
    }
    return out + text.substr(from);
}

void check_trim(const std::string &text)
{
    std::vector<char> buffer(text.begin(), text.end());
    buffer.push_back('\0');
    const int32_t length = trim_blanks(buffer.data());
    const std::string expected = reference_trim(text);
    FUZZ_CHECK(length == static_cast<int32_t>(expected.size()));
    FUZZ_CHECK(expected == buffer.data());
}

void check_replace(uint8_t mode, const std::string &needle, const std::string &replacement, const std::string &text)
{
    const bool null_needle = mode & 2, null_replacement = mode & 4, in_place = mode & 8;
    const std::vector<size_t> starts =
        null_needle || needle.empty() ? std::vector<size_t>{} : occurrences(text, needle);
    const std::string expected =
        reference_replace(text, needle, null_replacement ? "" : replacement, starts);

    const size_t capacity = text.size() + 1 + (mode >> 4) * 3u;
    std::vector<char> buffer(capacity, 'Z');
    memcpy(buffer.data(), text.c_str(), text.size() + 1);
    char *result = replace_all(null_needle ? nullptr : needle.c_str(), null_replacement ? nullptr : replacement.c_str(),
                               buffer.data(), in_place ? static_cast<int64_t>(capacity) : -1);
    if (in_place && capacity < expected.size() + 1) {
        // Too small: null, and the caller's text carries the zero marks of every occurrence.
        FUZZ_CHECK(result == nullptr);
        for (size_t start : starts)
            FUZZ_CHECK(buffer[start] == '\0' && buffer[start + needle.size() - 1] == '\0');
        return;
    }
    FUZZ_CHECK(result != nullptr);
    FUZZ_CHECK(expected == result);
    if (in_place)
        FUZZ_CHECK(result == buffer.data());
    else
        free(result);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return -1;
    const uint8_t mode = data[0];
    const std::vector<std::string> parts = split_at_zero(data + 1, size - 1, 3);
    if (mode & 1)
        check_trim(parts[0]);
    else
        check_replace(mode, parts[0], parts[1], parts[2]);
    return 0;
}
