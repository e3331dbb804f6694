#include <gtest/gtest.h>
#include <unistd.h>

#include <optional>
#include <string>

#include "settings/settings.h"
#include "support/temp_folder.h"

// The file as written: the root's members before `varnok`, the `varnok` object with its port and the three
// other members, then the root's members after it.
static std::string written_file(const std::string &before, const std::string &port, const std::string &after = "")
{
    return "{\n" + before + "\t\"varnok\":\t{\n\t\t\"port\":\t" + port +
           ",\n\t\t\"buffer-size\":\t1000,\n\t\t\"main-file\":\t\"index.html\",\n\t\t\"rootdir\":\t\"./\"\n\t}" +
           after + "\n}";
}
static const std::string WRITE = "Write done\n", DEFAULT_FILE = written_file("", "1010"),
    EMPTY_FILE = "File package.json exists but zero bytes\nI will write the file with default value\n" + WRITE,
    PARSE_ERROR = "Parse package.json error, I will use the default value\n",
    OTHER_KEYS = "Get varnok buffer-size error, set default: 1000\n" + WRITE +
                 "Get varnok main-file error, set default: index.html\n" + WRITE +
                 "Get varnok rootdir error, set default: ./\n" + WRITE,
    // Taken whole only when it ends within the first 4096 bytes of the file.
    VARIED_KEYS = "{\"Varnok\":{\"PORT\":70000,\"port\":1,\"Buffer-Size\":8080.9,\"Main-File\":\"m\",\"RootDir\":\"w/\"}}";

TEST(SettingsLoad, EveryStartingPointOfThePackageFile)
{
    // The file (none: no file at all) and the file after (none: unchanged); what is printed, the result then
    // the record, and what goes to standard error.
    const struct { std::optional<std::string> content, file_after;
                   std::string out, outcome = "-1: -7 -7 untouched untouched", err = ""; } rows[] = {
        {std::nullopt, DEFAULT_FILE, "I will create the file and use the default value\n" + WRITE + "Create success\n",
         "0: 1010 1000 index.html ./", "Open package.json fail: No such file or directory\n"},
        {"", DEFAULT_FILE, EMPTY_FILE}, {std::string("\0{}", 3), DEFAULT_FILE, EMPTY_FILE},
        {"port=8080", std::nullopt, PARSE_ERROR},
        {"{ \"name\" : \"game\", \"n\": 1.50 }", written_file("\t\"name\":\t\"game\",\n\t\"n\":\t1.5,\n", "1010"),
         "Get varnok object error, I will write one with default value\n" + WRITE},
        // The new object takes the old member's place among the others.
        {"{\"a\":1,\"VARNOK\": 5,\"z\":2}", written_file("\t\"a\":\t1,\n", "1010", ",\n\t\"z\":\t2"),
         "varnok is not object, I will overwrite it with object\n"
         "Get varnok port error, set default: 1010\n" + WRITE + OTHER_KEYS, "0: 1010 1000 index.html ./"},
        {"{\"varnok\":{\"port\":8080}}", written_file("", "8080"), OTHER_KEYS, "0: 8080 1000 index.html ./"},
        {"{\"varnok\":{\"port\":\"8080\",\"buffer-size\":true,\"main-file\":3,\"rootdir\":\"\"}} tail", std::nullopt, "",
         "0: 0 1 <null> "},
        {std::string(4096 - VARIED_KEYS.size(), ' ') + VARIED_KEYS, std::nullopt, "", "0: 70000 8080 m w/"},
        {std::string(4097 - VARIED_KEYS.size(), ' ') + VARIED_KEYS, std::nullopt, PARSE_ERROR},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE("row " + std::to_string(&row - rows));
        TempFolder folder;
        WorkingFolder inside(folder.path());
        if (row.content)
            folder.write("package.json", *row.content);
        ServerSettings out{-7, -7, "untouched", "untouched"};
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        const int result = settings_load(&out);
        EXPECT_EQ(testing::internal::GetCapturedStdout(), row.out);
        EXPECT_EQ(testing::internal::GetCapturedStderr(), row.err);
        EXPECT_EQ(std::to_string(result) + ": " + std::to_string(out.port) + " " + std::to_string(out.buffer_size) +
                      " " + (out.main_file ? out.main_file : "<null>") + " " + (out.rootdir ? out.rootdir : "<null>"),
                  row.outcome);
        EXPECT_EQ(folder.read("package.json"), row.file_after.value_or(row.content.value_or("")));
        settings_release();
    }
}

TEST(SettingsLoadDeathTest, AFailedReadKeepsTheDefaultsAndAnUnwritableFileEndsStartUp)
{
    TempFolder folder;
    WorkingFolder inside(folder.path());
    ASSERT_EQ(symlink("/proc/self/mem", "package.json"), 0); // opens, but reading at address 0 fails
    ServerSettings out{};
    testing::internal::CaptureStderr();
    EXPECT_EQ(settings_load(&out), -1);
    EXPECT_EQ(testing::internal::GetCapturedStderr(),
              "Read package.json error, I will use the default value\n: Input/output error\n");

    std::filesystem::remove("package.json");
    std::filesystem::create_directory("package.json");
    EXPECT_DEATH(settings_load(&out), "Open package.json fail: Is a directory");
}
