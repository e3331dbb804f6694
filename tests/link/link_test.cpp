// varnok-link in process: the port read as the server reads it, with the file left alone, and the symbol
// read back from the half blocks. tests/link/run covers the address sets, the ports and the decoders.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <sstream>
#include <string>
#include <vector>

#include "link/link.h"
#include "qr/qr.h"
#include "support/temp_folder.h"

namespace {

constexpr const char *NO_FILE = "(no file)", *FOLDER = "(a folder)";

TEST(LinkPort, ReadsThePortAsTheServerDoesAndNeverWrites) {
    const struct { std::string json; int32_t setting; LinkPortSource source; bool number = true; } cases[] = {
        {NO_FILE, 1010, LINK_PORT_NO_FILE}, {FOLDER, 1010, LINK_PORT_UNREADABLE},
        {"", 1010, LINK_PORT_EMPTY}, {std::string("\0{}", 3), 1010, LINK_PORT_EMPTY},
        {"{\"varnok\": {\"port\": 80", 1010, LINK_PORT_NOT_JSON},
        {"{}", 1010, LINK_PORT_NO_SETTINGS}, {"{\"varnok\": 8080}", 1010, LINK_PORT_NO_SETTINGS},
        {"{\"varnok\": {\"main-file\": \"a.html\"}}", 1010, LINK_PORT_NO_PORT},
        {"{\"VARNOK\": {\"Port\": 80}} trailing words", 80, LINK_PORT_FROM_FILE},
        {"{\"varnok\": {\"port\": 1, \"port\": 2}}", 1, LINK_PORT_FROM_FILE},
        {"{\"other\": {\"port\": 9}, \"varnok\": {\"port\": 8080.9}}", 8080, LINK_PORT_FROM_FILE},
        {"{\"varnok\": {\"port\": 1e12}}", 2147483647, LINK_PORT_FROM_FILE},
        {"{\"varnok\": {\"port\": \"8080\"}}", 0, LINK_PORT_FROM_FILE, false},
        {"{\"varnok\": {\"port\": true}}", 1, LINK_PORT_FROM_FILE, false},
    };
    for (const auto &c : cases) {
        TempFolder folder;
        if (c.json == FOLDER) std::filesystem::create_directory(folder / "package.json");
        else if (c.json != NO_FILE) folder.write("package.json", c.json);
        WorkingFolder inside(folder.path());
        const LinkPort port = link_port_read();
        EXPECT_EQ(port.setting, c.setting) << c.json;
        EXPECT_EQ(port.source, c.source) << c.json;
        EXPECT_EQ(port.is_number, c.number) << c.json;
        EXPECT_TRUE(c.json == NO_FILE || c.json == FOLDER || folder.read("package.json") == c.json) << c.json;
    }
}

/// The modules of a printed symbol, '#' dark and '.' light, read from the half blocks and their colours.
std::vector<std::string> read_picture(const std::string &printed) {
    std::vector<std::string> rows;
    std::istringstream lines(printed);
    for (std::string line; std::getline(lines, line);) {
        std::string top, bottom;
        int fg = -1, bg = -1, used = 0;
        for (const char *p = line.c_str(); *p; p += used) {
            if (sscanf(p, "\033[38;5;%d;48;5;%dm%n", &fg, &bg, &used) == 2) continue;
            if (strncmp(p, "\xe2\x96\x80", used = 3) == 0) top += fg == 16 ? '#' : '.', bottom += bg == 16 ? '#' : '.';
            else if (strncmp(p, "\033[0m", used = 4) == 0) fg = bg = -1;
            else ADD_FAILURE() << "unexpected byte " << int(*p), used = 1;
        }
        rows.push_back(top), rows.push_back(bottom);
    }
    return rows;
}

TEST(LinkPrint, SymbolsAreUnmirroredInsideFourLightModulesAndFitASmallTerminal) {
    for (const char *url : {"http://1.0.0.0:1/", "http://192.168.1.20:8080/", "http://223.255.255.255:65535/"}) {
        char *text = nullptr;
        size_t length = 0;
        FILE *out = open_memstream(&text, &length);
        link_print_symbol(out, url);
        fclose(out);
        const std::vector<std::string> rows = read_picture(text);
        free(text);
        ASSERT_EQ(qr_encode_quiet(url), 1);
        const int quiet = 4, size = qr_symbol.size, side = size + 2 * quiet;
        ASSERT_EQ(rows.size(), static_cast<size_t>(side + 1)) << url;  // an odd side: the last half line is light
        EXPECT_LE(side, 80);
        EXPECT_LE((side + 1) / 2 + 1, 24);  // with its URL line
        for (int y = 0; y <= side; ++y)
            for (int x = 0; x < side; ++x) {
                const int mx = x - quiet, my = y - quiet;
                const bool dark = mx >= 0 && my >= 0 && mx < size && my < size && qr_symbol.modules[mx][my];
                ASSERT_EQ(rows[y].at(x), dark ? '#' : '.') << url << " module " << mx << "," << my;
            }
    }
}

} // namespace
