// The encoder for callers that own their output: the same symbol, without its length and version note.
#include <cstdio>

#include "qr/qr.h"

int qr_encode_quiet(const char *text)
{
    // qr_encode reports ",LENGTH,VERSION" on standard output; here that note goes to a sink, so the
    // symbol comes from the very same code path as the pairing code's.
    FILE *sink = fopen("/dev/null", "w");
    if (sink == nullptr)
        return 0;
    fflush(stdout);
    FILE *const console = stdout;
    stdout = sink;
    const int encoded = qr_encode(text, 0);
    stdout = console;
    fclose(sink);
    return encoded;
}
