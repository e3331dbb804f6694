#include "server/save_list.h"

#include <dirent.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "server/request.h"

namespace {

// Zero-fills `name` and keeps at most its first 255 bytes of `text`.
void set_name(char *name, const char *text)
{
    memset(name, 0, SAVE_NAME_SIZE);
    memcpy(name, text, strnlen(text, SAVE_NAME_SIZE - 1));
}

bool is_dot_entry(const char *name)
{
    return strcmp(name, ".") == 0 || strcmp(name, "..") == 0;
}

// The folder, "/" unless it already ends in one, and the name, built with checked copies: a full
// path over 255 bytes ends the process, a deliberate limit of the listing.
std::string bounded_full_path(const char *folder, const char *name)
{
    const size_t folder_length = strlen(folder);
    const char *separator = folder_length > 0 && folder[folder_length - 1] == '/' ? "" : "/";
    char full_path[SAVE_NAME_SIZE] = {};
    text_copy_bounded(full_path, sizeof full_path, folder);
    text_append_bounded(full_path, sizeof full_path, separator);
    text_append_bounded(full_path, sizeof full_path, name);
    return full_path;
}

void append_entry(SaveList *list, SaveEntry *entry)
{
    entry->prev = list->prev;
    entry->next = nullptr;
    if (list->prev != nullptr)
        list->prev->next = entry;
    else
        list->next = entry;
    list->prev = entry;
}

int32_t read_folder(const char *folder, SaveList *list, bool store_full_path)
{
    if (folder == nullptr || list == nullptr)
        return -1;
    DIR *dir = opendir(folder);
    if (dir == nullptr)
        return -2;
    list->prev = list->next = nullptr;
    list->is_folder = 1;
    set_name(list->name, folder);

    while (const dirent *found = readdir(dir)) {
        if (is_dot_entry(found->d_name))
            continue;
        const std::string full_path = store_full_path ? std::string(folder) + "/" + found->d_name
                                                      : bounded_full_path(folder, found->d_name);
        struct stat status;
        if (stat(full_path.c_str(), &status) != 0) {
            closedir(dir);
            return -3;
        }
        auto *entry = static_cast<SaveEntry *>(malloc(sizeof(SaveEntry)));
        if (entry == nullptr)
            break;
        entry->is_folder = S_ISDIR(status.st_mode) ? 1 : 0;
        set_name(entry->name, store_full_path ? full_path.c_str() : found->d_name);
        append_entry(list, entry);
    }
    closedir(dir);
    return 0;
}

} // namespace

SaveList *save_list_create()
{
    auto *list = static_cast<SaveList *>(malloc(sizeof(SaveList)));
    if (list != nullptr) {
        list->prev = list->next = nullptr;
        list->is_folder = 1;
        list->name[0] = '\0';
    }
    return list;
}

int32_t save_list_read(const char *folder, SaveList *list)
{
    return read_folder(folder, list, false);
}

int32_t save_list_read_paths(const char *folder, SaveList *list)
{
    return read_folder(folder, list, true);
}

void save_list_free(SaveList *list)
{
    while (list != nullptr) {
        SaveEntry *next = list->next;
        list->prev = list->next = nullptr;
        free(list);
        list = next;
    }
}
