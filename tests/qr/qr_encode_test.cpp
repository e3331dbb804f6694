// QR encoder: segmentation, stream lengths, version choice, refusals, padding and constant tables.
#include <gtest/gtest.h>

#include <cstring>
#include <fstream>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "qr/qr_internal.h"

namespace {

const std::string kMarker = "5641524e4f4b5152303103f2";

std::string pairing_code(int addresses) {
    std::string code = kMarker;
    char hex[16];
    for (int i = 1; i <= addresses; ++i) {
        snprintf(hex, sizeof hex, "c0a801%02x", i);
        code += hex;
    }
    return code;
}

/// Runs qr_encode and returns what it printed.
std::string encode_printing(const std::string &text, int *result) {
    testing::internal::CaptureStdout();
    *result = qr_encode(text.c_str(), 0);
    return testing::internal::GetCapturedStdout();
}

using Segments = std::vector<std::pair<int, int>>;  // (mode, length)

Segments current_segments() {
    Segments out;
    for (int i = 0; i < qr_symbol.segment_count; ++i) out.emplace_back(qr_symbol.segment_mode[i], qr_symbol.segment_length[i]);
    return out;
}

constexpr int N = QR_MODE_NUMERIC, A = QR_MODE_ALPHANUMERIC, B = QR_MODE_BYTE, K = QR_MODE_KANJI;

struct KnownAnswer {
    std::string text;
    Segments segments;
    int stream_bits;  // before the terminator, with version 1-9 count widths
    int version;
};

TEST(QrEncode, KnownAnswers) {
    const KnownAnswer cases[] = {
        {"0123456789", {{N, 10}}, 48, 1},
        {"HELLO1234", {{A, 9}}, 63, 1},
        {"abc", {{B, 3}}, 36, 1},
        {"a1a1", {{B, 4}}, 44, 1},
        {"\x93\x5f\xe4\xaa", {{K, 4}}, 38, 1},
        {pairing_code(1), {{N, 7}, {B, 5}, {N, 10}, {B, 5}, {N, 5}}, 221, 2},
        {pairing_code(2), {{N, 7}, {B, 5}, {N, 10}, {B, 13}, {N, 5}}, 285, 3},
        {pairing_code(7), {{N, 7}, {B, 5}, {N, 10}, {B, 53}, {N, 5}}, 605, 4},
    };
    for (const KnownAnswer &c : cases) {
        SCOPED_TRACE(c.text);
        ASSERT_EQ(qr_encode_segments(c.text.c_str(), static_cast<int>(c.text.size()), 0), 1);
        EXPECT_EQ(current_segments(), c.segments);
        EXPECT_EQ(qr_symbol.bit_count, c.stream_bits);
        int result = 0;
        std::string printed = encode_printing(c.text, &result);
        EXPECT_EQ(result, 1);
        EXPECT_EQ(printed, "," + std::to_string(c.text.size()) + "," + std::to_string(c.version));
        EXPECT_EQ(qr_symbol.version, c.version);
        EXPECT_EQ(qr_symbol.size, c.version * 4 + 17);
        EXPECT_EQ(qr_symbol.modules[8][qr_symbol.size - 8], 1);  // the fixed dark module
    }
}

TEST(QrEncode, RefusalsKeepThePreviousGrid) {
    std::string numeric_runs;  // four 255-digit runs held apart by kanji: over 3200 bits in every group
    for (int i = 0; i < 4; ++i) numeric_runs += std::string(255, '9') + "\x93\x5f";
    std::string alternating;   // more mode changes than the segment table holds
    for (int i = 0; i < 201; ++i) alternating += "a1";
    const std::pair<std::string, std::string> cases[] = {
        {"", ",0"},
        {pairing_code(8), ",88,5"},
        {numeric_runs, ",1028,0"},
        {alternating, ",402,0"},
        {std::string(300, 'a'), ",300,0"},  // one segment longer than its 8-bit length counts
        {std::string(260, '1'), ",260,0"},
    };
    int result = 0;
    encode_printing("abc", &result);
    QrSymbol before = qr_symbol;
    for (const auto &[text, printed] : cases) {
        SCOPED_TRACE(printed);
        EXPECT_EQ(encode_printing(text, &result), printed);
        EXPECT_EQ(result, 0);
        EXPECT_EQ(qr_symbol.size, 21);
        EXPECT_EQ(memcmp(qr_symbol.modules, before.modules, sizeof before.modules), 0);
    }
}

TEST(QrEncode, RandomBytesFitOrAreRefused) {
    // Digits, alphanumerics, letters, Shift JIS pairs and any byte, in runs up to 1300 bytes long.
    std::mt19937 rng(2024);
    testing::internal::CaptureStdout();
    for (int round = 0; round < 3000; ++round) {
        std::string text(rng() % (round % 4 ? 130 : 1300), '\0');
        for (size_t i = 0; i < text.size(); ++i) {
            switch (rng() % 5) {
            case 0: text[i] = static_cast<char>('0' + rng() % 10); break;
            case 1: text[i] = "AZ $%*+-./:"[rng() % 11]; break;
            case 2: text[i] = static_cast<char>(0x81 + rng() % 0x6B); break;
            default: text[i] = static_cast<char>(1 + rng() % 255); break;
            }
        }
        std::vector<char> exact(text.c_str(), text.c_str() + text.size() + 1);  // no slack past the NUL
        QrSymbol before = qr_symbol;
        int result = qr_encode(exact.data(), 0);
        if (result == 0) {
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
    int result = 0;
    // 77 alphanumerics take 437 bits = 55 * 8 - 3: a 3-bit terminator fills version 3 exactly.
    encode_printing(std::string(77, 'A'), &result);
    EXPECT_EQ(qr_symbol.version, 3);
    EXPECT_EQ(qr_symbol.bit_count, 440);
    // "abc": 36 bits + 4-bit terminator = 5 bytes, then pads from byte 5 to 18.
    encode_printing("abc", &result);
    EXPECT_EQ(qr_symbol.bit_count, 40);
    const uint8_t abc[19] = {0x40, 0x36, 0x16, 0x26, 0x30, 0xEC, 0x11, 0xEC, 0x11, 0xEC,
                             0x11, 0xEC, 0x11, 0xEC, 0x11, 0xEC, 0x11, 0xEC, 0x11};
    EXPECT_EQ(memcmp(qr_symbol.data_codewords, abc, sizeof abc), 0);
    // A partial last byte is zero-filled and the pads still begin with 0xEC.
    encode_printing("0123456789", &result);
    EXPECT_EQ(qr_symbol.bit_count, 52);
    EXPECT_EQ(qr_symbol.data_codewords[7], 0xEC);
}

TEST(QrEncode, CharacterValues) {
    EXPECT_EQ(qr_alnum_value('0'), 0);
    EXPECT_EQ(qr_alnum_value('Z'), 35);
    EXPECT_EQ(qr_alnum_value(':'), 44);
    EXPECT_FALSE(qr_is_alphanumeric('a'));
    EXPECT_EQ(qr_kanji_value(0x93, 0x5F), 0xD9F);
    EXPECT_EQ(qr_kanji_value(0xE4, 0xAA), 0x1AAA);
    EXPECT_TRUE(qr_is_kanji_pair(0x9F, 0xFC));
    EXPECT_FALSE(qr_is_kanji_pair(0x9F, 0xFD));
    EXPECT_FALSE(qr_is_kanji_pair(0xEB, 0xC0));
    EXPECT_FALSE(qr_is_kanji_pair(0xA0, 0x80));
    EXPECT_EQ(qr_segment_bits(K, 4, 0), 4 + 8 + 52);  // two kanji estimated as four
}

TEST(QrTables, GaloisAndGenerators) {
    EXPECT_EQ(qr_antilog[0], 1);
    EXPECT_EQ(qr_antilog[8], 0x1D);
    EXPECT_EQ(qr_antilog[254], 0x8E);
    EXPECT_EQ(qr_antilog[255], 1);
    EXPECT_EQ(qr_log[0], 0);
    EXPECT_EQ(qr_log[0x1D], 8);
    const uint8_t seven[] = {87, 229, 146, 149, 238, 102, 21};
    const uint8_t ten[] = {251, 67, 46, 61, 118, 70, 64, 94, 32, 45};
    EXPECT_EQ(memcmp(qr_generator(7), seven, 7), 0);
    EXPECT_EQ(memcmp(qr_generator(10), ten, 10), 0);
    for (int absent : {0, 1, 6, 8, 9, 11, 12, 14, 19, 67, 69})
        EXPECT_EQ(qr_generator(absent), nullptr) << absent;
    for (int present : {13, 15, 16, 17, 18, 30, 68})
        EXPECT_NE(qr_generator(present), nullptr) << present;
}

TEST(QrTables, ReedSolomonRemainder) {
    // The 1-M symbol of "HELLO WORLD": 16 data codewords, 10 error-correction codewords.
    uint8_t work[QR_RS_WORK_SIZE] = {32, 91, 11, 120, 209, 114, 220, 77, 67, 64, 236, 17, 236, 17, 236, 17};
    qr_rs_remainder(work, 16, 10);
    const uint8_t expected[] = {196, 35, 39, 119, 235, 215, 231, 226, 93, 23};
    EXPECT_EQ(memcmp(work, expected, sizeof expected), 0);
}

TEST(QrTables, VersionTableMatchesReference) {
    std::ifstream in(VARNOK_SOURCE_DIR "/tests/qr/golden/version_table.txt");
    ASSERT_TRUE(in);
    std::string line;
    int rows = 0;
    while (std::getline(in, line)) {
        std::istringstream fields(line);
        if (line.rfind("align", 0) == 0) {
            std::string word;
            int v = 0, p = 0;
            fields >> word >> v;
            std::vector<int> expected, ours;
            while (fields >> p) if (p != 6) expected.push_back(p);
            for (int i = 0; i < qr_version_table[v].align_count; ++i) ours.push_back(qr_version_table[v].align_pos[i]);
            EXPECT_EQ(ours, expected) << "version " << v;
            continue;
        }
        int v, level, total, data, b[6];
        fields >> v >> level >> total >> data >> b[0] >> b[1] >> b[2] >> b[3] >> b[4] >> b[5];
        const QrVersionInfo &row = qr_version_table[v];
        const QrBlockInfo &b1 = row.block1[level], &b2 = row.block2[level];
        EXPECT_EQ(row.version, v);
        EXPECT_EQ(row.total_codewords, total) << v;
        EXPECT_EQ(row.data_codewords[level], data) << v << " " << level;
        EXPECT_EQ(std::vector<int>({b1.block_count, b1.block_codewords, b1.block_data_codewords, b2.block_count,
                                    b2.block_codewords, b2.block_data_codewords}),
                  std::vector<int>(b, b + 6)) << v << " " << level;
        ++rows;
    }
    EXPECT_EQ(rows, 160);
}

TEST(QrPlace, FormatAndVersionCodes) {
    EXPECT_EQ(qr_format_code(0, 0), 0x77C4);
    EXPECT_EQ(qr_format_code(0, 7), 0x6976);
    EXPECT_EQ(qr_format_code(1, 0), 0x5412);
    EXPECT_EQ(qr_format_code(2, 0), 0x355F);
    EXPECT_EQ(qr_format_code(3, 0), 0x1689);
    EXPECT_EQ(qr_version_code(7), 0x07C94);
    EXPECT_EQ(qr_version_code(40), 0x28C69);
}

TEST(QrPlace, PenaltyOfHandDrawnGrids) {
    // 21 x 21: all light; and all light but a finder-like column 1011101 at the top of x = 0.
    struct Case { bool finder_column; int32_t score; } cases[] = {{false, 798 + 1200 + 0 + 100}, {true, 786 + 1179 + 40 + 90}};
    for (const Case &c : cases) {
        memset(qr_symbol.modules, 0, sizeof qr_symbol.modules);
        qr_symbol.size = 21;
        if (c.finder_column)
            for (int y : {0, 2, 3, 4, 6}) qr_symbol.modules[0][y] = QR_FUNCTION_DARK;
        EXPECT_EQ(qr_penalty(), c.score) << c.finder_column;
    }
    qr_symbol.size = 0;
}

}  // namespace
