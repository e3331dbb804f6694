// QR encoder: known answers, refusals, padding and tables; whole symbols against an independent
// encoder's grids (tests/qr/golden/, see make_golden.py) and read back by zbar.
#include <gtest/gtest.h>
#include <zbar.h>

#include <cstring>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "qr/qr_internal.h"

namespace {

const std::string kCode32 = "5641524e4f4b5152303103f2c0a80102";
const std::string kCode40 = "5641524e4f4b5152303103f2c0a80101c0a80102";
const std::string kCode80 = kCode40 + "c0a80103c0a80104c0a80105c0a80106c0a80107";

/// Runs qr_encode; its result, and what it printed in *printed.
int encode(const std::string &text, std::string *printed = nullptr) {
    testing::internal::CaptureStdout();
    int result = qr_encode(text.c_str(), 0);
    std::string out = testing::internal::GetCapturedStdout();
    if (printed != nullptr) *printed = out;
    return result;
}

constexpr int N = QR_MODE_NUMERIC, A = QR_MODE_ALPHANUMERIC, B = QR_MODE_BYTE, K = QR_MODE_KANJI;

TEST(QrEncode, KnownAnswers) {
    using Segments = std::vector<std::pair<int, int>>;  // (mode, length)
    const struct { std::string text; Segments segments; int stream_bits, version; } cases[] = {
        // stream_bits: before the terminator, with version 1-9 count widths
        {"0123456789", {{N, 10}}, 48, 1},
        {"HELLO1234", {{A, 9}}, 63, 1},
        {"abc", {{B, 3}}, 36, 1},
        {"a1a1", {{B, 4}}, 44, 1},
        {"\x93\x5f\xe4\xaa", {{K, 4}}, 38, 1},
        {kCode32, {{N, 7}, {B, 5}, {N, 10}, {B, 5}, {N, 5}}, 221, 2},
        {kCode40, {{N, 7}, {B, 5}, {N, 10}, {B, 13}, {N, 5}}, 285, 3},
        {kCode80, {{N, 7}, {B, 5}, {N, 10}, {B, 53}, {N, 5}}, 605, 4},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        ASSERT_EQ(qr_encode_segments(c.text.c_str(), static_cast<int>(c.text.size()), 0), 1);
        Segments segments;
        for (int i = 0; i < qr_symbol.segment_count; ++i)
            segments.emplace_back(qr_symbol.segment_mode[i], qr_symbol.segment_length[i]);
        EXPECT_EQ(segments, c.segments);
        EXPECT_EQ(qr_symbol.bit_count, c.stream_bits);
        std::string printed;
        EXPECT_EQ(encode(c.text, &printed), 1);
        EXPECT_EQ(printed, "," + std::to_string(c.text.size()) + "," + std::to_string(c.version));
        EXPECT_EQ(qr_symbol.version, c.version);
        EXPECT_EQ(qr_symbol.size, c.version * 4 + 17);
        EXPECT_EQ(qr_symbol.modules[8][qr_symbol.size - 8], 1);  // the fixed dark module
    }
}

TEST(QrEncode, RefusalsKeepThePreviousGrid) {
    auto repeat = [](const std::string &part, int n) { std::string out; while (n-- > 0) out += part; return out; };
    const std::pair<std::string, std::string> cases[] = {
        {"", ",0"}, {kCode80 + "c0a80108", ",88,5"},
        {repeat(std::string(255, '9') + "\x93\x5f", 4), ",1028,0"},  // digit runs apart by kanji: over 3200 bits in any group
        {repeat("a1", 201), ",402,0"},  // more mode changes than the segment table holds
    };
    ASSERT_EQ(encode("abc"), 1);
    const QrSymbol before = qr_symbol;
    for (const auto &[text, expected] : cases) {
        SCOPED_TRACE(expected);
        std::string printed;
        EXPECT_EQ(encode(text, &printed), 0);
        EXPECT_EQ(printed, expected);
        EXPECT_EQ(qr_symbol.size, 21);
        EXPECT_EQ(memcmp(qr_symbol.modules, before.modules, sizeof before.modules), 0);
    }
}

TEST(QrEncode, RandomTextsFitOrAreRefused) {
    const char pool[] = "0123456789AZ $%*+-./:az\x81\x93\x5f\xe4\xaa\xfc\xff";  // every mode, kanji pairs, high bytes
    std::mt19937 rng(2024);
    testing::internal::CaptureStdout();
    for (int round = 0; round < 400; ++round) {
        std::vector<char> text(rng() % (round % 4 ? 130 : 1300) + 1, '\0');  // no slack past the NUL
        for (size_t i = 0; i + 1 < text.size(); ++i) text[i] = pool[rng() % (sizeof pool - 1)];
        const QrSymbol before = qr_symbol;
        if (qr_encode(text.data(), 0) == 0) {
            ASSERT_EQ(qr_symbol.size, before.size);
            ASSERT_EQ(memcmp(qr_symbol.modules, before.modules, sizeof before.modules), 0);
        } else {
            ASSERT_LE(qr_symbol.version, QR_MAX_VERSION);
            ASSERT_EQ(qr_symbol.size, qr_symbol.version * 4 + 17);
        }
    }
    testing::internal::GetCapturedStdout();
}

TEST(QrEncode, TerminatorAndPadding) {
    // 77 alphanumerics take 437 bits = 55 * 8 - 3: a 3-bit terminator fills version 3 exactly.
    encode(std::string(77, 'A'));
    EXPECT_EQ(qr_symbol.version, 3);
    EXPECT_EQ(qr_symbol.bit_count, 440);
    // "abc": 36 bits + 4-bit terminator = 5 bytes, then pads 0xEC 0x11 ... up to the 19 data bytes.
    encode("abc");
    EXPECT_EQ(qr_symbol.bit_count, 40);
    const uint8_t abc[19] = {0x40, 0x36, 0x16, 0x26, 0x30, 0xEC, 0x11, 0xEC, 0x11, 0xEC,
                             0x11, 0xEC, 0x11, 0xEC, 0x11, 0xEC, 0x11, 0xEC, 0x11};
    EXPECT_EQ(memcmp(qr_symbol.data_codewords, abc, sizeof abc), 0);
    // A partial last byte is zero-filled and the pads still begin with 0xEC.
    encode("0123456789");
    EXPECT_EQ(qr_symbol.bit_count, 52);
    EXPECT_EQ(qr_symbol.data_codewords[7], 0xEC);
}

TEST(QrEncode, KanjiPairsAndValues) {
    EXPECT_EQ(qr_kanji_value(0x93, 0x5F), 0xD9F);
    EXPECT_EQ(qr_kanji_value(0xE4, 0xAA), 0x1AAA);
    EXPECT_EQ(qr_segment_bits(QR_MODE_KANJI, 4, 0), 64);  // two characters, estimated as four
    const struct { uint8_t first, second; int pair; } pairs[] = {{0x9F, 0xFC, 1}, {0x9F, 0xFD, 0}, {0xEB, 0xC0, 0}, {0xA0, 0x80, 0}};
    for (const auto &p : pairs) EXPECT_EQ(qr_is_kanji_pair(p.first, p.second), p.pair) << int(p.first) << " " << int(p.second);
}

TEST(QrTables, GaloisAndGenerators) {
    EXPECT_EQ(qr_antilog[8], 0x1D);
    EXPECT_EQ(qr_log[0x1D], 8);
    const uint8_t seven[] = {87, 229, 146, 149, 238, 102, 21};
    EXPECT_EQ(memcmp(qr_generator(7), seven, 7), 0);
    for (int absent : {0, 1, 6, 8, 9, 11, 12, 14, 19, 67, 69}) EXPECT_EQ(qr_generator(absent), nullptr) << absent;
    for (int present : {10, 13, 15, 16, 17, 18, 30, 68}) EXPECT_NE(qr_generator(present), nullptr) << present;
}

TEST(QrTables, ReedSolomonRemainder) {
    // The 1-M symbol of "HELLO WORLD": 16 data codewords, 10 error-correction codewords.
    uint8_t work[QR_RS_WORK_SIZE] = {32, 91, 11, 120, 209, 114, 220, 77, 67, 64, 236, 17, 236, 17, 236, 17};
    qr_rs_remainder(work, 16, 10);
    const uint8_t expected[] = {196, 35, 39, 119, 235, 215, 231, 226, 93, 23};
    EXPECT_EQ(memcmp(work, expected, sizeof expected), 0);
}

TEST(QrTables, VersionTableMatchesReference) {
    // Our table written in the reference file's layout (6 is every alignment list's first entry).
    std::ostringstream rows, align;
    for (int v = 1; v <= 40; ++v) {
        const QrVersionInfo &row = qr_version_table[v];
        for (int level = 0; level < 4; ++level) {
            rows << row.version << ' ' << level << ' ' << row.total_codewords << ' ' << row.data_codewords[level];
            for (const QrBlockInfo &b : {row.block1[level], row.block2[level]})
                rows << ' ' << b.block_count << ' ' << b.block_codewords << ' ' << b.block_data_codewords;
            rows << '\n';
        }
        align << "align " << v << (row.align_count > 0 ? " 6" : "");
        for (int i = 0; i < row.align_count; ++i) align << ' ' << int(row.align_pos[i]);
        align << '\n';
    }
    std::ifstream in(VARNOK_SOURCE_DIR "/tests/qr/golden/version_table.txt");
    EXPECT_EQ(rows.str() + align.str(), std::string(std::istreambuf_iterator<char>(in), {}));
}

TEST(QrPlace, FormatAndVersionCodes) {
    EXPECT_EQ(qr_format_code(0, 0), 0x77C4);
    EXPECT_EQ(qr_format_code(1, 0), 0x5412);
    EXPECT_EQ(qr_format_code(2, 0), 0x355F);
    EXPECT_EQ(qr_format_code(3, 0), 0x1689);
    EXPECT_EQ(qr_version_code(7), 0x07C94);
    EXPECT_EQ(qr_version_code(40), 0x28C69);
}

TEST(QrPlace, PenaltyOfHandDrawnGrids) {
    // 21 x 21 all light (runs, blocks, no finder-like line, balance), then with a finder-like column at x = 0.
    memset(qr_symbol.modules, 0, sizeof qr_symbol.modules);
    qr_symbol.size = 21;
    EXPECT_EQ(qr_penalty(), 798 + 1200 + 0 + 100);
    for (int y : {0, 2, 3, 4, 6}) qr_symbol.modules[0][y] = QR_FUNCTION_DARK;
    EXPECT_EQ(qr_penalty(), 786 + 1179 + 40 + 90);
    qr_symbol.size = 0;
}

/// Reads tests/qr/golden/NAME.txt: the encoded text, then rows[y][x] of 0/1 ('1' dark), one a line.
std::string read_golden(const std::string &name, std::string *text) {
    std::ifstream in(VARNOK_SOURCE_DIR "/tests/qr/golden/" + name + ".txt");
    std::getline(in, *text);
    return std::string(std::istreambuf_iterator<char>(in), {});
}

/// Our grid (modules[x][y]) in the golden files' layout.
std::string grid_rows() {
    std::string rows;
    for (int y = 0; y < qr_symbol.size; ++y, rows += '\n')
        for (int x = 0; x < qr_symbol.size; ++x) rows += qr_symbol.modules[x][y] ? '1' : '0';
    return rows;
}

/// Decodes a picture of the current grid (4 px a module, 4-module quiet zone); "" if zbar finds nothing.
std::string decode_picture(bool transposed) {
    const int scale = 4, quiet = 4, size = qr_symbol.size, side = (size + 2 * quiet) * scale;
    std::vector<unsigned char> pixels(side * side, 255);
    for (int py = quiet * scale; py < side - quiet * scale; ++py)
        for (int px = quiet * scale; px < side - quiet * scale; ++px) {
            int x = px / scale - quiet, y = py / scale - quiet;
            if (transposed ? qr_symbol.modules[y][x] : qr_symbol.modules[x][y]) pixels[py * side + px] = 0;
        }
    zbar::ImageScanner scanner;
    scanner.set_config(zbar::ZBAR_NONE, zbar::ZBAR_CFG_ENABLE, 0);
    scanner.set_config(zbar::ZBAR_QRCODE, zbar::ZBAR_CFG_ENABLE, 1);
    zbar::Image image(side, side, "Y800", pixels.data(), pixels.size());
    return scanner.scan(image) > 0 ? image.symbol_begin()->get_data() : "";
}

TEST(QrSymbol, MatchesIndependentEncoderAndZbarReadsIt) {
    std::vector<std::string> names = {"numeric", "hello", "abc", "mixed", "pairing32", "pairing40", "pairing80"};
    for (int mask = 1; mask < 8; ++mask) names.push_back("pairing32_mask" + std::to_string(mask));
    for (const std::string &name : names) {
        SCOPED_TRACE(name);
        std::string text;
        const std::string golden = read_golden(name, &text);
        ASSERT_EQ(encode(text), 1);
        if (name.find("_mask") != std::string::npos) {  // the encoder always picks mask 0: place again with the file's
            qr_symbol.mask = name.back() - '0';
            qr_place_modules();
        }
        EXPECT_EQ(grid_rows(), golden);
        EXPECT_EQ(decode_picture(false), text);
        // The terminal prints modules[row][column], i.e. the symbol mirrored in its main diagonal.
        // Observed outcome: zbar reads the mirrored picture too and returns the same text.
        EXPECT_EQ(decode_picture(true), text);
    }
}

TEST(QrSymbol, AlignmentPatternOfVersionTwo) {
    ASSERT_EQ(encode(kCode32), 1);
    const auto &m = qr_symbol.modules;
    EXPECT_EQ(m[18][18], 1);  // dark centre, light ring, dark border
    for (int i = -1; i <= 1; ++i) EXPECT_EQ(m[18 + i][17] + m[18 + i][19] + m[17][18 + i] + m[19][18 + i], 0);
    for (int i = -2; i <= 2; ++i) EXPECT_EQ(m[18 + i][16] & m[18 + i][20] & m[16][18 + i] & m[20][18 + i], 1);
}

TEST(QrSymbol, SegmentLengthsWrapInEightBits) {
    // A segment keeps its length modulo 256: the symbol holds as many characters as the wrapped length counts.
    const struct { std::string text, printed; int size; std::string reads; } cases[] = {
        {std::string(300, 'a'), ",300,3", 29, std::string(44, 'a')}, {std::string(260, '1'), ",260,1", 21, "1111"}};
    for (const auto &c : cases) {
        std::string printed;
        EXPECT_EQ(encode(c.text, &printed), 1);
        EXPECT_EQ(printed, c.printed);
        EXPECT_EQ(qr_symbol.size, c.size);
        EXPECT_EQ(decode_picture(false), c.reads);
    }
}

}  // namespace
