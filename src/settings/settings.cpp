#include "settings/settings.h"

#include <cjson/cJSON.h>
#include <fcntl.h>
#include <unistd.h>

#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr const char *SETTINGS_FILE = "package.json";
constexpr const char *SETTINGS_MEMBER = "varnok";
constexpr size_t READ_SIZE = 4096;

// The parsed tree of the last successful load. main-file and rootdir point into it, so it is
// kept for the life of the process.
cJSON *kept_tree = nullptr;

int32_t number_or_repair(cJSON *root, cJSON *object, const char *key, int32_t fallback)
{
    if (const cJSON *item = cJSON_GetObjectItem(object, key))
        return item->valueint;
    printf("Get varnok %s error, set default: %d\n", key, fallback);
    cJSON_AddNumberToObject(object, key, fallback);
    settings_write(root);
    return fallback;
}

const char *text_or_repair(cJSON *root, cJSON *object, const char *key, const char *fallback)
{
    if (const cJSON *item = cJSON_GetObjectItem(object, key))
        return item->valuestring; // null for a member that is not a string
    printf("Get varnok %s error, set default: %s\n", key, fallback);
    cJSON_AddStringToObject(object, key, fallback);
    settings_write(root);
    return fallback;
}

int create_default_file(ServerSettings *out)
{
    perror("Open package.json fail");
    printf("I will create the file and use the default value\n");
    settings_write_defaults(nullptr);
    printf("Create success\n");
    settings_set_defaults(out);
    return 0;
}

} // namespace

void settings_set_defaults(ServerSettings *out)
{
    out->port = SETTINGS_DEFAULT_PORT;
    out->buffer_size = SETTINGS_DEFAULT_BUFFER_SIZE;
    out->main_file = SETTINGS_DEFAULT_MAIN_FILE;
    out->rootdir = SETTINGS_DEFAULT_ROOTDIR;
}

void settings_write(const cJSON *root)
{
    char *text = cJSON_Print(root);
    FILE *file = fopen(SETTINGS_FILE, "wb");
    // Start-up cannot go on with a settings file it cannot write.
    if (file == nullptr)
        abort();
    fwrite(text, 1, strlen(text), file);
    free(text);
    fclose(file);
    printf("Write done\n");
}

void settings_write_defaults(cJSON *root)
{
    if (root == nullptr)
        root = cJSON_CreateObject();
    cJSON *object = cJSON_CreateObject();
    cJSON_AddNumberToObject(object, "port", SETTINGS_DEFAULT_PORT);
    cJSON_AddNumberToObject(object, "buffer-size", SETTINGS_DEFAULT_BUFFER_SIZE);
    cJSON_AddStringToObject(object, "main-file", SETTINGS_DEFAULT_MAIN_FILE);
    cJSON_AddStringToObject(object, "rootdir", SETTINGS_DEFAULT_ROOTDIR);
    cJSON_AddItemToObject(root, SETTINGS_MEMBER, object);
    settings_write(root);
    cJSON_Delete(root);
}

int settings_load(ServerSettings *out)
{
    const int descriptor = open(SETTINGS_FILE, O_RDWR);
    if (descriptor < 0)
        return create_default_file(out);

    // One read of at most 4096 bytes; the extra byte keeps a full read terminated.
    std::array<char, READ_SIZE + 1> text{};
    if (read(descriptor, text.data(), READ_SIZE) == -1) {
        perror("Read package.json error, I will use the default value\n");
        return -1;
    }
    lseek(descriptor, 0, SEEK_SET); // the descriptor stays open for the life of the process

    if (text[0] == '\0') {
        printf("File package.json exists but zero bytes\n");
        printf("I will write the file with default value\n");
        settings_write_defaults(nullptr);
        return -1;
    }
    cJSON *root = cJSON_Parse(text.data());
    if (root == nullptr) {
        printf("Parse package.json error, I will use the default value\n");
        return -1;
    }
    cJSON *object = cJSON_GetObjectItem(root, SETTINGS_MEMBER);
    if (object == nullptr) {
        printf("Get varnok object error, I will write one with default value\n");
        settings_write_defaults(root);
        return -1;
    }
    if (!cJSON_IsObject(object)) {
        object = cJSON_CreateObject();
        printf("varnok is not object, I will overwrite it with object\n");
        cJSON_ReplaceItemInObject(root, SETTINGS_MEMBER, object);
    }
    out->port = number_or_repair(root, object, "port", SETTINGS_DEFAULT_PORT);
    out->buffer_size = number_or_repair(root, object, "buffer-size", SETTINGS_DEFAULT_BUFFER_SIZE);
    out->main_file = text_or_repair(root, object, "main-file", SETTINGS_DEFAULT_MAIN_FILE);
    out->rootdir = text_or_repair(root, object, "rootdir", SETTINGS_DEFAULT_ROOTDIR);
    kept_tree = root;
    return 0;
}

void settings_release()
{
    cJSON_Delete(kept_tree);
    kept_tree = nullptr;
}
