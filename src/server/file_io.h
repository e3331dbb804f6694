// File helpers over buffered streams: one open per call, failures reported with perror.
#pragma once

#include <cstdint>

struct stat;

/// Clears `size` bytes of `destination` and reads the file into it with one read.
/// 0 once the file opened (whatever the read yields), -1 when it could not be opened.
int32_t read_file_into(const char *path, uint64_t size, void *destination);

/// The whole file in a new heap block (its length is not returned), or null.
unsigned char *read_whole_file(const char *path);

/// A new zeroed heap block of `n` bytes holding the file's first bytes, or null.
unsigned char *read_file_head(const char *path, int32_t n);

/// Reads up to `n` bytes into `destination`; the count read, 0 when the file could not be opened.
int32_t read_file_bytes(const char *path, void *destination, int32_t n);

/// Reads "./" followed by `name` as text into `destination`, stopping at the end, at a 0xFF byte
/// or after `capacity` characters. 0, or 1 when the file could not be opened.
int32_t read_local_text_file(const char *name, char *destination, int32_t capacity);

/// Writes `text` without its terminator, creating or emptying the file; the count written.
int32_t write_text_file(const char *path, const char *text);

/// Writes `n` bytes, creating or emptying the file; the count written.
int32_t write_file_bytes(const char *path, const void *bytes, int32_t n);

/// Writes `n` bytes at `offset` into an existing file without shortening it; the count written.
int32_t write_file_at(const char *path, int32_t offset, const void *bytes, int32_t n);

/// Creates every folder named by a prefix of `path` that ends before a "/"; failures are silent.
void make_parent_dirs(const char *path, uint16_t mode);

/// 0, -1 for a null argument, -2 when the status lookup fails.
int32_t stat_file(const char *path, struct stat *record);

/// Local time as "%Y-%m-%d %H:%M:%S"; the characters written, 0 when it did not fit.
int32_t format_local_time(char *destination, uint64_t capacity, int64_t time);
