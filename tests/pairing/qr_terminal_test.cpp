// Terminal QR: the drawing of a real encoding, cell by cell, and the ringless variant.
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "pairing/pairing.h"
#include "qr/qr.h"

namespace {

constexpr const char *LIGHT = "\033[37;47m__\033[m";
constexpr const char *DARK = "\033[30;40m..\033[m";
constexpr const char *CODE = "5641524e4f4b5152303103f2c0a80102";

std::vector<std::string> split_lines(const std::string &text)
{
    std::vector<std::string> lines;
    size_t start = 0;
    for (size_t end; (end = text.find('\n', start)) != std::string::npos; start = end + 1)
        lines.push_back(text.substr(start, end - start));
    EXPECT_EQ(start, text.size()) << "output ends with a line end";
    return lines;
}

TEST(QrTerminal, DrawsTheSymbolReflectedInsideALightRing)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(qr_print_terminal(CODE), 0);
    const std::vector<std::string> lines = split_lines(testing::internal::GetCapturedStdout());
    ASSERT_EQ(qr_symbol.size, 25);
    ASSERT_EQ(lines.size(), 1u + 27u + 1u);
    EXPECT_EQ(lines.front(), ",32,2");
    EXPECT_EQ(lines.back(), "");
    for (int r = 0; r < 27; ++r) {
        std::string expected;
        for (int c = 0; c < 27; ++c) {
            const bool ring = r == 0 || r == 26 || c == 0 || c == 26;
            expected += !ring && qr_symbol.modules[r - 1][c - 1] == 1 ? DARK : LIGHT;
        }
        EXPECT_EQ(lines[1 + r], expected) << "line " << r;
    }
    // The fixed dark module (x 8, y 4V+9) shows to the lower left of the top-right finder.
    EXPECT_EQ(qr_symbol.modules[8][17], 1);
    EXPECT_EQ(lines[1 + 9].substr(18 * std::string(DARK).size(), std::string(DARK).size()), DARK);
}

TEST(QrTerminal, PlainVariantUsesTheCallersCellsWithoutRing)
{
    testing::internal::CaptureStdout();
    EXPECT_EQ(qr_print_plain(CODE, "#", "ignored", " "), 0);
    const std::string output = testing::internal::GetCapturedStdout();
    std::string expected = ",32,2\n\n";
    for (int r = 0; r < 25; ++r) {
        for (int c = 0; c < 25; ++c)
            expected += qr_symbol.modules[r][c] == 1 ? "#" : " ";
        expected += "\n";
    }
    EXPECT_EQ(output, expected + "\n\n");
}

TEST(QrTerminal, FailedEncodingRedrawsThePreviousSymbol)
{
    qr_print_terminal(CODE);
    testing::internal::CaptureStdout();
    qr_print_terminal("");
    const std::vector<std::string> lines = split_lines(testing::internal::GetCapturedStdout());
    EXPECT_EQ(lines.front(), ",0");
    EXPECT_EQ(lines.size(), 1u + 27u + 1u);
}

} // namespace
