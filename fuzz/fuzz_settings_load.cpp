// settings_load on arbitrary package.json bytes, in a private folder in memory (a disk file system
// would flush the rewritten file on every close) that is the working folder only during a load.
//
// The server keeps the parsed tree and the descriptor for its whole life; here both are released
// after each load, so leak detection stays on for every other block a load forgets.
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "fuzz_check.h"
#include "settings/settings.h"

static char folder[] = "/dev/shm/varnok-fuzz-settings-XXXXXX", caller_folder[4096];

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    FUZZ_CHECK(freopen("/dev/null", "w", stdout) && getcwd(caller_folder, sizeof caller_folder) && mkdtemp(folder));
    atexit([] { if (chdir(folder) == 0) unlink("package.json"), rmdir(folder); });
    return 0;
}

static bool readable(const char *text) { return text == nullptr || strlen(text) < 4096; }

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    FUZZ_CHECK(chdir(folder) == 0);
    FILE *file = fopen("package.json", "wb");
    const int descriptor = file ? fileno(file) : -1; // free again after fclose, so the load's open() gets it
    FUZZ_CHECK(file && fwrite(data, 1, size, file) == size && fclose(file) == 0);
    ServerSettings out;
    memset(&out, 0xA5, sizeof out);
    const int result = settings_load(&out);
    // Either usable settings, every text set to something readable or to nothing, or none at all.
    FUZZ_CHECK(result == -1 || (result == 0 && readable(out.main_file) && readable(out.rootdir)));
    settings_release();
    close(descriptor);
    FUZZ_CHECK(chdir(caller_folder) == 0);
    return 0;
}
