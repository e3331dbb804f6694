// The launcher's command line and the rules for the terminal and restarts: the parts with no system call.
#include <cstdlib>
#include <cstring>

#include "serve/serve.h"

namespace {

/// The port in `text` when it is a whole number from 1 to 65534; else 0.
int https_port_of(const char *text)
{
    if (text == nullptr || *text == '\0' || strlen(text) > 5 || strspn(text, "0123456789") != strlen(text))
        return 0;
    const int port = atoi(text);
    return port >= 1 && port <= 65534 ? port : 0;
}

/// The length of a colour sequence ESC [ ... m at the start of `text` that the server's drawing uses; 0 if none.
size_t colour_length(std::string_view text)
{
    if (text.size() < 3 || text[0] != '\033' || text[1] != '[')
        return 0;
    const size_t end = text.find('m', 2);
    if (end == std::string_view::npos || end > 24)
        return 0;
    std::string_view rest = text.substr(2, end - 2);
    if (rest.empty())
        return end + 1;
    // Each parameter: 0, a basic colour, or an indexed one (38;5;N or 48;5;N).
    while (true) {
        const size_t cut = rest.find(';');
        std::string_view part = rest.substr(0, cut);
        if (part.empty() || part.size() > 3 || part.find_first_not_of("0123456789") != std::string_view::npos)
            return 0;
        const int value = atoi(std::string(part).c_str());
        if (value == 38 || value == 48) {
            if (cut == std::string_view::npos || rest.substr(cut + 1, 2) != "5;")
                return 0;
            rest = rest.substr(cut + 3);
            const size_t index_end = rest.find(';');
            std::string_view index = rest.substr(0, index_end);
            if (index.empty() || index.size() > 3 || index.find_first_not_of("0123456789") != std::string_view::npos ||
                atoi(std::string(index).c_str()) > 255)
                return 0;
            if (index_end == std::string_view::npos)
                return end + 1;
            rest = rest.substr(index_end + 1);
            continue;
        }
        if (value != 0 && !(value >= 30 && value <= 37) && !(value >= 40 && value <= 47))
            return 0;
        if (cut == std::string_view::npos)
            return end + 1;
        rest = rest.substr(cut + 1);
    }
}

/// The length of the valid UTF-8 sequence of two or more bytes at the start of `text`; 0 if none.
size_t utf8_length(std::string_view text)
{
    const auto byte = [&](size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char lead = byte(0);
    const size_t length = lead >= 0xc2 && lead <= 0xdf ? 2 : lead >= 0xe0 && lead <= 0xef ? 3
                        : lead >= 0xf0 && lead <= 0xf4 ? 4 : 0;
    if (length == 0 || text.size() < length)
        return 0;
    for (size_t i = 1; i < length; ++i)
        if ((byte(i) & 0xc0) != 0x80)
            return 0;
    // Overlong forms, surrogates and values past U+10FFFF are not text.
    if ((lead == 0xe0 && byte(1) < 0xa0) || (lead == 0xed && byte(1) > 0x9f) || (lead == 0xf0 && byte(1) < 0x90) ||
        (lead == 0xf4 && byte(1) > 0x8f))
        return 0;
    return length;
}

void write_out(std::string *out, unsigned char byte)
{
    static constexpr char digits[] = "0123456789abcdef";
    *out += "\\x";
    *out += digits[byte >> 4];
    *out += digits[byte & 15];
}

} // namespace

int serve_options_parse(int argc, const char *const *argv, ServeOptions *options, std::string *error)
{
    *options = {SERVE_TASK_RUN, false, 0, ""};
    bool options_end = false, folder_given = false;
    for (int i = 1; i < argc; ++i) {
        const char *argument = argv[i];
        if (options_end || argument[0] != '-' || argument[1] == '\0') {
            if (folder_given)
                return *error = "one folder at most (see varnok-serve --help)", -1;
            options->folder = argument;
            folder_given = true;
        } else if (strcmp(argument, "--") == 0) {
            options_end = true;
        } else if (strcmp(argument, "--https") == 0) {
            options->https = true;
        } else if (strcmp(argument, "--https-port") == 0) {
            if ((options->https_port = https_port_of(i + 1 < argc ? argv[++i] : nullptr)) == 0)
                return *error = "--https-port takes a port from 1 to 65534", -1;
        } else if (strcmp(argument, "-h") == 0 || strcmp(argument, "--help") == 0 ||
                   strcmp(argument, "--version") == 0) {
            if (argc != 2)
                return *error = std::string(argument) + " takes no argument", -1;
            options->task = argument[2] == 'v' ? SERVE_TASK_VERSION : SERVE_TASK_HELP;
        } else {
            return *error = std::string("unknown option ") + argument + " (see varnok-serve --help)", -1;
        }
    }
    if (options->https_port != 0 && !options->https)
        return *error = "--https-port goes with --https", -1;
    if (!folder_given)
        options->folder = ".";
    return 0;
}

void serve_shown(std::string_view text, std::string *out)
{
    for (size_t i = 0; i < text.size();) {
        const unsigned char byte = static_cast<unsigned char>(text[i]);
        if (byte == '\033') {
            if (const size_t length = colour_length(text.substr(i)); length > 0) {
                out->append(text.substr(i, length));
                i += length;
                continue;
            }
        } else if (byte >= 0x80) {
            const size_t length = utf8_length(text.substr(i));
            const bool c1 = length == 2 && byte == 0xc2 && static_cast<unsigned char>(text[i + 1]) <= 0x9f;
            if (c1) {
                write_out(out, byte);
                write_out(out, static_cast<unsigned char>(text[i + 1]));
                i += 2;
                continue;
            }
            if (length > 0 || byte >= 0xa0) {
                out->append(text.substr(i, length > 0 ? length : 1));
                i += length > 0 ? length : 1;
                continue;
            }
        } else if ((byte >= 0x20 && byte != 0x7f) || byte == '\t') {
            *out += static_cast<char>(byte);
            ++i;
            continue;
        }
        write_out(out, byte);
        ++i;
    }
}

int serve_pause_ms(int quick_ends)
{
    // A client ends the server with a cut request line as often as it likes, and the connections behind
    // each one wait in the held socket's backlog. The first quick end costs nothing. After that each start
    // waits 25 ms: a start takes the sandbox and the server about 50 ms and 15 ms of CPU, so starts stay
    // below about 13 a second and 20 % of a core, yet above the ten ends a second that a client may send,
    // so that the backlog is worked off and the other clients are answered between the ends. A longer
    // pause would let such a client fill the backlog, and every other client would wait behind it.
    return quick_ends <= 1 ? 0 : 25;
}

ServeFollow serve_follow(const char *const *served, int served_count, const char *const *now, int now_count)
{
    bool same = served_count == now_count;
    for (int i = 0; same && i < now_count; ++i)
        same = strcmp(served[i], now[i]) == 0;
    if (same)
        return SERVE_FOLLOW_NONE;
    for (int i = 0; i < now_count; ++i) {
        bool known = false;
        for (int j = 0; !known && j < served_count; ++j)
            known = strcmp(now[i], served[j]) == 0;
        if (!known)
            return SERVE_FOLLOW_SOON;
    }
    return SERVE_FOLLOW_LATER;
}
