// Request-line split followed by percent-decoding, on arbitrary received bytes.
//
// The split ends the process on purpose when a token is missing or the path does not fit its
// 1024 bytes, so a model of strtok decides first and those inputs are skipped.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "fuzz_check.h"
#include "server/request.h"

namespace {

constexpr size_t PATH_CAPACITY = 1024;

// strtok over the text up to its first zero byte: leading delimiters are skipped, a token ends at
// the next delimiter (the walk goes on after it) or at the end of the text (the walk stops there).
struct StrtokModel {
    std::string text;
    size_t position = 0;

    std::optional<std::string> next(const char *delimiters)
    {
        position = text.find_first_not_of(delimiters, position);
        if (position == std::string::npos) {
            position = text.size();
            return std::nullopt;
        }
        size_t end = text.find_first_of(delimiters, position);
        std::string token = text.substr(position, end == std::string::npos ? end : end - position);
        position = end == std::string::npos ? text.size() : end + 1;
        return token;
    }
};

int hex_value(char c)
{
    return isdigit(static_cast<unsigned char>(c)) ? c - '0' : (tolower(static_cast<unsigned char>(c)) - 'a' + 10);
}

std::string reference_decode(const std::string &text)
{
    std::string out;
    for (size_t i = 0; i < text.size(); i++) {
        if (text[i] == '%' && i + 2 < text.size() && isxdigit(static_cast<unsigned char>(text[i + 1])) &&
            isxdigit(static_cast<unsigned char>(text[i + 2]))) {
            out += static_cast<char>(hex_value(text[i + 1]) * 16 + hex_value(text[i + 2]));
            i += 2;
        } else {
            out += text[i];
        }
    }
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    std::vector<char> received(data, data + size);
    received.push_back('\0');

    StrtokModel model{std::string(received.data())};
    std::optional<std::string> method = model.next(" ");
    std::optional<std::string> path = model.next(" ");
    std::optional<std::string> version = model.next("\n");
    if (!method || !path || !version || path->size() >= PATH_CAPACITY)
        return -1; // the server ends here on purpose; these inputs are not kept in the corpus

    // Method and version may be as long as the received bytes, as in the server.
    std::vector<char> method_out(received.size()), version_out(received.size());
    char path_out[PATH_CAPACITY];
    split_request_line(received.data(), method_out.data(), method_out.size(), path_out, sizeof path_out,
                       version_out.data(), version_out.size());
    FUZZ_CHECK(*method == method_out.data());
    FUZZ_CHECK(*path == path_out);
    FUZZ_CHECK(*version == version_out.data());

    char *decoded = url_decode(path_out);
    const std::string expected = reference_decode(*path);
    FUZZ_CHECK(memcmp(decoded, expected.data(), expected.size() + 1) == 0);
    free(decoded);
    return 0;
}
