// Whole QR symbols: every module against an independent encoder's grids, and decoding with zbar.
#include <gtest/gtest.h>
#include <zbar.h>

#include <fstream>
#include <string>
#include <vector>

#include "qr/qr_internal.h"

namespace {

using namespace zbar;  // zbar.h puts its C interface in this namespace under C++

struct Golden {
    std::string text;
    std::vector<std::string> rows;  // rows[y][x], '1' dark
};

/// Reads tests/qr/golden/NAME.txt: the encoded text, then one row of 0/1 per line.
Golden read_golden(const std::string &name) {
    Golden g;
    std::ifstream in(VARNOK_SOURCE_DIR "/tests/qr/golden/" + name + ".txt");
    std::getline(in, g.text);
    for (std::string row; std::getline(in, row);) g.rows.push_back(row);
    return g;
}

int encode_quietly(const std::string &text) {
    testing::internal::CaptureStdout();
    int result = qr_encode(text.c_str(), 0);
    testing::internal::GetCapturedStdout();
    return result;
}

/// Number of modules where our grid (modules[x][y]) differs from the reference rows.
int count_differences(const Golden &g) {
    int size = qr_symbol.size, wrong = 0;
    if (static_cast<int>(g.rows.size()) != size) return -1;
    for (int y = 0; y < size; ++y)
        for (int x = 0; x < size; ++x) wrong += qr_symbol.modules[x][y] != (g.rows[y][x] == '1');
    return wrong;
}

const char *const kCodes[] = {"numeric", "hello", "abc", "mixed", "pairing32", "pairing40", "pairing80"};

TEST(QrSymbol, MatchesIndependentEncoder) {
    for (const char *name : kCodes) {
        Golden g = read_golden(name);
        ASSERT_FALSE(g.text.empty()) << name;
        ASSERT_EQ(encode_quietly(g.text), 1) << name;
        EXPECT_EQ(count_differences(g), 0) << name;
    }
}

TEST(QrSymbol, EveryMaskMatchesIndependentEncoder) {
    for (int mask = 1; mask < 8; ++mask) {
        Golden g = read_golden("pairing32_mask" + std::to_string(mask));
        ASSERT_EQ(encode_quietly(g.text), 1);
        qr_symbol.mask = mask;
        qr_place_modules();
        EXPECT_EQ(count_differences(g), 0) << "mask " << mask;
    }
}

TEST(QrSymbol, AlignmentPatternOfVersionTwo) {
    ASSERT_EQ(encode_quietly(read_golden("pairing32").text), 1);
    const auto &m = qr_symbol.modules;
    EXPECT_EQ(m[18][18], 1);
    for (int i = -1; i <= 1; ++i) EXPECT_EQ(m[18 + i][17] + m[18 + i][19] + m[17][18 + i] + m[19][18 + i], 0);
    for (int i = -2; i <= 2; ++i) EXPECT_EQ(m[18 + i][16] & m[18 + i][20] & m[16][18 + i] & m[20][18 + i], 1);
}

/// Decodes a picture of the current grid (4 px a module, 4-module quiet zone); "" if zbar finds nothing.
std::string decode_picture(bool transposed) {
    const int scale = 4, quiet = 4, size = qr_symbol.size, side = (size + 2 * quiet) * scale;
    std::vector<unsigned char> pixels(side * side, 255);
    for (int py = 0; py < side; ++py)
        for (int px = 0; px < side; ++px) {
            int x = px / scale - quiet, y = py / scale - quiet;
            if (x < 0 || y < 0 || x >= size || y >= size) continue;
            if (transposed ? qr_symbol.modules[y][x] : qr_symbol.modules[x][y]) pixels[py * side + px] = 0;
        }
    zbar_image_scanner_t *scanner = zbar_image_scanner_create();
    zbar_image_scanner_set_config(scanner, ZBAR_NONE, ZBAR_CFG_ENABLE, 0);
    zbar_image_scanner_set_config(scanner, ZBAR_QRCODE, ZBAR_CFG_ENABLE, 1);
    zbar_image_t *image = zbar_image_create();
    zbar_image_set_format(image, zbar_fourcc('Y', '8', '0', '0'));
    zbar_image_set_size(image, side, side);
    zbar_image_set_data(image, pixels.data(), pixels.size(), nullptr);
    std::string text;
    if (zbar_scan_image(scanner, image) > 0) {
        const zbar_symbol_t *symbol = zbar_image_first_symbol(image);
        text.assign(zbar_symbol_get_data(symbol), zbar_symbol_get_data_length(symbol));
    }
    zbar_image_destroy(image);
    zbar_image_scanner_destroy(scanner);
    return text;
}

TEST(QrSymbol, ZbarReadsTheSymbol) {
    for (const char *name : kCodes) {
        std::string text = read_golden(name).text;
        ASSERT_EQ(encode_quietly(text), 1) << name;
        EXPECT_EQ(decode_picture(false), text) << name;
    }
}

TEST(QrSymbol, ZbarOnTheTerminalsReflectedPicture) {
    // The terminal prints modules[row][column], i.e. the symbol mirrored in its main diagonal.
    // Observed outcome: zbar reads the mirrored picture too and returns the same text.
    for (const char *name : kCodes) {
        std::string text = read_golden(name).text;
        ASSERT_EQ(encode_quietly(text), 1) << name;
        EXPECT_EQ(decode_picture(true), text) << name;
    }
}

}  // namespace
