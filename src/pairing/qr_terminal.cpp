// Terminal QR: the pairing code's symbol drawn with colour escapes, two characters per module.
#include <cstdio>

#include "pairing/pairing.h"
#include "qr/qr.h"

namespace {

constexpr const char *LIGHT_CELL = "\033[37;47m__\033[m";
constexpr const char *DARK_CELL = "\033[30;40m..\033[m";

/// Whether printed line `r`, cell `c` of the ringed drawing shows a dark module.
bool ringed_cell_is_dark(int r, int c, int size)
{
    if (r < 1 || r > size || c < 1 || c > size)
        return false;
    // Each line shows one first index of the grid: the picture is the symbol reflected in its
    // main diagonal, which is how it has always looked on screen.
    return qr_symbol.modules[r - 1][c - 1] == 1;
}

} // namespace

int qr_print_terminal(const char *text)
{
    qr_encode(text, 0);
    printf("\n");
    const int size = qr_symbol.size;
    for (int r = 0; r <= size + 1; ++r) {
        for (int c = 0; c <= size + 1; ++c)
            printf("%s", ringed_cell_is_dark(r, c, size) ? DARK_CELL : LIGHT_CELL);
        printf("\n");
    }
    printf("\n");
    return 0;
}

int qr_print_plain(const char *text, const char *dark_cell, const char * /*ignored*/, const char *light_cell)
{
    qr_encode(text, 0);
    printf("\n\n");
    const int size = qr_symbol.size;
    for (int r = 0; r < size; ++r) {
        for (int c = 0; c < size; ++c)
            printf("%s", qr_symbol.modules[r][c] == 1 ? dark_cell : light_cell);
        printf("\n");
    }
    printf("\n\n");
    return 0;
}
