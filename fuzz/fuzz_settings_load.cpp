// settings_load on arbitrary package.json bytes, in a private temporary folder that is the
// working folder only while a load runs.
//
// The server keeps the parsed tree and the file descriptor for its whole life; a fuzz run loads
// millions of times in one process, so after each load the tree is released with
// settings_release() and the descriptor closed here. Leak detection therefore stays on and
// catches any other block a load forgets.
#include <fcntl.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "fuzz_check.h"
#include "settings/settings.h"

namespace {

void write_settings_file(const uint8_t *data, size_t size)
{
    FILE *file = fopen("package.json", "wb");
    FUZZ_CHECK(file != nullptr);
    FUZZ_CHECK(fwrite(data, 1, size, file) == size);
    fclose(file);
}

// The lowest free descriptor: the one the next open() returns.
int next_descriptor()
{
    const int probe = dup(0);
    close(probe);
    return probe;
}

char folder_made[64];
int folder_descriptor = -1;
int caller_folder = -1; // libFuzzer's own paths stay relative to it

void remove_folder()
{
    const std::string file = std::string(folder_made) + "/package.json";
    unlink(file.c_str());
    rmdir(folder_made);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_silence_stdout();
    // Memory-backed when possible: a disk file system flushes a truncated and rewritten file on
    // every close, which would slow the run a hundredfold.
    char folder[] = "/dev/shm/varnok-fuzz-settings-XXXXXX";
    char fallback[] = "/tmp/varnok-fuzz-settings-XXXXXX";
    const char *made = mkdtemp(folder);
    if (made == nullptr)
        made = mkdtemp(fallback);
    FUZZ_CHECK(made != nullptr);
    snprintf(folder_made, sizeof folder_made, "%s", made);
    folder_descriptor = open(made, O_RDONLY | O_DIRECTORY);
    caller_folder = open(".", O_RDONLY | O_DIRECTORY);
    FUZZ_CHECK(folder_descriptor >= 0 && caller_folder >= 0);
    atexit(remove_folder);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FUZZ_CHECK(fchdir(folder_descriptor) == 0);
    write_settings_file(data, size);
    const int descriptor = next_descriptor();

    ServerSettings out;
    memset(&out, 0xA5, sizeof out);
    const int result = settings_load(&out);
    FUZZ_CHECK(result == 0 || result == -1);
    if (result == 0) {
        // Texts are either absent (a member that is not a string) or readable to their end.
        if (out.main_file != nullptr)
            FUZZ_CHECK(strlen(out.main_file) < 4096);
        if (out.rootdir != nullptr)
            FUZZ_CHECK(strlen(out.rootdir) < 4096);
    }
    // Whatever the load did, the folder now holds a file the next start can read.
    FUZZ_CHECK(access("package.json", R_OK | W_OK) == 0);

    settings_release();
    if (fcntl(descriptor, F_GETFD) != -1)
        close(descriptor);
    FUZZ_CHECK(fchdir(caller_folder) == 0);
    return 0;
}
