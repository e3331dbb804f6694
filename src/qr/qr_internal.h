// Internal steps of the QR encoder, shared by its two source files and its tests.
#pragma once

#include <cstdint>

#include "qr/qr.h"
#include "qr/qr_tables.h"

constexpr uint8_t QR_MODE_NUMERIC = 0;
constexpr uint8_t QR_MODE_ALPHANUMERIC = 1;
constexpr uint8_t QR_MODE_BYTE = 2;
constexpr uint8_t QR_MODE_KANJI = 3;

// Module flags while the grid is being built.
constexpr uint8_t QR_FUNCTION = 0x20;
constexpr uint8_t QR_FUNCTION_DARK = 0x30;
constexpr uint8_t QR_DATA_BIT = 0x02;
constexpr uint8_t QR_MASKED_DARK = 0x01;
constexpr uint8_t QR_DARK_TEST = 0x11;

/// Smallest version from `requested`'s group upward that holds `text` at the record's level; 0 if none.
int qr_choose_version(int requested, const char *text, int length);
/// Splits `text` into mode segments, merges them and writes the bit stream; 1 on success, 0 on overflow.
int qr_encode_segments(const char *text, int length, int group);
/// Estimated stream bits of a segment of `mode` over `n` input bytes with the group's count widths.
int qr_segment_bits(int mode, int n, int group);
/// Writes the low `count` bits of `value` at bit `index` of the data stream; the next index, or -1.
int qr_append_bits(int index, int value, int count);
/// Divides the `k` data bytes in `work` by the degree-`e` generator; work[0..e-1] becomes the remainder.
void qr_rs_remainder(uint8_t *work, int k, int e);

/// Whether bytes `first`, `second` form a Shift JIS double-byte character.
int qr_is_kanji_pair(uint8_t first, uint8_t second);
/// Whether `c` is a digit 0-9.
int qr_is_numeric(uint8_t c);
/// Whether `c` belongs to the 45-character alphanumeric set.
int qr_is_alphanumeric(uint8_t c);
/// Value 0..44 of an alphanumeric character (0 for anything else).
int qr_alnum_value(uint8_t c);
/// 13-bit value of the Shift JIS character `first`, `second`.
int qr_kanji_value(uint8_t first, uint8_t second);

/// Fills `modules` from `all_codewords`: patterns, codewords, mask, format; ends with 1/0 per module.
void qr_place_modules();
/// Draws finders, separators, reserved format areas, version information, alignment and timing.
void qr_place_function_patterns();
/// Draws a finder pattern with its top-left corner at (x, y).
void qr_place_finder(int x, int y);
/// Draws an alignment pattern centred at (x, y) unless that centre is already a function module.
void qr_place_alignment(int x, int y);
/// Draws the two version information blocks (versions 7 and up).
void qr_place_version_info();
/// Places the bits of `all_codewords` in the zigzag walk over the non-function modules.
void qr_place_codewords();
/// Recomputes the masked-dark flag of every data module under mask pattern `n`.
void qr_apply_mask(int n);
/// Writes both copies of the format information for the record's level and mask `n`.
void qr_place_format_info(int n);
/// Penalty score of the current grid (runs, blocks, finder-like lines, balance); lower is better.
int32_t qr_penalty();

/// 15-bit format information code (level bits and mask, BCH, XOR 0x5412).
int qr_format_code(int level, int mask);
/// 18-bit version information code (version and BCH remainder).
int qr_version_code(int version);
