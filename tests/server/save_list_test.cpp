#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>
#include <vector>

#include "server/save_list.h"
#include "support/temp_folder.h"

namespace {

struct Listing {
    int32_t result;
    std::vector<std::string> names; // sorted; directory order is not promised
    std::vector<std::string> folders;
};

Listing list_folder(const std::string &folder, bool full_paths = false)
{
    SaveList *list = save_list_create();
    Listing out{full_paths ? save_list_read_paths(folder.c_str(), list) : save_list_read(folder.c_str(), list), {}, {}};
    for (const SaveEntry *entry = list->next; entry; entry = entry->next) {
        out.names.push_back(entry->name);
        if (entry->is_folder)
            out.folders.push_back(entry->name);
    }
    save_list_free(list);
    std::sort(out.names.begin(), out.names.end());
    return out;
}

TEST(SaveList, ListsOneLevelWithFolderFlags)
{
    TempFolder folder;
    folder.write("save/slot1.json", "{}");
    folder.write("save/.hidden", "");
    folder.write("save/sub/inner.json", "");
    const std::vector<std::string> expected{".hidden", "slot1.json", "sub"};
    for (const std::string &path : {folder / "save", folder / "save/"}) {
        Listing listing = list_folder(path);
        EXPECT_EQ(listing.result, 0);
        EXPECT_EQ(listing.names, expected);
        EXPECT_EQ(listing.folders, std::vector<std::string>{"sub"});
    }
}

TEST(SaveList, ReportsEmptyMissingPlainFileAndDanglingLink)
{
    TempFolder folder;
    std::filesystem::create_directory(folder / "empty");
    folder.write("plain", "x");
    EXPECT_EQ(list_folder(folder / "empty").result, 0);
    EXPECT_TRUE(list_folder(folder / "empty").names.empty());
    EXPECT_EQ(list_folder(folder / "missing").result, -2);
    EXPECT_EQ(list_folder(folder / "plain").result, -2);
    EXPECT_EQ(save_list_read(nullptr, nullptr), -1);

    folder.write("save/real.json", "");
    ASSERT_EQ(symlink("nowhere", (folder / "save/dangling").c_str()), 0);
    Listing listing = list_folder(folder / "save");
    EXPECT_EQ(listing.result, -3);
    EXPECT_LE(listing.names.size(), 1u); // the entries before the link stay
}

TEST(SaveListDeathTest, LongNamesAreKeptUpToTheFullPathLimit)
{
    TempFolder folder;
    WorkingFolder inside(folder.path());
    const std::string longest_that_fits(253, 'n'); // "s/" + 253 bytes = 255
    folder.write("s/" + longest_that_fits, "");
    EXPECT_EQ(list_folder("s").names, std::vector<std::string>{longest_that_fits});

    // A name of 255 bytes (the most a folder entry can have) makes a full path over 255 bytes.
    // The full-path listing always puts "/" between folder and name and cuts what does not fit.
    const std::string longest(255, 'm');
    folder.write("s/" + longest, "");
    const std::vector<std::string> cut{("s//" + longest).substr(0, 255), ("s//" + longest_that_fits).substr(0, 255)};
    EXPECT_EQ(list_folder("s/", true).names, cut);
    EXPECT_DEATH(list_folder("s"), "buffer overflow detected");
}

} // namespace
