// The launcher's pure parts: its options, what reaches the terminal, the pause between quick ends, and
// the rule for the links and folders on the way to the folder served.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "serve/serve.h"

namespace {

struct OptionsCase {
    std::vector<const char *> argv;
    int result;
    const char *expected;       // the folder, or the error
    bool https;
    int https_port;
    ServeTask task;
};

TEST(ServeOptions, Table)
{
    const OptionsCase cases[] = {
        {{}, 0, ".", false, 0, SERVE_TASK_RUN},
        {{"game"}, 0, "game", false, 0, SERVE_TASK_RUN},
        {{"--", "-dash"}, 0, "-dash", false, 0, SERVE_TASK_RUN},
        {{"-"}, 0, "-", false, 0, SERVE_TASK_RUN},
        {{"--https", "game"}, 0, "game", true, 0, SERVE_TASK_RUN},
        {{"--https", "--https-port", "8443", "game"}, 0, "game", true, 8443, SERVE_TASK_RUN},
        {{"game", "--https"}, 0, "game", true, 0, SERVE_TASK_RUN},
        {{"--help"}, 0, ".", false, 0, SERVE_TASK_HELP},
        {{"-h"}, 0, ".", false, 0, SERVE_TASK_HELP},
        {{"--version"}, 0, ".", false, 0, SERVE_TASK_VERSION},
        {{"--help", "game"}, -1, "--help takes no argument", false, 0, SERVE_TASK_RUN},
        {{"--https-port", "8443"}, -1, "--https-port goes with --https", false, 0, SERVE_TASK_RUN},
        {{"--https", "--https-port", "65535"}, -1, "--https-port takes a port from 1 to 65534", false, 0, SERVE_TASK_RUN},
        {{"--https", "--https-port", "0"}, -1, "--https-port takes a port from 1 to 65534", false, 0, SERVE_TASK_RUN},
        {{"--https", "--https-port", "84x"}, -1, "--https-port takes a port from 1 to 65534", false, 0, SERVE_TASK_RUN},
        {{"--https", "--https-port"}, -1, "--https-port takes a port from 1 to 65534", false, 0, SERVE_TASK_RUN},
        {{"a", "b"}, -1, "one folder at most (see varnok-serve --help)", false, 0, SERVE_TASK_RUN},
        {{"--root"}, -1, "unknown option --root (see varnok-serve --help)", false, 0, SERVE_TASK_RUN},
    };
    for (const OptionsCase &row : cases) {
        std::vector<const char *> argv{"varnok-serve"};
        argv.insert(argv.end(), row.argv.begin(), row.argv.end());
        SCOPED_TRACE(argv.size() > 1 ? argv[1] : "(none)");
        ServeOptions options{};
        std::string error;
        ASSERT_EQ(serve_options_parse(static_cast<int>(argv.size()), argv.data(), &options, &error), row.result);
        if (row.result != 0) {
            EXPECT_EQ(error, row.expected);
            continue;
        }
        EXPECT_EQ(options.folder, row.expected);
        EXPECT_EQ(options.https, row.https);
        EXPECT_EQ(options.https_port, row.https_port);
        EXPECT_EQ(options.task, row.task);
    }
}

TEST(ServeShown, OnlyTextAndTheDrawingsColoursReachTheTerminal)
{
    const std::pair<std::string, std::string> cases[] = {
        {"plain text\twith a tab", "plain text\twith a tab"},
        {"\033[37;47m__\033[m\033[30;40m..\033[0m", "\033[37;47m__\033[m\033[30;40m..\033[0m"},
        {"\033[38;5;16;48;5;231m\xe2\x96\x80\033[0m", "\033[38;5;16;48;5;231m\xe2\x96\x80\033[0m"},
        {"\033[8mhidden", "\\x1b[8mhidden"},                         // conceal
        {"\033[5m\033[7m", "\\x1b[5m\\x1b[7m"},                      // blink, reverse
        {"\033[38;2;1;2;3m", "\\x1b[38;2;1;2;3m"},                   // true colour
        {"\033[38;5;256m", "\\x1b[38;5;256m"},
        {"\033[2J\033]52;c;Zm9v\007", "\\x1b[2J\\x1b]52;c;Zm9v\\x07"},
        {"a\rb\bc\x7f" "d", "a\\x0db\\x08c\\x7fd"},
        {"line\nnext", "line\\x0anext"},
        {std::string("nul\0x", 5), "nul\\x00x"},
        {"\x9b" "2J", "\\x9b2J"},                                   // 8-bit CSI
        {"\xc2\x9b" "2J", "\\xc2\\x9b2J"},                          // C1 in UTF-8
        {"\xc2\x85", "\\xc2\\x85"},
        {"caf\xc3\xa9 \xe2\x80\xba \xf0\x9f\x8e\xae", "caf\xc3\xa9 \xe2\x80\xba \xf0\x9f\x8e\xae"},
        {"\xe0\x80\x9b", "\xe0\\x80\\x9b"},                          // overlong: its C1-range bytes written out
        {"\xa0\xff", "\xa0\xff"},
        {"\033", "\\x1b"},
        {"\033[", "\\x1b["},
    };
    for (const auto &[text, expected] : cases) {
        SCOPED_TRACE(expected);
        std::string out;
        serve_shown(text, &out);
        EXPECT_EQ(out, expected);
    }
}

TEST(ServePause, GrowsAndStaysShort)
{
    const std::pair<int, int> cases[] = {{0, 0}, {1, 0}, {2, 25}, {3, 25}, {1000, 25}};
    for (const auto &[quick_ends, pause] : cases)
        EXPECT_EQ(serve_pause_ms(quick_ends), pause) << quick_ends << " quick ends";
}

TEST(ServeFollow, AddedAddressesSoonLossesAndNewOrdersLater)
{
    struct FollowCase {
        std::vector<const char *> served, now;
        ServeFollow follow;
    };
    const FollowCase cases[] = {
        {{"192.168.1.20"}, {"192.168.1.20"}, SERVE_FOLLOW_NONE},
        {{}, {}, SERVE_FOLLOW_NONE},
        {{"192.168.1.20"}, {"192.168.1.20", "10.20.30.77"}, SERVE_FOLLOW_SOON},
        {{"192.168.1.20"}, {"10.20.30.77"}, SERVE_FOLLOW_SOON},
        {{}, {"192.168.1.20"}, SERVE_FOLLOW_SOON},
        {{"192.168.1.20", "10.20.30.77"}, {"192.168.1.20"}, SERVE_FOLLOW_LATER},
        {{"192.168.1.20"}, {}, SERVE_FOLLOW_LATER},
        {{"192.168.1.20", "10.20.30.77"}, {"10.20.30.77", "192.168.1.20"}, SERVE_FOLLOW_LATER},
        {{"192.168.1.2", "10.0.0.1"}, {"192.168.1.20", "10.0.0.1"}, SERVE_FOLLOW_SOON},
    };
    for (const FollowCase &row : cases)
        EXPECT_EQ(serve_follow(row.served.data(), static_cast<int>(row.served.size()), row.now.data(),
                               static_cast<int>(row.now.size())), row.follow)
            << (row.served.empty() ? "none" : row.served[0]) << " -> " << (row.now.empty() ? "none" : row.now[0]);
}

TEST(ServePathRule, EveryStepIsRootsOrTheServingUsers)
{
    constexpr uid_t player = 1000, other = 1001;
    constexpr mode_t folder = S_IFDIR, link = S_IFLNK;
    struct RuleCase {
        const char *name;
        std::vector<PathStep> steps;
        int bad;
        uid_t serving = player;
    };
    const RuleCase cases[] = {
        {"all root's, then the player's", {{"/", 0, folder | 0755}, {"/home", 0, folder | 0755},
                                           {"/home/player", player, folder | 0700}, {"/home/player/game", player, folder | 0755}}, -1},
        {"a folder of another user", {{"/", 0, folder | 0755}, {"/home/other", other, folder | 0755},
                                      {"/home/other/game", player, folder | 0755}}, 1},
        {"the player's link into another's home", {{"/", 0, folder | 0755}, {"/home/player", player, folder | 0755},
                                                   {"/home/player/game", player, link | 0777}, {"/", 0, folder | 0755},
                                                   {"/home", 0, folder | 0755}, {"/home/other", other, folder | 0700}}, 1,
         other},
        {"another's link", {{"/", 0, folder | 0755}, {"/srv/game", other, link | 0777}, {"/srv/real", player, folder | 0755}}, 1},
        {"root's sticky /tmp", {{"/", 0, folder | 0755}, {"/tmp", 0, folder | 01777}, {"/tmp/game", player, folder | 0755}}, -1},
        {"a folder all may write", {{"/", 0, folder | 0755}, {"/srv", 0, folder | 0777}, {"/srv/game", player, folder | 0755}}, 1},
        {"the player's folder its group may write", {{"/", 0, folder | 0755}, {"/g", player, folder | 0775}}, 1},
        {"the player's sticky folder all may write", {{"/", 0, folder | 0755}, {"/g", player, folder | 01777}}, 1},
        {"a link's own mode does not count", {{"/", 0, folder | 0755}, {"/g", player, link | 0777}}, -1},
        {"another user's folder on the way to theirs", {{"/", 0, folder | 0755}, {"/home/other", other, folder | 0755},
                                                        {"/home/other/game", other, folder | 0755}}, -1},
        {"a third user's link to theirs", {{"/", 0, folder | 0755}, {"/srv/game", 1002, link | 0777},
                                           {"/home/other/game", other, folder | 0755}}, 1},
    };
    for (const RuleCase &row : cases)
        EXPECT_EQ(serve_path_rule(row.steps, row.serving), row.bad) << row.name;
}

} // namespace
