// Terminal QR: the drawing of a real encoding, cell by cell, the ringless variant and the redraw after a refusal.
#include <functional>
#include <string>

#include <gtest/gtest.h>

#include "pairing/pairing.h"
#include "qr/qr.h"

namespace {

constexpr const char *LIGHT = "\033[37;47m__\033[m";
constexpr const char *DARK = "\033[30;40m..\033[m";
constexpr const char *CODE = "5641524e4f4b5152303103f2c0a80102";

/// What the terminal should show for the current grid: line r, cell c shows modules[r-1][c-1] (the symbol
/// reflected in its main diagonal) inside a one-cell light ring, then an empty line.
std::string expected_drawing() {
    const int side = qr_symbol.size + 2;
    std::string out;
    for (int r = 0; r < side; ++r, out += "\n")
        for (int c = 0; c < side; ++c) {
            const bool ring = r == 0 || c == 0 || r == side - 1 || c == side - 1;
            out += !ring && qr_symbol.modules[r - 1][c - 1] == 1 ? DARK : LIGHT;
        }
    return out + "\n";
}

/// What `print` writes to standard output; it must return 0.
std::string printed(const std::function<int()> &print) {
    testing::internal::CaptureStdout();
    EXPECT_EQ(print(), 0);
    return testing::internal::GetCapturedStdout();
}

TEST(QrTerminal, DrawsTheSymbolReflectedInsideALightRing) {
    const std::string output = printed([] { return qr_print_terminal(CODE); });
    ASSERT_EQ(qr_symbol.size, 25);
    EXPECT_EQ(output, ",32,2\n" + expected_drawing());
    // A refused text redraws the symbol before it.
    EXPECT_EQ(printed([] { return qr_print_terminal(""); }), ",0\n" + expected_drawing());
}

TEST(QrTerminal, PlainVariantUsesTheCallersCellsWithoutRing) {
    const std::string output = printed([] { return qr_print_plain(CODE, "#", "ignored", " "); });
    ASSERT_EQ(qr_symbol.size, 25);
    std::string expected = ",32,2\n\n";
    for (int r = 0; r < 25; ++r, expected += "\n")
        for (int c = 0; c < 25; ++c)
            expected += qr_symbol.modules[r][c] == 1 ? "#" : " ";
    EXPECT_EQ(output, expected + "\n\n");
}

} // namespace
