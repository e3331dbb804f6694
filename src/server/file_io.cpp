#include "server/file_io.h"

#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

#include "server/request.h"

// A failed open is reported and the function returns at once: there is no stream to close.

int32_t read_file_into(const char *path, uint64_t size, void *destination)
{
    FILE *file = fopen(path, "rb");
    if (file == nullptr) {
        // perror adds ": " after the prefix, so the console shows two colons in a row.
        perror("fopen() failed:");
        printf(" %s\n", path);
        return -1;
    }
    // Unbuffered, so the read goes straight into the destination. A file that shrank since its
    // size was taken leaves zeros at the end.
    setvbuf(file, nullptr, _IONBF, 0);
    const size_t count = fread(destination, 1, size, file);
    memset(static_cast<char *>(destination) + count, 0, size - count);
    fclose(file);
    return 0;
}

static FILE *open_or_report(const char *path, const char *mode)
{
    FILE *file = fopen(path, mode);
    if (file == nullptr)
        perror("fopen");
    return file;
}

// The block the module hands out; null for a size that cannot be held.
static unsigned char *zeroed_block(int32_t size)
{
    return size < 0 ? nullptr : static_cast<unsigned char *>(calloc(static_cast<size_t>(size) + 1, 1));
}

unsigned char *read_whole_file(const char *path)
{
    FILE *file = open_or_report(path, "rb");
    if (file == nullptr)
        return nullptr;
    fseek(file, 0, SEEK_END);
    const auto length = static_cast<int32_t>(ftell(file));
    unsigned char *block = zeroed_block(length);
    if (block != nullptr) {
        fseek(file, 0, SEEK_SET);
        (void)!fread(block, 1, static_cast<size_t>(length), file);
    }
    fclose(file);
    return block;
}

unsigned char *read_file_head(const char *path, int32_t n)
{
    FILE *file = open_or_report(path, "rb");
    if (file == nullptr)
        return nullptr;
    unsigned char *block = zeroed_block(n);
    if (block != nullptr)
        (void)!fread(block, 1, static_cast<size_t>(n), file);
    fclose(file);
    return block;
}

int32_t read_file_bytes(const char *path, void *destination, int32_t n)
{
    FILE *file = open_or_report(path, "rb");
    if (file == nullptr)
        return 0;
    const size_t count = n > 0 ? fread(destination, 1, static_cast<size_t>(n), file) : 0;
    fclose(file);
    return static_cast<int32_t>(count);
}

int32_t read_local_text_file(const char *name, char *destination, int32_t capacity)
{
    constexpr size_t PATH_AREA_SIZE = 100;
    if (capacity > 0)
        memset(destination, 0, static_cast<size_t>(capacity));
    char path[PATH_AREA_SIZE] = "./";
    text_append_bounded(path, sizeof path, name);
    FILE *file = fopen(path, "r");
    if (file == nullptr) {
        perror("fopen() faile:");
        return 1;
    }
    // A byte 0xFF reads as the signed value -1 and ends the text like the end of the file.
    for (int32_t stored = 0; stored < capacity; stored++) {
        const auto c = static_cast<signed char>(getc(file));
        if (c == -1)
            break;
        destination[stored] = c;
    }
    fclose(file);
    return 0;
}

int32_t write_text_file(const char *path, const char *text)
{
    return write_file_bytes(path, text, static_cast<int32_t>(strlen(text)));
}

int32_t write_file_bytes(const char *path, const void *bytes, int32_t n)
{
    FILE *file = open_or_report(path, "wb");
    if (file == nullptr)
        return 0;
    const size_t count = n > 0 ? fwrite(bytes, 1, static_cast<size_t>(n), file) : 0;
    fclose(file);
    return static_cast<int32_t>(count);
}

int32_t write_file_at(const char *path, int32_t offset, const void *bytes, int32_t n)
{
    FILE *file = open_or_report(path, "rb+");
    if (file == nullptr)
        return 0;
    fseek(file, offset, SEEK_SET);
    const size_t count = n > 0 ? fwrite(bytes, 1, static_cast<size_t>(n), file) : 0;
    fclose(file);
    return static_cast<int32_t>(count);
}

void make_parent_dirs(const char *path, uint16_t mode)
{
    char *copy = strdup(path);
    for (char *at = copy; *at != '\0'; at++) {
        if (*at != '/')
            continue;
        *at = '\0';
        mkdir(copy, mode);
        *at = '/';
    }
    free(copy);
}

int32_t stat_file(const char *path, struct stat *record)
{
    if (path == nullptr || record == nullptr)
        return -1;
    return stat(path, record) == 0 ? 0 : -2;
}

int32_t format_local_time(char *destination, uint64_t capacity, int64_t time)
{
    const time_t value = static_cast<time_t>(time);
    const struct tm *calendar = localtime(&value);
    if (calendar == nullptr)
        return 0;
    return static_cast<int32_t>(strftime(destination, capacity, "%Y-%m-%d %H:%M:%S", calendar));
}
