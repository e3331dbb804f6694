// varnok-link in process: the port read as the server reads it, with the file left alone; the default
// route's interface and the order it gives; the codes laid out for a terminal and read back from the
// half blocks; the command line. tests/link/run covers real interfaces, the decoders and xterm.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <netinet/in.h>
#include <sys/wait.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <sstream>
#include <string>
#include <tuple>
#include <vector>

#include "link/link.h"
#include "qr/qr.h"
#include "server/product.h"
#include "support/heap_text.h"
#include "support/temp_folder.h"

namespace {

constexpr const char *NO_FILE = "(no file)", *FOLDER = "(a folder)";

/// package.json with `value` as the port setting.
std::string with_port(const std::string &value) { return "{\"varnok\": {\"port\": " + value + "}}"; }

TEST(LinkPort, ReadsThePortAsTheServerDoesAndNeverWrites) {
    // Without a port in the file, the default 1010.
    const struct { std::string json; LinkPortSource source; int32_t setting = 1010; bool number = true; } cases[] = {
        {NO_FILE, LINK_PORT_NO_FILE}, {FOLDER, LINK_PORT_UNREADABLE}, {"", LINK_PORT_EMPTY},
        {std::string("\0{}", 3), LINK_PORT_EMPTY}, {"{\"varnok\": {\"port\": 80", LINK_PORT_NOT_JSON},
        {"{}", LINK_PORT_NO_SETTINGS}, {"{\"varnok\": 8080}", LINK_PORT_NO_SETTINGS},
        {"{\"game\": " + with_port("7000") + "}", LINK_PORT_NO_SETTINGS},
        {"{\"varnok\": {\"main-file\": \"a.html\"}}", LINK_PORT_NO_PORT},
        {"{\"VARNOK\": {\"Port\": 80}} trailing words", LINK_PORT_FROM_FILE, 80},
        {with_port("1, \"port\": 2"), LINK_PORT_FROM_FILE, 1}, {with_port("8.08e3"), LINK_PORT_FROM_FILE, 8080},
        {"{\"other\": {\"port\": 9}, \"varnok\": {\"port\": 8080.9}}", LINK_PORT_FROM_FILE, 8080},
        {"{\"varnok\": {\"rootdir\": \"a}b\", \"port\": 9000}}", LINK_PORT_FROM_FILE, 9000},
        {"{\"varnok\": {\"port\": 9000}, \"game\": " + with_port("7000") + "}", LINK_PORT_FROM_FILE, 9000},
        {with_port("70000"), LINK_PORT_FROM_FILE, 70000}, {with_port("-1"), LINK_PORT_FROM_FILE, -1},
        {with_port("4294975376"), LINK_PORT_FROM_FILE, 2147483647},  // 2^32 + 8080
        {with_port("-1e12"), LINK_PORT_FROM_FILE, -2147483647 - 1},
        {with_port("\"8080\""), LINK_PORT_FROM_FILE, 0, false}, {with_port("true"), LINK_PORT_FROM_FILE, 1, false},
    };
    for (const auto &c : cases) {
        TempFolder folder;
        if (c.json == FOLDER) std::filesystem::create_directory(folder / "package.json");
        else if (c.json != NO_FILE) folder.write("package.json", c.json);
        WorkingFolder inside(folder.path());
        const LinkPort port = link_port_read();
        // The bound port is what --port prints for the launcher: the low 16 bits of the setting.
        EXPECT_EQ(std::tuple(port.setting, port.source, port.is_number, link_bound_port(port.setting)),
                  std::tuple(c.setting, c.source, c.number, static_cast<uint16_t>(c.setting))) << c.json;
        EXPECT_TRUE(c.json == NO_FILE || c.json == FOLDER || folder.read("package.json") == c.json) << c.json;
    }
}

TEST(LinkOrder, DefaultRouteIsTheUpRouteToEverywhereWithTheLowestMetric) {
    const std::string heading = "Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT\n";
    const auto route = [](const char *name, int metric, const char *flags = "0003", const char *to = "00000000\t0101A8C0",
                          const char *mask = "00000000") {
        return std::string(name) + "\t" + to + "\t" + flags + "\t0\t0\t" + std::to_string(metric) + "\t" + mask + "\t0\t0\t0      \n";
    };
    const std::string lan = route("eth0", 100, "0001", "0001A8C0\t00000000", "00FFFFFF");
    const struct { const char *what; std::string table; const char *name; } cases[] = {
        {"no text", "", ""}, {"no default route", heading + lan, ""}, {"one", heading + lan + route("eth0", 100), "eth0"},
        {"lowest metric, listed last", heading + route("wlan0", 600) + route("eth0", 100), "eth0"},
        {"equal metrics: the first", heading + route("wlan0", 0) + route("eth0", 0), "wlan0"},
        {"a route that is down", heading + route("eth0", 0, "0002") + route("wlan0", 600), "wlan0"},
        {"a VPN's half of everywhere", heading + route("tun0", 0, "0001", "00000000\t00000000", "00000080") + route("wlan0", 600), "wlan0"},
        {"the longest name", heading + route("interface-name0", 0), "interface-name0"},
    };
    for (const auto &c : cases) {
        char name[LINK_INTERFACE_NAME_SIZE] = "";
        EXPECT_EQ(link_default_route_interface(c.table.c_str(), name), *c.name != '\0') << c.what;
        EXPECT_STREQ(name, c.name) << c.what;
    }
}

TEST(LinkOrder, TheRouteInterfacesAddressesComeFirstTheOthersKeepTheirOrder) {
    // The interface list: name and IPv4 address; "-" leaves an entry without one, "6:" marks an IPv6 entry
    // (whose bytes would read as that address).
    const std::vector<std::pair<const char *, std::string>> list = {
        {"lo", "127.0.0.1"}, {"eth0", "10.0.0.5"}, {"wlan0", "192.168.1.20"}, {"wlan0", "6:10.9.9.9"},
        {"eth0:1", "10.0.0.6"}, {"wlan0", "-"}, {"wlan0", "172.16.0.1"}, {"eth01", "10.9.9.9"}};
    std::vector<sockaddr_in> addresses(list.size());
    std::vector<ifaddrs> entries(list.size());
    for (size_t i = 0; i < list.size(); ++i) {
        const bool six = list[i].second.rfind("6:", 0) == 0;
        addresses[i].sin_family = six ? AF_INET6 : AF_INET;
        inet_pton(AF_INET, list[i].second.c_str() + (six ? 2 : 0), &addresses[i].sin_addr);
        entries[i].ifa_name = const_cast<char *>(list[i].first);
        entries[i].ifa_addr = list[i].second == "-" ? nullptr : reinterpret_cast<sockaddr *>(&addresses[i]);
        entries[i].ifa_next = i + 1 < list.size() ? &entries[i + 1] : nullptr;
    }
    const struct { const char *name; std::vector<std::string> order; } cases[] = {
        {"wlan0", {"192.168.1.20", "172.16.0.1", "10.0.0.5", "10.0.0.6", "10.9.9.9"}},
        {"eth0", {"10.0.0.5", "10.0.0.6", "192.168.1.20", "172.16.0.1", "10.9.9.9"}},  // its label, not eth01
        {"eth01", {"10.9.9.9", "10.0.0.5", "192.168.1.20", "10.0.0.6", "172.16.0.1"}},
        {"tun0", {"10.0.0.5", "192.168.1.20", "10.0.0.6", "172.16.0.1", "10.9.9.9"}},
    };
    for (const auto &c : cases) {
        std::vector<const char *> offered = {"10.0.0.5", "192.168.1.20", "10.0.0.6", "172.16.0.1", "10.9.9.9"};
        link_put_interface_first(offered.data(), static_cast<int>(offered.size()), entries.data(), c.name);
        EXPECT_EQ(std::vector<std::string>(offered.begin(), offered.end()), c.order) << c.name;
    }
}

/// What `print` writes.
std::string printed_by(const std::function<void(FILE *)> &print) {
    char *text = nullptr;
    size_t length = 0;
    FILE *out = open_memstream(&text, &length);
    print(out);
    fclose(out);
    return taken(text, length);
}

/// A printed code: its URL, the column that starts in, and the modules ('#' dark, '.' light) read from
/// the half blocks and their colours in that column on the lines below.
struct Code { std::string url; size_t column; std::vector<std::string> rows; };
/// Printed output read back: its codes, its other non-blank lines, and its lines as wide as they show.
struct Printed { std::vector<Code> codes; std::vector<std::string> text; std::vector<size_t> widths; };

Printed read_printed(const std::string &printed) {
    Printed read;
    size_t row = 0;  // the first code under the last line of URLs
    std::istringstream lines(printed);
    for (std::string line; std::getline(lines, line);) {
        EXPECT_TRUE(line.empty() || line.back() != ' ') << "blanks at the end of: " << line;
        read.widths.push_back(line.size());
        if (line.rfind("http://", 0) == 0 || line.rfind("https://", 0) == 0) {
            row = read.codes.size();
            for (size_t at = 0; (at = line.find("http", at)) != std::string::npos;)
                read.codes.push_back({line.substr(at, line.find(' ', at) - at), at, {}}), at = line.find(' ', at);
            continue;
        }
        if (line.find('\033') == std::string::npos) {
            if (!line.empty()) read.text.push_back(line);
            row = read.codes.size();
            continue;
        }
        // Per column: '#' for a dark module, '.' for a light one, of the upper and the lower row; ' ' in gaps.
        std::string top, bottom;
        int fg = -1, bg = -1, used = 0;
        for (const char *p = line.c_str(); *p; p += used) {
            if (sscanf(p, "\033[38;5;%d;48;5;%dm%n", &fg, &bg, &used) == 2) continue;
            if (strncmp(p, "\xe2\x96\x80", used = 3) == 0) top += fg == 16 ? '#' : '.', bottom += bg == 16 ? '#' : '.';
            else if (strncmp(p, "\033[0m", used = 4) == 0) fg = bg = -1;
            else if (*p == ' ' && fg == -1) top += ' ', bottom += ' ', used = 1;  // the gap: plain spaces after a reset
            else ADD_FAILURE() << "unexpected byte " << int(*p) << " in column " << top.size(), used = 1;
        }
        EXPECT_EQ(fg, -1) << "no reset at the end of " << line;
        for (size_t start = 0, end; (start = top.find_first_not_of(' ', start)) != std::string::npos; start = end) {
            end = std::min(top.find(' ', start), top.size());
            auto code = std::find_if(read.codes.begin() + row, read.codes.end(), [&](auto &c) { return c.column == start; });
            if (code == read.codes.end()) ADD_FAILURE() << "modules in column " << start << " under no URL";
            else code->rows.insert(code->rows.end(), {top.substr(start, end - start), bottom.substr(start, end - start)});
        }
        read.widths.back() = top.size();
    }
    return read;
}

/// The modules of the symbol for `url` with four light modules around it; the last half line is light.
std::vector<std::string> symbol_of(const std::string &url) {
    EXPECT_EQ(qr_encode_quiet(url.c_str()), 1);
    const int quiet = 4, size = qr_symbol.size, side = size + 2 * quiet;
    std::vector<std::string> rows(side + side % 2, std::string(side, '.'));
    for (int y = 0; y < size; ++y)
        for (int x = 0; x < size; ++x)  // [x][y]: not mirrored
            rows[y + quiet][x + quiet] = qr_symbol.modules[x][y] ? '#' : '.';
    return rows;
}

/// Expects the codes read to be those of `urls` in this order, `per_row` to a row in slots 37 columns apart.
void expect_codes(const Printed &read, const std::vector<std::string> &urls, size_t per_row) {
    ASSERT_EQ(read.codes.size(), urls.size());
    for (size_t i = 0; i < urls.size(); ++i) {
        EXPECT_EQ(read.codes[i].url, urls[i]);
        EXPECT_EQ(read.codes[i].column, i % per_row * 37);
        EXPECT_EQ(read.codes[i].rows, symbol_of(urls[i])) << urls[i];
    }
}

/// What `print` writes for the `count` addresses `prefix`1, `prefix`2, ... it is offered, read back.
Printed printed_for(const std::string &prefix, int count, const std::function<void(FILE *, const char **)> &print) {
    std::vector<std::string> text(count);
    std::vector<const char *> offered(count);
    for (int i = 0; i < count; ++i) text[i] = prefix + std::to_string(i + 1), offered[i] = text[i].c_str();
    return read_printed(printed_by([&](FILE *out) { print(out, offered.data()); }));
}

TEST(LinkPrint, CodesSideBySideReadBackAsTheirSymbolsInTheirColumns) {
    // Versions 1 and 2 (the largest a link takes) next to each other: the shorter one ends first.
    const char *urls[] = {"http://1.0.0.0:1/", "http://223.255.255.255:65535/", "http://192.168.1.20:8080/"};
    const Printed read = read_printed(printed_by([&](FILE *out) { link_print_row(out, urls, 3); }));
    expect_codes(read, {urls, urls + 3}, 3);
    EXPECT_EQ(read.widths.size(), 1 + symbol_of(urls[1]).size() / 2);
    EXPECT_EQ(symbol_of(urls[1]).at(0).size(), 33u);
    EXPECT_TRUE(read.text.empty());
}

const std::string HEADING = LINK_SERVING_HEADING;
constexpr LinkMode ALL = LINK_MODE_ALL, SERVING = LINK_MODE_SERVING;

TEST(LinkPrint, ServingKeepsTheHeadingAndTheCodesThatFitInViewAndTheRestOnOneLine) {
    const struct { LinkMode mode; int count, columns, rows, per_row, shown; } cases[] = {
        {SERVING, 3, 0, 0, 1, 3}, {ALL, 3, 0, 0, 1, 3},  // a file or a pipe: all, one below the other
        {SERVING, 1, 80, 24, 2, 1}, {SERVING, 2, 80, 24, 2, 2}, {SERVING, 3, 80, 24, 2, 2},
        {SERVING, 3, 80, 40, 2, 3}, {SERVING, 5, 80, 40, 2, 4}, {SERVING, 5, 80, 39, 2, 2},
        {SERVING, 4, 80, 39, 2, 4}, {SERVING, 4, 80, 38, 2, 2},
        {SERVING, 3, 120, 24, 3, 3}, {SERVING, 4, 120, 24, 3, 3}, {SERVING, 2, 70, 24, 2, 2}, {SERVING, 2, 69, 24, 1, 1},
        {SERVING, 2, 40, 39, 1, 1},             // the heading and the last line take two lines each
        {SERVING, 3, 80, 5, 2, 2},              // too low for any: one row all the same
        {ALL, 5, 80, 24, 2, 5}, {ALL, 30, 120, 24, 3, 30},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.count) + " on " + std::to_string(c.columns) + "x" + std::to_string(c.rows));
        const Printed read = printed_for("10.0.0.", c.count, [&](FILE *out, const char **offered) {
            link_print(out, c.mode, {1010, LINK_PORT_NO_FILE, true}, offered, c.count, {c.columns, c.rows});
        });
        std::vector<std::string> urls;
        for (int i = 1; i <= c.shown; ++i) urls.push_back("http://10.0.0." + std::to_string(i) + ":1010/");
        expect_codes(read, urls, c.per_row);
        std::vector<std::string> text = {c.mode == ALL ? "package.json: not found; the server creates it with the default port 1010." : HEADING};
        if (const int more = c.count - c.shown; more > 0)
            text.push_back(std::to_string(more) + (more == 1 ? " more link does" : " more links do") +
                           " not fit here; varnok-link in the served folder shows all " + std::to_string(c.count) + ".");
        EXPECT_EQ(read.text, text);
        EXPECT_EQ(read.widths.at(0), text[0].size());  // the first line
        size_t lines = 0;  // as the terminal wraps them
        for (size_t width : read.widths) lines += c.columns && width > 0 ? (width + c.columns - 1) / c.columns : 1;
        EXPECT_TRUE(c.mode == ALL || c.rows < 20 || lines < static_cast<size_t>(c.rows)) << lines << " lines";
        EXPECT_LE(text.back().size(), 79u);
    }
    // Instead of codes, one line: for no address (the command line's test has the port the system chooses).
    for (LinkMode mode : {ALL, SERVING})
        EXPECT_EQ(printed_by([&](FILE *out) { link_print(out, mode, {8080, LINK_PORT_FROM_FILE, true}, nullptr, 0, {80, 24}); }),
                  "No LAN address on this computer: connect it to a network, and the phone must join the same network.\n");
}

TEST(LinkSecure, HttpsLinksBesideTheCaCodeThenTheFingerprintAndPhonesWithinTheRows) {
    const std::string ca_short = "http://10.0.0.1:8082/ca.crt", ca_long = "http://192.168.100.200:65535/varnok-ca.crt";
    const std::string fingerprint(64, 'A');
    const struct { int count; std::string ca; int columns, rows, per_row, shown; bool heading, more; } cases[] = {
        {1, ca_short, 80, 24, 2, 1, true, false}, {2, ca_short, 80, 24, 2, 1, true, true},
        {3, ca_short, 80, 24, 2, 1, true, true}, {2, ca_short, 80, 23, 2, 1, false, true},
        {1, ca_long, 80, 24, 2, 1, false, false},   // the CA's taller code (version 3) leaves no room for the heading,
        {2, ca_long, 80, 24, 2, 1, false, false},   // nor for the line on the other link
        {3, ca_short, 120, 24, 3, 2, true, true}, {5, ca_short, 80, 43, 2, 3, true, true},
        {5, ca_short, 80, 42, 2, 3, false, true}, {5, ca_short, 80, 41, 2, 1, true, true},
        {3, ca_short, 0, 0, 1, 3, true, false},     // a file or a pipe: all, one below the other
        {2, ca_short, 80, 10, 2, 1, false, false},  // too low for any: one link all the same
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::to_string(c.count) + " with " + c.ca + " on " + std::to_string(c.columns) + "x" + std::to_string(c.rows));
        const Printed read = printed_for("192.168.1.", c.count, [&](FILE *out, const char **offered) {
            link_print_secure(out, {8081, c.ca.c_str(), fingerprint.c_str()}, offered, c.count, {c.columns, c.rows});
        });
        std::vector<std::string> urls;
        for (int i = 1; i <= c.shown; ++i) urls.push_back("https://192.168.1." + std::to_string(i) + ":8081/");
        urls.push_back(c.ca);
        expect_codes(read, urls, c.per_row);
        std::vector<std::string> text = {"CA SHA-256: " + fingerprint, LINK_SECURE_IOS, LINK_SECURE_ANDROID};
        if (c.heading) text.insert(text.begin(), LINK_SECURE_HEADING);
        std::string more = "Also over https on port 8081 at:";
        for (int i = c.shown + 1; i <= c.count; ++i) more += std::string(i > c.shown + 1 ? ", " : " ") + "192.168.1." + std::to_string(i);
        // Four addresses would take 83 columns: three, and a mark that more follow.
        if (c.more) text.push_back(more.size() <= 79 ? more : "Also over https on port 8081 at: 192.168.1.2, 192.168.1.3, 192.168.1.4, ...");
        EXPECT_EQ(read.text, text);
        EXPECT_TRUE(c.columns == 0 || c.rows < 20 || read.widths.size() < static_cast<size_t>(c.rows)) << read.widths.size() << " lines";
    }
    for (const std::string line : {LINK_SECURE_HEADING, LINK_SECURE_IOS, LINK_SECURE_ANDROID})  // columns: bytes but UTF-8 continuations
        EXPECT_LE(std::count_if(line.begin(), line.end(), [](char c) { return (c & 0xC0) != 0x80; }), 79) << line;
    // As many as fit, then a mark that more follow: the longest addresses and port; and an address that
    // would fit (77 columns) but leave no room for the mark.
    const struct { uint16_t port; std::vector<const char *> offered; std::string line; } long_lines[] = {
        {65535, std::vector<const char *>(8, "192.168.100.200"),
         "Also over https on port 65535 at: 192.168.100.200, 192.168.100.200, ..."},
        {8081, {"10.0.0.2", "192.168.100.200", "192.168.100.200", "10.0.0.100", "10.0.0.1"},
         "Also over https on port 8081 at: 192.168.100.200, 192.168.100.200, ..."},
    };
    for (const auto &l : long_lines)
        EXPECT_EQ(read_printed(printed_by([&](FILE *out) {
            link_print_secure(out, {l.port, ca_short.c_str(), fingerprint.c_str()}, l.offered.data(),
                              static_cast<int>(l.offered.size()), {80, 24});
        })).text.back(), l.line);
    EXPECT_EQ(printed_by([&](FILE *out) { link_print_secure(out, {8081, ca_short.c_str(), fingerprint.c_str()}, nullptr, 0, {80, 24}); }),
              "No private LAN address (10.x, 172.16-31.x, 192.168.x) on this computer, so no https link.\n");
}

TEST(LinkSecure, FingerprintsAndPrivateAddresses) {
    const std::string hex = "0123456789ABCDEF0123456789ABCDEF0123456789ABCDEF0123456789ABCDEF";
    std::string pairs, lower;
    for (size_t i = 0; i < hex.size(); i += 2) pairs += (i ? ":" : "") + hex.substr(i, 2);
    for (char c : hex) lower += static_cast<char>(tolower(c));
    const struct { std::string text; bool valid; } fingerprints[] = {
        {hex, true}, {pairs, true}, {lower, true}, {hex.substr(1), false}, {hex + "0", false}, {"", false},
        {":" + pairs, false}, {pairs + ":", false}, {"0:" + hex.substr(1), false}, {"01::" + hex.substr(2), false},
        {hex.substr(1) + "G", false}, {hex.substr(1) + " ", false},
    };
    for (const auto &f : fingerprints) {
        char out[LINK_FINGERPRINT_SIZE] = "";
        EXPECT_EQ(link_fingerprint_parse(f.text.c_str(), out), f.valid) << f.text;
        EXPECT_EQ(out, f.valid ? hex : std::string(out)) << f.text;
    }
    // The bounds of the private ranges and their neighbours, in a list that keeps its private ones in order.
    const struct { const char *address; bool is_private; } addresses[] = {
        {"10.0.0.0", true}, {"10.255.255.255", true}, {"9.255.255.255", false}, {"11.0.0.0", false},
        {"172.15.255.255", false}, {"172.16.0.0", true}, {"172.31.255.255", true}, {"172.32.0.0", false},
        {"192.167.255.255", false}, {"192.168.0.0", true}, {"192.168.255.255", true}, {"192.169.0.0", false},
        {"8.8.8.8", false}, {"203.0.113.9", false}, {"127.0.0.1", false}, {"169.254.1.1", false}, {"not an address", false},
    };
    std::vector<const char *> all, kept;  // the same pointers: those of the table
    for (const auto &a : addresses) {
        EXPECT_EQ(link_address_is_private(a.address), a.is_private) << a.address;
        all.push_back(a.address);
        if (a.is_private) kept.push_back(a.address);
    }
    EXPECT_EQ(std::vector(all.begin(), all.begin() + link_keep_private(all.data(), static_cast<int>(all.size()))), kept);
}

struct Ran { int status; std::string out, err; };

/// varnok-link run with `arguments` in `folder`.
Ran run_link(const TempFolder &folder, const std::string &arguments) {
    const std::string command = "cd '" + folder.path().string() + "' && " VARNOK_LINK_BINARY " " + arguments + " 2>'" + folder / "err'";
    FILE *pipe = popen(command.c_str(), "r");
    std::string out;
    for (int byte; (byte = fgetc(pipe)) != EOF;) out += static_cast<char>(byte);
    const int status = pclose(pipe);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : -1, out, folder.read("err")};
}

TEST(LinkCommand, OptionsFoldersAndMistakes) {
    TempFolder folder;
    folder.write("package.json", "{\"varnok\": {\"rootdir\": \"}\", \"port\": 9000}}");
    folder.write("text/package.json", "{\"varnok\": {\"port\": \"80\"}}");
    folder.write("low/package.json", "{\"varnok\": {\"port\": -1}}");
    std::filesystem::create_directory(folder / "none");
    const std::string system = "The port setting 0 leaves the choice of port to the system, so no link can be known before the server starts.\n";
    const auto https = [](const std::string &port, const std::string &ca = "http://10.0.0.1:8082/ca.crt", size_t digits = 64) {
        return "--serving --https " + port + " --ca-url " + ca + " --fingerprint " + std::string(digits, 'a');
    };
    const struct { std::string arguments; int status; std::string out = ""; } cases[] = {
        {"--version", 0, std::string("varnok-link ") + PRODUCT_SERVER_VERSION + "\n"},
        {"--port", 0, "9000\n"}, {"--port none", 0, "1010\n"}, {"--port text", 0, "0\n"}, {"--port low", 0, "65535\n"},
        {"--serving text", 0, system},
        {"text", 0, "package.json: the port setting is not a number, so the server takes it as 0.\n" + system},
        {"--port missing", 2}, {"low text", 2}, {"--port --serving", 2}, {"--ports", 2}, {"-p", 2}, {"--addresses --port", 2},
        {"--serving --https", 2}, {"--serving --https 8081", 2}, {https("8081").substr(10), 2}, {https("0"), 2},
        {https("65536"), 2}, {https("8081x"), 2}, {https("8081", "https://10.0.0.1:8082/ca.crt"), 2},
        {https("8081", "http://10.0.0.1:8082/" + std::string(90, 'c')), 2}, {https("8081", "http://10.0.0.1:8082/ca.crt", 63), 2},
    };
    for (const auto &c : cases) {
        const Ran run = run_link(folder, c.arguments);
        EXPECT_EQ(run.status, c.status) << c.arguments;
        EXPECT_EQ(run.out, c.out) << c.arguments;
        EXPECT_EQ(std::count(run.err.begin(), run.err.end(), '\n'), c.status == 0 ? 0 : 1) << c.arguments << ": " << run.err;
    }
    EXPECT_FALSE(std::filesystem::exists(folder / "none/package.json"));
    const Ran help = run_link(folder, "--help");
    EXPECT_EQ(help.status, 0);
    EXPECT_EQ(help.out.rfind("Usage: varnok-link [--serving | --port | --addresses] [FOLDER]\n", 0), 0u);
    for (const char *option : {"--serving", "--port", "--addresses", "--https", "--ca-url", "--fingerprint", "--help", "--version"})
        EXPECT_NE(help.out.find(option), std::string::npos) << option;
}

} // namespace
