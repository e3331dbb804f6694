#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdlib>
#include <cstring>
#include <string>

#include "server/file_io.h"
#include "support/temp_folder.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

TEST(ReadFileInto, ReadsClearsAndReportsAMissingFile)
{
    TempFolder folder;
    folder.write("short", "abc");
    char buffer[8];
    memset(buffer, 'x', sizeof buffer);
    EXPECT_EQ(read_file_into((folder / "short").c_str(), 6, buffer), 0);
    EXPECT_EQ(std::string(buffer, 8), std::string("abc\0\0\0xx", 8)); // the rest of `size` is zero
    EXPECT_EQ(read_file_into((folder / "short").c_str(), 0, buffer), 0);

    CaptureStdout();
    CaptureStderr();
    EXPECT_EQ(read_file_into((folder / "gone").c_str(), 4, buffer), -1);
    EXPECT_EQ(GetCapturedStderr(), "fopen() failed:: No such file or directory\n");
    EXPECT_EQ(GetCapturedStdout(), " " + (folder / "gone") + "\n");
    EXPECT_EQ(buffer[0], 'a'); // untouched
}

TEST(FileHelpers, ReadWriteAndWriteAt)
{
    TempFolder folder;
    const std::string path = folder / "f.bin";
    EXPECT_EQ(write_text_file(path.c_str(), "hello world"), 11);
    EXPECT_EQ(write_file_at(path.c_str(), 6, "WORLD", 5), 5);
    EXPECT_EQ(folder.read("f.bin"), "hello WORLD");

    unsigned char *whole = read_whole_file(path.c_str());
    EXPECT_EQ(std::string(reinterpret_cast<char *>(whole), 11), "hello WORLD");
    free(whole);
    unsigned char *head = read_file_head(path.c_str(), 16);
    EXPECT_EQ(std::string(reinterpret_cast<char *>(head), 16), std::string("hello WORLD\0\0\0\0\0", 16));
    free(head);
    char some[4];
    EXPECT_EQ(read_file_bytes(path.c_str(), some, 4), 4);
    EXPECT_EQ(write_file_bytes(path.c_str(), "\0\1", 2), 2);
    EXPECT_EQ(folder.read("f.bin"), std::string("\0\1", 2));

    CaptureStderr();
    EXPECT_EQ(write_file_at((folder / "missing").c_str(), 0, "x", 1), 0); // "rb+" does not create
    EXPECT_EQ(read_whole_file((folder / "missing").c_str()), nullptr);
    EXPECT_EQ(read_file_bytes((folder / "missing").c_str(), some, 4), 0);
    std::string reason = "fopen: No such file or directory\n";
    EXPECT_EQ(GetCapturedStderr(), reason + reason + reason);
}

TEST(FileHelpers, ReadLocalTextFileStopsAtByteFF)
{
    TempFolder folder;
    WorkingFolder inside(folder.path());
    folder.write("t.txt", "ab\xff" "cd");
    char text[8];
    EXPECT_EQ(read_local_text_file("t.txt", text, sizeof text), 0);
    EXPECT_STREQ(text, "ab");
    EXPECT_EQ(read_local_text_file("t.txt", text, 1), 0);
    EXPECT_EQ(text[0], 'a');

    CaptureStderr();
    EXPECT_EQ(read_local_text_file("missing", text, sizeof text), 1);
    EXPECT_EQ(GetCapturedStderr(), "fopen() faile:: No such file or directory\n");
    EXPECT_DEATH(read_local_text_file(std::string(98, 'n').c_str(), text, sizeof text), "");
}

TEST(FileHelpers, MakeParentDirsStatAndLocalTime)
{
    TempFolder folder;
    WorkingFolder inside(folder.path());
    make_parent_dirs("save/slot1/data.json", 0755);
    make_parent_dirs("other/slot2", 0755);
    EXPECT_TRUE(std::filesystem::is_directory("save/slot1"));
    EXPECT_FALSE(std::filesystem::exists("save/slot1/data.json"));
    EXPECT_TRUE(std::filesystem::is_directory("other"));
    EXPECT_FALSE(std::filesystem::exists("other/slot2"));

    struct stat record;
    EXPECT_EQ(stat_file(nullptr, &record), -1);
    EXPECT_EQ(stat_file("save", nullptr), -1);
    EXPECT_EQ(stat_file("missing", &record), -2);
    EXPECT_EQ(stat_file("save", &record), 0);

    setenv("TZ", "UTC", 1);
    char when[32];
    EXPECT_EQ(format_local_time(when, sizeof when, 86400 + 3661), 19);
    EXPECT_STREQ(when, "1970-01-02 01:01:01");
    EXPECT_EQ(format_local_time(when, 10, 0), 0);
}

} // namespace
