#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <regex>
#include <string>

#include "e2e/server_process.h"
#include "pairing/pairing.h"
#include "support/heap_text.h"

namespace {

// The screen shows the port setting as given; a setting above 65535 is bound by its low 16 bits.
class StartupScreen : public testing::TestWithParam<int> {};
INSTANTIATE_TEST_SUITE_P(PortSettings, StartupScreen, testing::Values(0, 65536));

TEST_P(StartupScreen, BannerSymbolSettingsAndListeningLine)
{
    Site site;
    ASSERT_TRUE(site.start(1000, "index.html", "./", GetParam())) << site.server->errors();
    // The code this machine offers, built the way start-up builds it.
    const ServerSettings settings{site.port + GetParam(), 1000, "index.html", "./"};
    char *slots[LAN_ADDRESS_SLOT_COUNT] = {};
    lan_address_collect(slots);
    const std::string port = std::to_string(settings.port), code = taken(pairing_code_build(&settings, slots));
    std::for_each(std::begin(slots), std::end(slots), free);
    testing::internal::CaptureStdout();
    ASSERT_EQ(qr_print_terminal(code.c_str()), 0); // ",LENGTH,VERSION", the drawing and a blank line
    const std::string symbol = testing::internal::GetCapturedStdout();
    const std::regex built("\nBuilt on: [A-Z][a-z]{2} [ 0-9]\\d \\d{4}\n");
    EXPECT_EQ(std::regex_replace(site.server->console(), built, "\nBuilt on: *\n"),
              "Varnok HTTP Server v0.7.1\nBuilt on: *\n"
              "Check update from the official website: Varnok (https://varnok.example/)\n\nQR: " + code + symbol +
              "\t\tUse\t\tDefault\n       port\t" + port + "\t\t1010\nbuffer-size\t1000\t\t1000\n"
              "  main-file\tindex.html\tindex.html\n    rootdir\t./\t\t./\n\nListening on 0.0.0.0:" + port + "\n");
    EXPECT_TRUE(site.get("GET / HTTP/1.1\r\n").starts_with("HTTP/1.1 404 Not Found\r\n")); // on the bound port
}

} // namespace
