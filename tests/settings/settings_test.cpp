#include <gtest/gtest.h>
#include <unistd.h>

#include <optional>
#include <string>

#include "settings/settings.h"
#include "support/temp_folder.h"

namespace {

using testing::internal::CaptureStderr;
using testing::internal::CaptureStdout;
using testing::internal::GetCapturedStderr;
using testing::internal::GetCapturedStdout;

std::string varnok_file(const std::string &before, const std::string &members)
{
    return "{\n" + before + "\t\"varnok\":\t{\n" + members + "\n\t}\n}";
}
const std::string DEFAULT_MEMBERS =
    "\t\t\"port\":\t1010,\n\t\t\"buffer-size\":\t1000,\n\t\t\"main-file\":\t\"index.html\",\n\t\t\"rootdir\":\t\"./\"";
const std::string DEFAULT_FILE = varnok_file("", DEFAULT_MEMBERS);
const std::string WRITE = "Write done\n";
const std::string MISSING_KEYS = "Get varnok port error, set default: 1010\n" + WRITE +
                                 "Get varnok buffer-size error, set default: 1000\n" + WRITE +
                                 "Get varnok main-file error, set default: index.html\n" + WRITE +
                                 "Get varnok rootdir error, set default: ./\n" + WRITE;

struct Row {
    const char *name;
    std::optional<std::string> content; // none: no file at all
    std::string out, err;
    std::optional<std::string> file_after; // none: unchanged
    int result;
    ServerSettings settings; // checked when the result is 0; a null text is compared as null
};

const ServerSettings DEFAULTS{1010, 1000, "index.html", "./"};

TEST(SettingsLoad, EveryStartingPointOfThePackageFile)
{
    const Row rows[] = {
        {"missing", std::nullopt, "I will create the file and use the default value\n" + WRITE + "Create success\n",
         "Open package.json fail: No such file or directory\n", DEFAULT_FILE, 0, DEFAULTS},
        {"zero bytes", "", "File package.json exists but zero bytes\nI will write the file with default value\n" + WRITE,
         "", DEFAULT_FILE, -1, {}},
        {"first byte NUL", std::string("\0{}", 3),
         "File package.json exists but zero bytes\nI will write the file with default value\n" + WRITE, "",
         DEFAULT_FILE, -1, {}},
        {"not JSON", "port=8080", "Parse package.json error, I will use the default value\n", "", std::nullopt, -1, {}},
        {"only white space", " \n\t", "Parse package.json error, I will use the default value\n", "", std::nullopt, -1, {}},
        {"empty object", "{}", "Get varnok object error, I will write one with default value\n" + WRITE, "",
         DEFAULT_FILE, -1, {}},
        {"other member kept", "{ \"name\" : \"game\", \"n\": 1.50 }",
         "Get varnok object error, I will write one with default value\n" + WRITE, "",
         varnok_file("\t\"name\":\t\"game\",\n\t\"n\":\t1.5,\n", DEFAULT_MEMBERS), -1, {}},
        {"member not an object", "{\"VARNOK\": 5}", "varnok is not object, I will overwrite it with object\n" + MISSING_KEYS,
         "", DEFAULT_FILE, 0, DEFAULTS},
        {"some keys missing", "{\"varnok\":{\"port\":8080}}",
         "Get varnok buffer-size error, set default: 1000\n" + WRITE +
             "Get varnok main-file error, set default: index.html\n" + WRITE +
             "Get varnok rootdir error, set default: ./\n" + WRITE,
         "", varnok_file("", "\t\t\"port\":\t8080," + DEFAULT_MEMBERS.substr(DEFAULT_MEMBERS.find('\n'))), 0,
         {8080, 1000, "index.html", "./"}},
        {"keys in any case", "{\"Varnok\":{\"PORT\":1,\"Buffer-Size\":2,\"Main-File\":\"m.html\",\"RootDir\":\"www/\"}}",
         "", "", std::nullopt, 0, {1, 2, "m.html", "www/"}},
        {"values of other types", "{\"varnok\":{\"port\":\"8080\",\"buffer-size\":true,\"main-file\":3,\"rootdir\":\"\"}}",
         "", "", std::nullopt, 0, {0, 1, nullptr, ""}},
        {"fractions, large numbers, duplicates, trailing text",
         "{\"varnok\":{\"port\":70000,\"port\":1,\"buffer-size\":8080.9,\"main-file\":\"a\",\"rootdir\":\"b\"}} tail",
         "", "", std::nullopt, 0, {70000, 8080, "a", "b"}},
        {"only the first 4096 bytes",
         "{\"varnok\":{\"port\":1,\"buffer-size\":2,\"main-file\":\"a\",\"rootdir\":\"b\"}}" + std::string(5000, ' '),
         "", "", std::nullopt, 0, {1, 2, "a", "b"}},
    };
    for (const Row &row : rows) {
        SCOPED_TRACE(row.name);
        TempFolder folder;
        WorkingFolder inside(folder.path());
        if (row.content)
            folder.write("package.json", *row.content);
        ServerSettings out{-7, -7, "untouched", "untouched"};
        CaptureStdout();
        CaptureStderr();
        const int result = settings_load(&out);
        EXPECT_EQ(GetCapturedStdout(), row.out);
        EXPECT_EQ(GetCapturedStderr(), row.err);
        EXPECT_EQ(result, row.result);
        EXPECT_EQ(folder.read("package.json"), row.file_after.value_or(row.content.value_or("")));
        const ServerSettings &want = row.result == 0 ? row.settings : ServerSettings{-7, -7, "untouched", "untouched"};
        EXPECT_EQ(out.port, want.port);
        EXPECT_EQ(out.buffer_size, want.buffer_size);
        EXPECT_STREQ(out.main_file, want.main_file);
        EXPECT_STREQ(out.rootdir, want.rootdir);
        settings_release();
    }
}

TEST(SettingsLoad, AFailedReadKeepsTheDefaults)
{
    // Reading the process's own memory at address 0 fails after a successful open.
    TempFolder folder;
    WorkingFolder inside(folder.path());
    ASSERT_EQ(symlink("/proc/self/mem", "package.json"), 0);
    ServerSettings out{};
    CaptureStderr();
    EXPECT_EQ(settings_load(&out), -1);
    EXPECT_EQ(GetCapturedStderr(), "Read package.json error, I will use the default value\n: Input/output error\n");
}

TEST(SettingsLoadDeathTest, AnUnwritableFileEndsStartUp)
{
    TempFolder folder;
    WorkingFolder inside(folder.path());
    std::filesystem::create_directory("package.json");
    ServerSettings out{};
    EXPECT_DEATH(settings_load(&out), "Open package.json fail: Is a directory");
}

} // namespace
