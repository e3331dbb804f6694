// QR module placement: function patterns, codeword walk, masks, format and version information.
#include <cstdlib>
#include <cstring>

#include "qr/qr_internal.h"

namespace {

constexpr uint8_t QR_FINDER_ROWS[7] = {0x7F, 0x41, 0x5D, 0x5D, 0x5D, 0x41, 0x7F};
constexpr uint8_t QR_ALIGNMENT_ROWS[5] = {0x1F, 0x11, 0x15, 0x11, 0x1F};

/// Marks module (x, y) as a function module, dark or light.
void set_function(int x, int y, bool dark) {
    qr_symbol.modules[x][y] = dark ? QR_FUNCTION_DARK : QR_FUNCTION;
}

/// Whether module (x, y) counts as dark.
bool is_dark(int x, int y) { return (qr_symbol.modules[x][y] & QR_DARK_TEST) != 0; }

/// Whether the mask pattern `n` inverts the module in row r, column c.
bool mask_inverts(int n, int r, int c) {
    switch (n) {
    case 0: return (r + c) % 2 == 0;
    case 1: return r % 2 == 0;
    case 2: return c % 3 == 0;
    case 3: return (r + c) % 3 == 0;
    case 4: return (r / 2 + c / 3) % 2 == 0;
    case 5: return (r * c) % 2 + (r * c) % 3 == 0;
    case 6: return ((r * c) % 2 + (r * c) % 3) % 2 == 0;
    default: return ((r * c) % 3 + (r + c) % 2) % 2 == 0;
    }
}

/// Dark test along one line: `along_y` walks y at fixed x = line, else x at fixed y = line.
bool line_dark(int line, int pos, bool along_y) { return along_y ? is_dark(line, pos) : is_dark(pos, line); }

/// Light, or outside the symbol.
bool line_light(int line, int pos, bool along_y) {
    return pos < 0 || pos >= qr_symbol.size || !line_dark(line, pos, along_y);
}

/// Penalty for runs of five or more equal modules along every line of one direction.
int32_t penalty_runs(bool along_y) {
    const int size = qr_symbol.size;
    int32_t score = 0;
    for (int line = 0; line < size; ++line) {
        int pos = 0;
        while (pos < size - 4) {
            bool colour = line_dark(line, pos, along_y);
            int run = 1;
            while (pos + run < size && line_dark(line, pos + run, along_y) == colour) ++run;
            if (run >= 5) score += run - 2;
            pos += run;
        }
    }
    return score;
}

/// Penalty for dark-light-dark-dark-dark-light-dark lines with light space on one side.
int32_t penalty_finder_like(bool along_y) {
    static constexpr bool pattern[7] = {true, false, true, true, true, false, true};
    const int size = qr_symbol.size;
    int32_t score = 0;
    for (int line = 0; line < size; ++line) {
        for (int pos = 0; pos <= size - 7; ++pos) {
            bool match = line_light(line, pos - 1, along_y) && line_light(line, pos + 7, along_y);
            for (int i = 0; i < 7 && match; ++i) match = line_dark(line, pos + i, along_y) == pattern[i];
            if (!match) continue;
            bool before = line_light(line, pos - 2, along_y) && line_light(line, pos - 3, along_y) &&
                          line_light(line, pos - 4, along_y);
            bool after = line_light(line, pos + 8, along_y) && line_light(line, pos + 9, along_y) &&
                         line_light(line, pos + 10, along_y);
            if (before || after) score += 40;
        }
    }
    return score;
}

}  // namespace

int qr_format_code(int level, int mask) {
    static constexpr int level_bits[4] = {1, 0, 3, 2};
    int v = (level_bits[level & 3] << 3) + mask;
    int d = v << 10;
    for (int i = 0; i < 5; ++i)
        if (d & (1 << (14 - i))) d ^= 0x537 << (4 - i);
    return ((v << 10) + d) ^ 0x5412;
}

int qr_version_code(int version) {
    int value = version << 12;
    for (int i = 0; i < 6; ++i)
        if (value & (1 << (17 - i))) value ^= 0x1F25 << (5 - i);
    return (version << 12) + value;
}

void qr_place_finder(int x, int y) {
    for (int i = 0; i < 7; ++i)
        for (int j = 0; j < 7; ++j) set_function(x + i, y + j, QR_FINDER_ROWS[j] >> (6 - i) & 1);
}

void qr_place_alignment(int x, int y) {
    if (qr_symbol.modules[x][y] & QR_FUNCTION) return;
    for (int i = 0; i < 5; ++i)
        for (int j = 0; j < 5; ++j) set_function(x - 2 + i, y - 2 + j, QR_ALIGNMENT_ROWS[j] >> (4 - i) & 1);
}

void qr_place_version_info() {
    const int size = qr_symbol.size;
    // Version information starts at version 7, whose 45 modules no longer fit the grid.
    if (qr_symbol.version < 7 || size > QR_MAX_MODULES) return;
    int code = qr_version_code(qr_symbol.version);
    for (int i = 0; i < 6; ++i) {
        for (int j = 0; j < 3; ++j) {
            bool dark = code >> (3 * i + j) & 1;
            set_function(i, size - 11 + j, dark);
            set_function(size - 11 + j, i, dark);
        }
    }
}

void qr_place_function_patterns() {
    const int size = qr_symbol.size;
    qr_place_finder(0, 0);
    qr_place_finder(size - 7, 0);
    qr_place_finder(0, size - 7);
    for (int i = 0; i < 8; ++i) {
        set_function(i, 7, false);
        set_function(7, i, false);
        set_function(size - 8, i, false);
        set_function(size - 8 + i, 7, false);
        set_function(i, size - 8, false);
        set_function(7, size - 8 + i, false);
    }
    for (int i = 0; i <= 8; ++i) {
        set_function(i, 8, false);
        set_function(8, i, false);
    }
    for (int i = 0; i < 8; ++i) {
        set_function(size - 8 + i, 8, false);
        set_function(8, size - 8 + i, false);
    }
    qr_place_version_info();

    const QrVersionInfo &info = qr_version_table[qr_symbol.version];
    for (int a = 0; a < info.align_count; ++a) {
        int p = info.align_pos[a];
        qr_place_alignment(p, 6);
        qr_place_alignment(6, p);
        for (int b = 0; b < info.align_count; ++b) qr_place_alignment(p, info.align_pos[b]);
    }
    for (int i = 8; i <= size - 9; ++i) {
        set_function(i, 6, i % 2 == 0);
        set_function(6, i, i % 2 == 0);
    }
}

void qr_place_codewords() {
    QrSymbol &q = qr_symbol;
    const int size = q.size;
    int x = size, y = size - 1, dx = 1, dy = 1;
    for (int c = 0; c < q.total_codewords; ++c) {
        for (int bit = 7; bit >= 0; --bit) {
            do {
                x += dx;
                dx = -dx;
                if (dx < 0) {
                    y += dy;
                    if (y < 0 || y == size) {
                        y = y < 0 ? 0 : size - 1;
                        dy = -dy;
                        x -= 2;
                        if (x == 6) x = 5;
                    }
                }
                if (x < 0) return;  // no free module left; cannot happen with the version table
            } while (q.modules[x][y] & QR_FUNCTION);
            q.modules[x][y] = (q.all_codewords[c] >> bit & 1) ? QR_DATA_BIT : 0;
        }
    }
}

void qr_apply_mask(int n) {
    QrSymbol &q = qr_symbol;
    for (int x = 0; x < q.size; ++x) {
        for (int y = 0; y < q.size; ++y) {
            uint8_t &m = q.modules[x][y];
            if (m & QR_FUNCTION) continue;
            bool dark = ((m & QR_DATA_BIT) != 0) != mask_inverts(n, y, x);
            m = static_cast<uint8_t>((m & ~QR_MASKED_DARK) | (dark ? QR_MASKED_DARK : 0));
        }
    }
}

void qr_place_format_info(int n) {
    const int size = qr_symbol.size;
    const int code = qr_format_code(qr_symbol.level, n);
    auto bit = [code](int i) { return (code >> i & 1) != 0; };
    for (int i = 0; i <= 5; ++i) set_function(8, i, bit(i));
    set_function(8, 7, bit(6));
    set_function(8, 8, bit(7));
    set_function(7, 8, bit(8));
    for (int i = 9; i <= 14; ++i) set_function(14 - i, 8, bit(i));
    for (int i = 0; i <= 7; ++i) set_function(size - 1 - i, 8, bit(i));
    set_function(8, size - 8, true);
    for (int i = 8; i <= 14; ++i) set_function(8, size - 15 + i, bit(i));
}

int32_t qr_penalty() {
    const int size = qr_symbol.size;
    int32_t score = penalty_runs(true) + penalty_runs(false);
    for (int x = 0; x < size - 1; ++x)
        for (int y = 0; y < size - 1; ++y) {
            bool c = is_dark(x, y);
            if (is_dark(x + 1, y) == c && is_dark(x, y + 1) == c && is_dark(x + 1, y + 1) == c) score += 3;
        }
    score += penalty_finder_like(true) + penalty_finder_like(false);
    int light = 0;
    for (int x = 0; x < size; ++x)
        for (int y = 0; y < size; ++y) light += !is_dark(x, y);
    score += abs(50 - light * 100 / (size * size)) / 5 * 10;
    return score;
}

void qr_place_modules() {
    QrSymbol &q = qr_symbol;
    memset(q.modules, 0, sizeof q.modules);
    qr_place_function_patterns();
    qr_place_codewords();
    if (q.mask == -1) {
        q.mask = 0;
        qr_apply_mask(0);
        qr_place_format_info(0);
        int32_t best = qr_penalty();
        for (int n = 1; n < 8; ++n) {
            qr_apply_mask(n);
            qr_place_format_info(n);
            int32_t score = qr_penalty();
            if (score < best) {
                best = score;
                q.mask = n;
            }
        }
    }
    qr_apply_mask(q.mask);
    qr_place_format_info(q.mask);
    for (int x = 0; x < q.size; ++x)
        for (int y = 0; y < q.size; ++y) q.modules[x][y] = (q.modules[x][y] & QR_DARK_TEST) ? 1 : 0;
}
