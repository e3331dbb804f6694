// QR encoder: segmentation, bit stream, version choice, Reed-Solomon and interleaving.
#include <cstdio>
#include <cstring>

#include "qr/qr_internal.h"

QrSymbol qr_symbol;

namespace {

constexpr char QR_ALNUM_CHARS[] = "0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ $%*+-./:";
constexpr int QR_SEGMENT_CAPACITY = QR_CODEWORD_CAPACITY;

/// Whether every level of versions 1 to QR_MAX_VERSION fits the record's buffers.
constexpr bool small_versions_fit() {
    for (int v = 1; v <= QR_MAX_VERSION; ++v) {
        const QrVersionInfo &info = qr_version_table[v];
        if (info.total_codewords > QR_CODEWORD_CAPACITY || v * 4 + 17 > QR_MAX_MODULES) return false;
        for (int level = 0; level < 4; ++level)
            if (info.block1[level].block_codewords > QR_RS_WORK_SIZE || info.block2[level].block_codewords > QR_RS_WORK_SIZE)
                return false;
    }
    return true;
}
static_assert(small_versions_fit(), "the versions the encoder accepts must fit its fixed buffers");

/// Estimated bits of segment `n` of the record.
int segment_cost(int n, int group) {
    return qr_segment_bits(qr_symbol.segment_mode[n], qr_symbol.segment_length[n], group);
}

/// Segment `into` takes over the length of segment `from` (wrapping in 8 bits); `from` is removed.
void segment_absorb(int into, int from) {
    QrSymbol &q = qr_symbol;
    q.segment_length[into] = static_cast<uint8_t>(q.segment_length[into] + q.segment_length[from]);
    for (int i = from; i < q.segment_count - 1; ++i) {
        q.segment_mode[i] = q.segment_mode[i + 1];
        q.segment_length[i] = q.segment_length[i + 1];
    }
    q.segment_count--;
}

/// Mode of the byte at `i`; kanji when it starts a Shift JIS pair.
uint8_t classify(const uint8_t *text, int i, int length) {
    if (i < length - 1 && qr_is_kanji_pair(text[i], text[i + 1])) return QR_MODE_KANJI;
    if (qr_is_numeric(text[i])) return QR_MODE_NUMERIC;
    if (qr_is_alphanumeric(text[i])) return QR_MODE_ALPHANUMERIC;
    return QR_MODE_BYTE;
}

/// Splits the text into runs of one mode; 0 when the runs would not fit the segment table.
int split_segments(const uint8_t *text, int length) {
    QrSymbol &q = qr_symbol;
    memset(q.segment_length, 0, sizeof q.segment_length);
    q.segment_count = 0;
    for (int i = 0; i < length; ++i) {
        uint8_t mode = classify(text, i, length);
        if (q.segment_count == 0 || mode != q.segment_mode[q.segment_count - 1]) {
            if (q.segment_count == QR_SEGMENT_CAPACITY) return 0;
            q.segment_mode[q.segment_count++] = mode;
        }
        uint8_t &len = q.segment_length[q.segment_count - 1];
        if (mode == QR_MODE_KANJI) {
            len = static_cast<uint8_t>(len + 2);
            ++i;
        } else {
            len = static_cast<uint8_t>(len + 1);
        }
    }
    return 1;
}

/// Joins numeric/alphanumeric neighbours where one alphanumeric (or a byte neighbour) is cheaper.
void merge_numeric_alphanumeric(int group) {
    QrSymbol &q = qr_symbol;
    auto &mode = q.segment_mode;  // array references keep the bounds visible to the sanitizer
    auto &len = q.segment_length;
    int n = 0;
    while (n < q.segment_count - 1) {
        bool mixed = (mode[n] == QR_MODE_NUMERIC && mode[n + 1] == QR_MODE_ALPHANUMERIC) ||
                     (mode[n] == QR_MODE_ALPHANUMERIC && mode[n + 1] == QR_MODE_NUMERIC);
        if (!mixed) { ++n; continue; }
        int src = segment_cost(n, group) + segment_cost(n + 1, group);
        int dst = qr_segment_bits(QR_MODE_ALPHANUMERIC, len[n] + len[n + 1], group);
        if (src <= dst) { ++n; continue; }

        int front = 0;
        if (n >= 1 && mode[n - 1] == QR_MODE_BYTE) {
            front = qr_segment_bits(QR_MODE_BYTE, len[n - 1] + len[n], group) + segment_cost(n + 1, group);
            if (front > dst + qr_segment_bits(QR_MODE_BYTE, len[n - 1], group)) front = 0;
        }
        int behind = 0;
        if (n < q.segment_count - 2 && mode[n + 2] == QR_MODE_BYTE) {
            behind = segment_cost(n, group) + qr_segment_bits(QR_MODE_BYTE, len[n + 1] + len[n + 2], group);
            if (behind > dst + qr_segment_bits(QR_MODE_BYTE, len[n + 2], group)) behind = 0;
        }

        bool join_front = front != 0 && (behind == 0 || front < behind);
        bool join_behind = behind != 0 && !join_front;
        if (join_front) {
            segment_absorb(n - 1, n);
        } else if (join_behind) {
            mode[n + 1] = QR_MODE_BYTE;
            segment_absorb(n + 1, n + 2);
        } else {
            if (n < q.segment_count - 2 && mode[n + 2] == QR_MODE_ALPHANUMERIC) segment_absorb(n + 1, n + 2);
            mode[n] = QR_MODE_ALPHANUMERIC;
            segment_absorb(n, n + 1);
            if (n >= 1 && mode[n - 1] == QR_MODE_ALPHANUMERIC) segment_absorb(n - 1, n);
        }
    }
}

/// Joins neighbouring segments into one byte segment wherever that costs fewer bits.
void merge_into_byte(int group) {
    QrSymbol &q = qr_symbol;
    auto &mode = q.segment_mode;
    auto &len = q.segment_length;
    const int header = 4 + qr_count_width[QR_MODE_BYTE][group];
    int n = 0;
    while (n < q.segment_count - 1) {
        int src = segment_cost(n, group) + segment_cost(n + 1, group);
        int dst = qr_segment_bits(QR_MODE_BYTE, len[n] + len[n + 1], group);
        if (n >= 1 && mode[n - 1] == QR_MODE_BYTE) dst -= header;
        if (n + 2 < q.segment_count && mode[n + 2] == QR_MODE_BYTE) dst -= header;
        if (src <= dst) { ++n; continue; }

        if (n >= 1 && mode[n - 1] == QR_MODE_BYTE) {
            segment_absorb(n - 1, n);
            --n;
        }
        if (n + 2 < q.segment_count && mode[n + 2] == QR_MODE_BYTE) segment_absorb(n + 1, n + 2);
        mode[n] = QR_MODE_BYTE;
        segment_absorb(n, n + 1);
        if (n >= 1) --n;
    }
}

/// Appends one segment's header and characters to the stream, starting at text position `pos`.
void write_segment(const uint8_t *text, int pos, int n, int group) {
    QrSymbol &q = qr_symbol;
    int mode = q.segment_mode[n];
    int len = q.segment_length[n];
    int width = qr_count_width[mode][group];
    const uint8_t *s = text + pos;
    int &bits = q.bit_count;
    switch (mode) {
    case QR_MODE_NUMERIC:
        bits = qr_append_bits(bits, 1, 4);
        bits = qr_append_bits(bits, len, width);
        for (int i = 0; i < len; i += 3) {
            int value = 0, digits = len - i < 3 ? len - i : 3;
            for (int j = 0; j < digits; ++j) value = value * 10 + (s[i + j] - '0');
            bits = qr_append_bits(bits, value, digits * 3 + 1);
        }
        break;
    case QR_MODE_ALPHANUMERIC:
        bits = qr_append_bits(bits, 2, 4);
        bits = qr_append_bits(bits, len, width);
        for (int i = 0; i + 1 < len; i += 2)
            bits = qr_append_bits(bits, 45 * qr_alnum_value(s[i]) + qr_alnum_value(s[i + 1]), 11);
        if (len % 2) bits = qr_append_bits(bits, qr_alnum_value(s[len - 1]), 6);
        break;
    case QR_MODE_BYTE:
        bits = qr_append_bits(bits, 4, 4);
        bits = qr_append_bits(bits, len, width);
        for (int i = 0; i < len; ++i) bits = qr_append_bits(bits, s[i], 8);
        break;
    default:
        bits = qr_append_bits(bits, 8, 4);
        bits = qr_append_bits(bits, len / 2, width);
        for (int i = 0; i + 1 < len; i += 2) bits = qr_append_bits(bits, qr_kanji_value(s[i], s[i + 1]), 13);
        break;
    }
}

/// Copies the data codewords into their interleaved places in `all_codewords`.
void interleave_data(const QrBlockInfo &b1, const QrBlockInfo &b2) {
    QrSymbol &q = qr_symbol;
    const int blocks = b1.block_count + b2.block_count;
    const int k1 = b1.block_data_codewords, k2 = b2.block_data_codewords;
    int s = 0;
    for (int i = 0; i < b1.block_count; ++i)
        for (int j = 0; j < k1; ++j) q.all_codewords[blocks * j + i] = q.data_codewords[s++];
    for (int i = b1.block_count; i < blocks; ++i) {
        int t = i - b1.block_count;
        for (int j = 0; j < k2; ++j)
            q.all_codewords[j < k1 ? blocks * j + i : blocks * k1 + t] = q.data_codewords[s++];
    }
}

/// Computes each block's error-correction codewords and interleaves them behind the data.
void add_error_correction(const QrBlockInfo &b1, const QrBlockInfo &b2, int data_total) {
    QrSymbol &q = qr_symbol;
    const int blocks = b1.block_count + b2.block_count;
    const int e = b1.block_codewords - b1.block_data_codewords;
    int source = 0;
    for (int i = 0; i < blocks; ++i) {
        int k = i < b1.block_count ? b1.block_data_codewords : b2.block_data_codewords;
        memset(q.rs_work, 0, sizeof q.rs_work);
        memcpy(q.rs_work, q.data_codewords + source, k);
        source += k;
        qr_rs_remainder(q.rs_work, k, e);
        for (int j = 0; j < e; ++j) q.all_codewords[data_total + blocks * j + i] = q.rs_work[j];
    }
}

}  // namespace

int qr_is_kanji_pair(uint8_t first, uint8_t second) {
    bool lead = (first >= 0x81 && first <= 0x9F) || (first >= 0xE0 && first <= 0xEB);
    if (!lead || second < 0x40) return 0;
    if (first == 0x9F && second > 0xFC) return 0;
    if (first == 0xEB && second > 0xBF) return 0;
    return 1;
}

int qr_is_numeric(uint8_t c) { return c >= '0' && c <= '9'; }

int qr_is_alphanumeric(uint8_t c) { return c != 0 && strchr(QR_ALNUM_CHARS, c) != nullptr; }

int qr_alnum_value(uint8_t c) {
    const char *found = c != 0 ? strchr(QR_ALNUM_CHARS, c) : nullptr;
    return found ? static_cast<int>(found - QR_ALNUM_CHARS) : 0;
}

int qr_kanji_value(uint8_t first, uint8_t second) {
    int code = first << 8 | second;
    int shifted = (code >= 0x8140 && code <= 0x9FFC ? code - 0x8140 : code - 0xC140) & 0xFFFF;
    return (shifted >> 8) * 0xC0 + (shifted & 0xFF);
}

int qr_segment_bits(int mode, int n, int group) {
    int header = 4 + qr_count_width[mode & 3][group];
    switch (mode) {
    case QR_MODE_NUMERIC: return header + 10 * (n / 3) + (n % 3 == 0 ? 0 : n % 3 == 1 ? 4 : 7);
    case QR_MODE_ALPHANUMERIC: return header + 11 * (n / 2) + 6 * (n % 2);
    case QR_MODE_BYTE: return header + 8 * n;
    default: return header + 13 * n;  // n counts bytes, two per kanji: the estimate is doubled on purpose
    }
}

int qr_append_bits(int index, int value, int count) {
    if (index == -1 || index + count > QR_BIT_CAPACITY) return -1;
    unsigned bits = static_cast<unsigned>(value) & 0xFFFF;
    for (int i = 0; i < count; ++i) {
        if (bits >> (count - 1 - i) & 1) {
            int at = index + i;
            qr_symbol.data_codewords[at / 8] |= static_cast<uint8_t>(0x80 >> (at % 8));
        }
    }
    return index + count;
}

int qr_encode_segments(const char *text, int length, int group) {
    QrSymbol &q = qr_symbol;
    const uint8_t *bytes = reinterpret_cast<const uint8_t *>(text);
    memset(q.data_codewords, 0, sizeof q.data_codewords);
    if (!split_segments(bytes, length)) {
        q.bit_count = -1;
        return 0;
    }
    merge_numeric_alphanumeric(group);
    merge_into_byte(group);

    // A segment longer than 255 bytes keeps its length modulo 256, and the stream holds only that
    // many characters. The wrapped lengths never add up to more than the text, so every read stays in it.
    q.bit_count = 0;
    int pos = 0;
    for (int n = 0; n < q.segment_count && q.bit_count != -1; ++n) {
        write_segment(bytes, pos, n, group);
        pos += q.segment_length[n];
    }
    return q.bit_count != -1;
}

int qr_choose_version(int requested, const char *text, int length) {
    static constexpr int first_version[3] = {1, 10, 27};
    static constexpr int last_version[3] = {9, 26, 40};
    int start = requested >= 27 ? 2 : requested >= 10 ? 1 : 0;
    for (int group = start; group < 3; ++group) {
        if (!qr_encode_segments(text, length, group)) continue;
        int needed = (qr_symbol.bit_count + 7) / 8;
        for (int v = first_version[group]; v <= last_version[group]; ++v)
            if (qr_version_table[v].data_codewords[qr_symbol.level] >= needed) return v;
    }
    return 0;
}

void qr_rs_remainder(uint8_t *work, int k, int e) {
    const uint8_t *gen = qr_generator(e);
    if (gen == nullptr) return;
    for (int round = 0; round < k; ++round) {
        if (work[0] != 0) {
            int f = qr_log[work[0]];
            int j = 0;
            for (; j < e; ++j) work[j] = static_cast<uint8_t>(work[j + 1] ^ qr_antilog[(gen[j] + f) % 255]);
            for (; j <= k + e - 2; ++j) work[j] = work[j + 1];
        } else {
            for (int j = 0; j <= k + e - 2; ++j) work[j] = work[j + 1];
        }
    }
}

int qr_encode(const char *text, int32_t /*ignored*/) {
    QrSymbol &q = qr_symbol;
    q.level = 0;
    q.mask = 0;
    int length = static_cast<int>(strlen(text));
    printf(",%d", length);
    if (length == 0) return 0;

    int found = qr_choose_version(1, text, length);
    printf(",%d", found);
    // The grid and codeword buffers hold version 4 at most: anything larger is refused here.
    if (found == 0 || found > QR_MAX_VERSION) return 0;
    q.version = found > 1 ? found : 1;

    const QrVersionInfo &info = qr_version_table[q.version];
    const int d = info.data_codewords[q.level];
    int terminator = d * 8 - q.bit_count < 4 ? d * 8 - q.bit_count : 4;
    if (terminator > 0) q.bit_count = qr_append_bits(q.bit_count, 0, terminator);
    for (int i = (q.bit_count + 7) / 8, pad = 0; i < d; ++i, ++pad) q.data_codewords[i] = pad % 2 ? 0x11 : 0xEC;

    q.total_codewords = info.total_codewords;
    memset(q.all_codewords, 0, q.total_codewords);
    interleave_data(info.block1[q.level], info.block2[q.level]);
    add_error_correction(info.block1[q.level], info.block2[q.level], d);

    q.size = q.version * 4 + 17;
    qr_place_modules();
    return 1;
}
