#include <gtest/gtest.h>

#include <cstdlib>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "e2e/server_process.h"
#include "pairing/pairing.h"
#include "qr/qr.h"

namespace {

std::vector<std::string> lines_of(const std::string &text)
{
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);)
        lines.push_back(line);
    return lines;
}

// The code this machine offers for `port`, built the way start-up builds it.
std::string expected_pairing_code(int port)
{
    char *slots[LAN_ADDRESS_SLOT_COUNT] = {};
    lan_address_collect(slots);
    const ServerSettings settings{port, 1000, "index.html", "./"};
    char *built = pairing_code_build(&settings, slots);
    std::string code = built;
    free(built);
    for (char *slot : slots)
        free(slot);
    return code;
}

// The screen shows the port setting as given; a setting above 65535 is bound by its low 16 bits.
class StartupScreen : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(PortSettings, StartupScreen, testing::Values(0, 65536));

TEST_P(StartupScreen, ReadsLineByLine)
{
    Site site;
    ASSERT_TRUE(site.start(1000, "index.html", "./", GetParam())) << site.server->errors();
    const int port = site.port + GetParam();
    const std::vector<std::string> lines = lines_of(site.server->console());

    const std::string code = expected_pairing_code(port);
    testing::internal::CaptureStdout();
    ASSERT_EQ(qr_encode(code.c_str(), 0), 1);
    const std::string numbers = testing::internal::GetCapturedStdout();
    const int size = qr_symbol.size;
    ASSERT_EQ(lines.size(), static_cast<size_t>(4 + 1 + size + 2 + 1 + 6 + 1));

    EXPECT_EQ(lines[0], "Varnok HTTP Server v0.7.1");
    EXPECT_TRUE(std::regex_match(lines[1], std::regex("Built on: [A-Z][a-z]{2} [ 0-9]\\d \\d{4}"))) << lines[1];
    EXPECT_EQ(lines[2], "Check update from the official website: Varnok (https://varnok.example/)");
    EXPECT_EQ(lines[3], "");
    EXPECT_EQ(lines[4], "QR: " + code + numbers);

    // The drawing is the symbol reflected in its diagonal: line r shows modules[r - 1][...],
    // inside a light border of one module.
    for (int r = 0; r < size + 2; r++) {
        std::string expected;
        for (int c = 0; c < size + 2; c++) {
            const bool inside = r >= 1 && r <= size && c >= 1 && c <= size;
            expected += inside && qr_symbol.modules[r - 1][c - 1] == 1 ? "\033[30;40m..\033[m" : "\033[37;47m__\033[m";
        }
        EXPECT_EQ(lines[5 + r], expected) << "drawn line " << r;
    }
    const auto table = lines.begin() + 5 + size + 2;
    const std::vector<std::string> rest(table, lines.end());
    const std::vector<std::string> expected_rest = {
        "",
        "\t\tUse\t\tDefault",
        "       port\t" + std::to_string(port) + "\t\t1010",
        "buffer-size\t1000\t\t1000",
        "  main-file\tindex.html\tindex.html",
        "    rootdir\t./\t\t./",
        "",
        "Listening on 0.0.0.0:" + std::to_string(port),
    };
    EXPECT_EQ(rest, expected_rest);
    EXPECT_TRUE(site.get("GET / HTTP/1.1\r\n").starts_with("HTTP/1.1 404 Not Found\r\n")); // on the bound port
}

} // namespace
