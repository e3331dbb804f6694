#include <gtest/gtest.h>
#include <sys/stat.h>

#include <array>
#include <cstdlib>
#include <string>

#include "server/file_io.h"
#include "support/heap_text.h"
#include "support/temp_folder.h"

TEST(FileHelpers, ReadWriteReportFoldersStatusAndLocalTime)
{
    TempFolder folder;
    WorkingFolder inside(folder.path());
    folder.write("short", "abc");
    char buffer[8] = "xxxxxxx";
    EXPECT_EQ(read_file_into("short", 6, buffer), 0);
    EXPECT_EQ(std::string(buffer, 8), std::string("abc\0\0\0x", 8)); // the rest of `size` is zero
    EXPECT_EQ(read_file_bytes("short", buffer, 8), 3);

    EXPECT_EQ(write_text_file("f.bin", "hello world"), 11);
    EXPECT_EQ(write_file_at("f.bin", 6, "WORLD", 5), 5);
    EXPECT_EQ(taken(read_whole_file("f.bin"), 11), "hello WORLD");
    EXPECT_EQ(taken(read_file_head("f.bin", 5), 5), "hello");
    EXPECT_EQ(write_file_bytes("f.bin", "\0\1", 2), 2);
    EXPECT_EQ(folder.read("f.bin"), std::string("\0\1", 2));

    folder.write("t.txt", "ab\xff" "cd");
    EXPECT_EQ(read_local_text_file("t.txt", buffer, sizeof buffer), 0);
    EXPECT_STREQ(buffer, "ab"); // a byte 0xFF ends the text
    EXPECT_EQ(read_local_text_file("t.txt", buffer, 1), 0);
    EXPECT_EQ(buffer[0], 'a');
    EXPECT_DEATH(read_local_text_file(std::string(98, 'n').c_str(), buffer, sizeof buffer), "");

    // Failed opens: "rb+" does not create; perror adds ": " and the reason after each prefix.
    testing::internal::CaptureStdout();
    testing::internal::CaptureStderr();
    const std::array<int32_t, 3> results{read_file_into("gone", 4, buffer), write_file_at("gone", 0, "x", 1),
                                         read_local_text_file("gone", buffer, 0)};
    EXPECT_EQ(testing::internal::GetCapturedStdout(), " gone\n");
    const std::string gone = ": No such file or directory\n";
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "fopen() failed:" + gone + "fopen" + gone + "fopen() faile:" + gone);
    EXPECT_EQ(results, (std::array<int32_t, 3>{-1, 0, 1}));
    EXPECT_STREQ(buffer, "ab"); // untouched

    make_parent_dirs("save/slot1/data.json", 0755);
    EXPECT_TRUE(std::filesystem::is_directory("save/slot1"));
    EXPECT_FALSE(std::filesystem::exists("save/slot1/data.json"));
    struct stat record;
    const std::array<int32_t, 4> statuses{stat_file(nullptr, &record), stat_file("save", nullptr),
                                          stat_file("missing", &record), stat_file("save", &record)};
    EXPECT_EQ(statuses, (std::array<int32_t, 4>{-1, -1, -2, 0}));

    setenv("TZ", "UTC", 1);
    char when[32];
    EXPECT_EQ(format_local_time(when, sizeof when, 86400 + 3661), 19);
    EXPECT_STREQ(when, "1970-01-02 01:01:01");
}
