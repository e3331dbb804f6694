#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>

#include <set>
#include <string>

#include "server/save_list.h"
#include "support/temp_folder.h"

// "result:" and the names, sorted as directory order is not promised; a folder's name ends in "/".
static std::string list_folder(const std::string &folder, bool full_paths = false)
{
    SaveList *list = save_list_create();
    const int32_t result = (full_paths ? save_list_read_paths : save_list_read)(folder.c_str(), list);
    std::set<std::string> names;
    for (const SaveEntry *entry = list->next; entry; entry = entry->next) {
        EXPECT_EQ(entry->prev ? entry->prev->next : list->next, entry); // linked both ways
        names.insert(entry->name + std::string(entry->is_folder ? "/" : ""));
    }
    EXPECT_EQ(std::string(list->name), result == -2 ? "" : folder); // the head holds the folder's path
    save_list_free(list);
    std::string text = std::to_string(result) + ":";
    for (const std::string &name : names)
        text += " " + name;
    return text;
}

TEST(SaveListDeathTest, ListsOneLevelByBareNameUpToTheFullPathLimitOrSaysWhyNot)
{
    TempFolder folder;
    for (const char *file : {"save/slot1.json", "save/.hidden", "save/sub/inner.json", "plain", "links/real.json"})
        folder.write(file, "");
    std::filesystem::create_directory(folder / "empty");
    const std::pair<const char *, const char *> cases[] = {
        {"save", "0: .hidden slot1.json sub/"}, {"save/", "0: .hidden slot1.json sub/"},
        {"empty", "0:"}, {"missing", "-2:"}, {"plain", "-2:"}};
    for (auto [name, listing] : cases)
        EXPECT_EQ(list_folder(folder / name), listing);
    EXPECT_EQ(save_list_read(nullptr, nullptr), -1);

    ASSERT_EQ(symlink("nowhere", (folder / "links/dangling").c_str()), 0);
    const std::string partial = list_folder(folder / "links"); // the entries read before the link stay
    EXPECT_TRUE(partial == "-3:" || partial == "-3: real.json") << partial;

    WorkingFolder inside(folder.path());
    // Folder, "/" (not doubled after a folder that ends in one) and name: 255 bytes fit, 256 end the process.
    const std::pair<const char *, size_t> bounds[] = {{"a", 253}, {"b/", 253}, {"c", 254}, {"d/", 254}, {"e", 255}};
    for (auto [in, name_length] : bounds) {
        const std::string name(name_length, 'n');
        folder.write(std::string(in).substr(0, 1) + "/" + name, "");
        if (name_length == 253)
            EXPECT_EQ(list_folder(in), "0: " + name) << in;
        else
            EXPECT_EXIT(list_folder(in), testing::KilledBySignal(SIGABRT), "buffer overflow detected") << in;
    }
    // The full-path listing always puts "/" between folder and name and cuts what does not fit.
    const std::string fits(253, 'n'), longest(255, 'm');
    folder.write("s/" + fits, "");
    folder.write("s/" + longest, "");
    EXPECT_EQ(list_folder("s/", true), "0: " + ("s//" + longest).substr(0, 255) + " " + ("s//" + fits).substr(0, 255));
}
