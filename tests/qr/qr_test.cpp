// QR encoder: segments, stream and printed numbers of known texts, refusals, tables and penalty;
// whole symbols against grids written once by Debian's python3-qrcode with the same segments and version at
// level L (golden/: the text, then one row (y) per line, 1 dark), read by zbar.
#include <gtest/gtest.h>
#include <zbar.h>

#include <cstring>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "qr/qr_internal.h"
#include "support/temp_folder.h"

namespace {

const std::string kCode40 = "5641524e4f4b5152303103f2c0a80101c0a80102";
const std::string kCode80 = kCode40 + "c0a80103c0a80104c0a80105c0a80106c0a80107";

/// Runs qr_encode: its result and what it printed.
std::pair<int, std::string> encode(const std::string &text) {
    testing::internal::CaptureStdout();
    const int result = qr_encode(text.c_str(), 0);
    return {result, testing::internal::GetCapturedStdout()};
}

/// What zbar reads from a picture of the grid (4 px a module, 4-module quiet zone); "" if nothing.
std::string zbar_read() {
    const int scale = 4, quiet = 4, size = qr_symbol.size, side = (size + 2 * quiet) * scale;
    std::vector<unsigned char> pixels(side * side, 255);
    for (int x = 0; x < size; ++x)
        for (int y = 0; y < size; ++y)
            for (int p = 0; p < scale * scale && qr_symbol.modules[x][y]; ++p)
                pixels[((y + quiet) * scale + p / scale) * side + (x + quiet) * scale + p % scale] = 0;
    zbar::ImageScanner scanner;
    scanner.set_config(zbar::ZBAR_NONE, zbar::ZBAR_CFG_ENABLE, 0);
    scanner.set_config(zbar::ZBAR_QRCODE, zbar::ZBAR_CFG_ENABLE, 1);
    zbar::Image image(side, side, "Y800", pixels.data(), pixels.size());
    return scanner.scan(image) > 0 ? image.symbol_begin()->get_data() : "";
}

TEST(QrEncode, KnownTexts) {
    // Segments (mode letter of numeric, alphanumeric, byte, kanji and length), stream bits before the terminator
    // with the count widths of versions 1-9 (and of 10-26 and 27-40 where given); reads: zbar's text if not the input.
    const struct { std::string text, segments; int bits, version, wider[2] = {}; std::string reads = {}; } cases[] = {
        {"0123456789", "N10", 48, 1, {50, 52}}, {"HELLO $%*+-./:", "A14", 90, 1, {92, 94}}, {"abc", "B3", 36, 1, {44, 44}},
        {"\x93\x5f\xe4\xaa", "K4", 38, 1, {40, 42}, "点茗"}, {"a1a1", "B4", 44, 1},  // Shift JIS in, zbar's UTF-8 out
        {"5641524e4f4b5152303103f2c0a80102", "N7 B5 N10 B5 N5", 221, 2}, {kCode40, "N7 B5 N10 B13 N5", 285, 3},
        // 77 alphanumerics take 437 bits: 55 bytes with a 3-bit terminator, version 3 exactly
        {kCode80, "N7 B5 N10 B53 N5", 605, 4}, {std::string(77, 'A'), "A77", 437, 3},
        // Merges: a numeric tail turns alphanumeric, a tie keeps two segments, byte neighbours join.
        {"Z7Z", "A3", 30, 1}, {"7777777Z", "N7 A1", 57, 1}, {"777b", "N3 B1", 44, 1}, {"77Zb", "B4", 44, 1},
        {"bZZZ7777", "B4 N4", 72, 1}, {"b7777777Zb", "B10", 92, 1},
        // 14 digits (3n + 2) and the doubled kanji estimate: all three runs join one byte segment.
        {"b77777777777777\x93\x5f\x93\x5f\x93\x5f\x93\x5f", "B23", 196, 2, {}, "b77777777777777点点点点"},
        // Lengths are 8-bit and wrap: the symbol holds what the wrapped length counts.
        {std::string(300, 'a'), "B44", 364, 3, {}, std::string(44, 'a')}, {std::string(260, '1'), "N4", 28, 1, {}, "1111"},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        ASSERT_EQ(qr_encode_segments(c.text.c_str(), static_cast<int>(c.text.size()), 0), 1);
        std::string segments;
        for (int i = 0; i < qr_symbol.segment_count; ++i)
            segments += std::string(i > 0 ? " " : "") + "NABK"[qr_symbol.segment_mode[i]] + std::to_string(qr_symbol.segment_length[i]);
        EXPECT_EQ(segments, c.segments);
        EXPECT_EQ(qr_symbol.bit_count, c.bits);
        for (int group = 1; group < 3 && c.wider[0] != 0; ++group) {
            qr_encode_segments(c.text.c_str(), static_cast<int>(c.text.size()), group);
            EXPECT_EQ(qr_symbol.bit_count, c.wider[group - 1]) << "group " << group;
        }
        EXPECT_EQ(encode(c.text), std::make_pair(1, "," + std::to_string(c.text.size()) + "," + std::to_string(c.version)));
        EXPECT_EQ(qr_symbol.size, c.version * 4 + 17);
        EXPECT_EQ(zbar_read(), c.reads.empty() ? c.text : c.reads);
    }
}

TEST(QrEncode, RefusalsKeepThePreviousGrid) {
    auto repeat = [](const std::string &part, int n) { std::string out; while (n-- > 0) out += part; return out; };
    const std::pair<std::string, std::string> cases[] = {
        {"", ",0"}, {kCode80 + "c0a80108", ",88,5"},
        // 3182 bits with the widths of versions 1-9 (over version 9), 3200 with those of 10-26: version 13
        {std::string(144, 'a') + std::string(252, '1') + std::string(144, 'a'), ",540,13"},
        {repeat(std::string(255, '9') + "\x93\x5f", 4), ",1028,0"},  // digit runs apart by kanji: over 3200 bits in any group
        {repeat("a1", 201), ",402,0"},  // more mode changes than the segment table holds
    };
    encode("abc");
    const QrSymbol before = qr_symbol;
    for (const auto &[text, printed] : cases) {
        EXPECT_EQ(encode(text), std::make_pair(0, printed));
        EXPECT_EQ(qr_symbol.size, 21);
        EXPECT_EQ(memcmp(qr_symbol.modules, before.modules, sizeof before.modules), 0) << printed;
    }
}

TEST(QrEncode, KanjiPairBounds) {
    const struct { uint8_t first, second; int pair; } pairs[] = {{0x9F, 0xFC, 1}, {0x9F, 0xFD, 0}, {0xEB, 0xBF, 1}, {0xEB, 0xC0, 0}, {0xA0, 0x80, 0}};
    for (const auto &p : pairs) EXPECT_EQ(qr_is_kanji_pair(p.first, p.second), p.pair) << int(p.first) << " " << int(p.second);
}

TEST(QrTables, VersionTableMatchesReference) {
    // Our table in the reference file's layout (6 is every alignment list's first entry); each
    // block size has its generator polynomial.
    std::ostringstream rows, align;
    for (int v = 1; v <= 40; ++v) {
        const QrVersionInfo &row = qr_version_table[v];
        for (int level = 0; level < 4; ++level, rows << '\n') {
            rows << v << ' ' << level << ' ' << row.total_codewords << ' ' << row.data_codewords[level];
            for (const QrBlockInfo &b : {row.block1[level], row.block2[level]})
                rows << ' ' << b.block_count << ' ' << b.block_codewords << ' ' << b.block_data_codewords;
            EXPECT_NE(qr_generator(row.block1[level].block_codewords - row.block1[level].block_data_codewords), nullptr);
        }
        align << "align " << row.version << (row.align_count > 0 ? " 6" : "");
        for (int i = 0; i < row.align_count; ++i) align << ' ' << row.align_pos[i];
        align << '\n';
    }
    EXPECT_EQ(rows.str() + align.str(), file_text(VARNOK_SOURCE_DIR "/tests/qr/golden/version_table.txt"));
}

TEST(QrPlace, FormatVersionCodesAndPenalty) {
    const int format[4] = {0x77C4, 0x5412, 0x355F, 0x1689};  // levels L, M, Q, H with mask 0
    for (int level = 0; level < 4; ++level) EXPECT_EQ(qr_format_code(level, 0), format[level]);
    EXPECT_EQ(qr_version_code(7), 0x07C94);
    EXPECT_EQ(qr_version_code(40), 0x28C69);
    // 33 x 33 light but for a finder-like column at x = 0 (y 0-6) and a dark module at y 9, so that only the
    // column's top side is light: runs 1013 + 1017, 1015 same-colour blocks, one finder-like line, 99 % light.
    memset(qr_symbol.modules, 0, sizeof qr_symbol.modules);
    qr_symbol.size = 33;
    for (int y : {0, 2, 3, 4, 6, 9}) qr_symbol.modules[0][y] = QR_FUNCTION_DARK;
    EXPECT_EQ(qr_penalty(), 2030 + 1015 * 3 + 40 + 90);
    qr_symbol.size = 0;
}

TEST(QrSymbol, MatchesIndependentEncoder) {
    std::vector<std::string> names = {"numeric", "hello", "abc", "mixed", "pairing32", "pairing40", "pairing80"};
    for (int mask = 1; mask < 8; ++mask) names.push_back("pairing32_mask" + std::to_string(mask));
    for (const std::string &name : names) {
        SCOPED_TRACE(name);
        const std::string file = file_text(VARNOK_SOURCE_DIR "/tests/qr/golden/" + name + ".txt");
        const std::string text = file.substr(0, file.find('\n'));  // then rows (y) of 0/1
        encode(text);
        if (name.find("_mask") != std::string::npos) {  // the encoder always picks mask 0: place again with the file's
            qr_symbol.mask = name.back() - '0';
            qr_place_modules();
        }
        std::string lines = text + '\n';
        for (int y = 0; y < qr_symbol.size; ++y, lines += '\n')
            for (int x = 0; x < qr_symbol.size; ++x) lines += qr_symbol.modules[x][y] ? '1' : '0';
        EXPECT_EQ(lines, file);
    }
}

}  // namespace
