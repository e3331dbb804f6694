#include "server/request.h"

#include <cctype>
#include <cstdlib>
#include <cstring>

// The checked copies are glibc's own: they end the process with "buffer overflow detected"
// when the text with its terminator would not fit.
void text_copy_bounded(char *destination, size_t capacity, const char *source)
{
    __builtin___strcpy_chk(destination, source, capacity);
}

void text_append_bounded(char *destination, size_t capacity, const char *source)
{
    __builtin___strcat_chk(destination, source, capacity);
}

static const char *token_or_abort(const char *token)
{
    if (token == nullptr)
        abort();
    return token;
}

void split_request_line(char *received, char *method, size_t method_capacity, char *path,
                        size_t path_capacity, char *version, size_t version_capacity)
{
    text_copy_bounded(method, method_capacity, token_or_abort(strtok(received, " ")));
    text_copy_bounded(path, path_capacity, token_or_abort(strtok(nullptr, " ")));
    // The version runs to the line feed, so a carriage return and any further spaces stay in it.
    text_copy_bounded(version, version_capacity, token_or_abort(strtok(nullptr, "\n")));
}

static bool is_hex_digit(char c)
{
    return isxdigit(static_cast<unsigned char>(c)) != 0;
}

char *url_decode(const char *text)
{
    size_t length = strlen(text);
    char *decoded = static_cast<char *>(malloc(length + 1));
    size_t out = 0;
    for (size_t i = 0; i < length; i++) {
        // The terminator is not a hex digit, so text[i + 2] is only read inside the text.
        if (text[i] == '%' && is_hex_digit(text[i + 1]) && is_hex_digit(text[i + 2])) {
            const char digits[3] = {text[i + 1], text[i + 2], '\0'};
            decoded[out++] = static_cast<char>(strtol(digits, nullptr, 16));
            i += 2;
        } else {
            decoded[out++] = text[i];
        }
    }
    decoded[out] = '\0';
    return decoded;
}

char *url_encode(const char *text)
{
    static constexpr char HEX[] = "0123456789ABCDEF";
    size_t length = strlen(text);
    char *encoded = static_cast<char *>(malloc(3 * length + 1));
    size_t out = 0;
    for (size_t i = 0; i < length; i++) {
        unsigned char c = static_cast<unsigned char>(text[i]);
        if (isalnum(c) || strchr("-_.~+", c) != nullptr) {
            encoded[out++] = static_cast<char>(c);
        } else {
            encoded[out++] = '%';
            encoded[out++] = HEX[c >> 4];
            encoded[out++] = HEX[c & 15];
        }
    }
    encoded[out] = '\0';
    return encoded;
}

int32_t find_text(const char *haystack, const char *needle)
{
    const char *found = strstr(haystack, needle);
    return found ? static_cast<int32_t>(found - haystack) : -1;
}

static bool is_blank(char c)
{
    return c == ' ' || c == '\t';
}

int32_t trim_blanks(char *text)
{
    size_t start = 0;
    while (is_blank(text[start]))
        start++;
    size_t end = strlen(text);
    while (end > start && is_blank(text[end - 1]))
        end--;
    size_t length = end - start;
    memmove(text, text + start, length);
    text[length] = '\0';
    return static_cast<int32_t>(length);
}

// Zeroes the first and last byte of every occurrence as marks and returns how many there are.
// The scan never steps back, so an occurrence that starts inside a failed partial match is missed.
static size_t mark_occurrences(char *text, size_t length, const char *needle, size_t needle_length)
{
    size_t count = 0;
    size_t matched = 0;
    for (size_t i = 0; i < length; i++) {
        if (text[i] != needle[matched]) {
            matched = 0;
            if (text[i] != needle[0])
                continue;
        }
        if (++matched == needle_length) {
            text[i + 1 - needle_length] = '\0';
            text[i] = '\0';
            count++;
            matched = 0;
        }
    }
    return count;
}

// Growing text: walk from the end so no byte is overwritten before it is moved.
static void rebuild_backwards(char *text, size_t old_length, size_t new_length, const char *replacement,
                              size_t replacement_length, size_t needle_length)
{
    size_t from = old_length;
    size_t to = new_length;
    while (from > 0) {
        if (text[from - 1] == '\0') {
            to -= replacement_length;
            memcpy(text + to, replacement, replacement_length);
            from -= needle_length;
        } else {
            text[--to] = text[--from];
        }
    }
}

static void rebuild_forwards(char *text, size_t old_length, const char *replacement, size_t replacement_length,
                             size_t needle_length)
{
    size_t from = 0;
    size_t to = 0;
    while (from < old_length) {
        if (text[from] == '\0') {
            memmove(text + to, replacement, replacement_length);
            to += replacement_length;
            from += needle_length;
        } else {
            text[to++] = text[from++];
        }
    }
}

char *replace_all(const char *needle, const char *replacement, char *text, int64_t capacity)
{
    if (text == nullptr)
        return nullptr;
    if (capacity == -1 && (text = strdup(text)) == nullptr)
        return nullptr;
    if (needle == nullptr || needle[0] == '\0')
        return text;
    if (replacement == nullptr)
        replacement = "";

    size_t needle_length = strlen(needle);
    size_t replacement_length = strlen(replacement);
    size_t old_length = strlen(text);
    size_t count = mark_occurrences(text, old_length, needle, needle_length);
    if (count == 0)
        return text;

    size_t new_length = old_length + count * replacement_length - count * needle_length;
    if (capacity == -1) {
        if (new_length > old_length) {
            char *grown = static_cast<char *>(realloc(text, new_length + 1));
            if (grown == nullptr) {
                free(text);
                return nullptr;
            }
            text = grown;
        }
    } else if (capacity < static_cast<int64_t>(new_length) + 1) {
        return nullptr;
    }

    if (new_length > old_length)
        rebuild_backwards(text, old_length, new_length, replacement, replacement_length, needle_length);
    else
        rebuild_forwards(text, old_length, replacement, replacement_length, needle_length);
    text[new_length] = '\0';
    return text;
}
