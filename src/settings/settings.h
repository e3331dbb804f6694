// Settings: the `varnok` member of package.json in the working folder.
#pragma once

#include <cstdint>

struct cJSON;

struct ServerSettings {
    int32_t port;
    int32_t buffer_size;
    const char *main_file;
    const char *rootdir;
};

constexpr int32_t SETTINGS_DEFAULT_PORT = 1010;
constexpr int32_t SETTINGS_DEFAULT_BUFFER_SIZE = 1000;
constexpr const char *SETTINGS_DEFAULT_MAIN_FILE = "index.html";
constexpr const char *SETTINGS_DEFAULT_ROOTDIR = "./";

/// Reads package.json, creating or repairing it; 0 when `out` holds usable settings, -1 otherwise.
int settings_load(ServerSettings *out);

/// Stores the four defaults in `out`.
void settings_set_defaults(ServerSettings *out);

/// Adds a default `varnok` object to `root` (a new object when null), writes the file, deletes `root`.
void settings_write_defaults(cJSON *root);

/// Prints `root` to package.json and says "Write done"; aborts when the file cannot be opened.
void settings_write(const cJSON *root);

/// Frees the tree of the last successful load. The server keeps it for the life of the process;
/// only tests, which load repeatedly, release it.
void settings_release();
