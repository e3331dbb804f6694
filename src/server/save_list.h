// The entries of a folder (the game's `save` folder) as a linked list, one level deep.
#pragma once

#include <cstdint>

constexpr int SAVE_NAME_SIZE = 256;

// The head and the entries share one layout. In the head, `prev` is the last entry, `next` the
// first, and `name` the listed folder's path.
struct SaveEntry {
    SaveEntry *prev;
    SaveEntry *next;
    uint8_t is_folder;
    char name[SAVE_NAME_SIZE];
};
using SaveList = SaveEntry;

/// A new empty list head, or null.
SaveList *save_list_create();

/// Appends every entry of `folder` but "." and "..", in directory order, by bare name.
/// 0; -1 for a null argument; -2 when the folder cannot be opened; -3 when an entry's status
/// cannot be read (the entries before it stay). Aborts when an entry's full path exceeds 255 bytes.
int32_t save_list_read(const char *folder, SaveList *list);

/// Like save_list_read, but each entry's `name` holds its full path: folder, "/" (even after a
/// trailing one) and name, cut to 255 bytes.
int32_t save_list_read_paths(const char *folder, SaveList *list);

/// Frees `list` and every record after it; null does nothing.
void save_list_free(SaveList *list);
