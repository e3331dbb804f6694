// QR Code encoder (Model 2, level L, mask 0) with all its storage in one static record.
#pragma once

#include <cstdint>

constexpr int QR_MAX_VERSION = 4;
constexpr int QR_MAX_MODULES = 33;        // modules per side of a version 4 symbol
constexpr int QR_CODEWORD_CAPACITY = 400;
constexpr int QR_BIT_CAPACITY = 3200;
constexpr int QR_RS_WORK_SIZE = 153;

struct QrSymbol {
    int32_t level;            // 0 = L, 1 = M, 2 = Q, 3 = H
    int32_t mask;             // 0..7, or -1 to choose by penalty
    int32_t size;             // modules per side; 0 before the first symbol
    int32_t version;
    int32_t total_codewords;
    int32_t segment_count;
    int32_t bit_count;        // -1 after an overflow
    uint8_t segment_mode[QR_CODEWORD_CAPACITY];
    uint8_t segment_length[QR_CODEWORD_CAPACITY];
    uint8_t data_codewords[QR_CODEWORD_CAPACITY];
    uint8_t all_codewords[QR_CODEWORD_CAPACITY];
    uint8_t rs_work[QR_RS_WORK_SIZE];
    uint8_t modules[QR_MAX_MODULES][QR_MAX_MODULES];  // [x][y]; 1 dark, 0 light
};

/// The encoder's one working record; `size` and `modules` hold the last finished symbol.
extern QrSymbol qr_symbol;

/// Encodes `text` into `qr_symbol`, printing ",LEN" and ",VERSION"; 1 on success, 0 on failure.
int qr_encode(const char *text, int32_t ignored);
/// Encodes `text` like qr_encode, but prints nothing; 1 on success, 0 on failure.
int qr_encode_quiet(const char *text);
