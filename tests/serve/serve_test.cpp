// The launcher's pure parts: its options, what reaches the terminal, the pause between quick ends, and
// the rule for the links and folders on the way to the folder served.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <tuple>
#include <vector>

#include "serve/serve.h"

namespace {

TEST(ServeOptions, Table)
{
    const char *range = "--https-port takes a port from 1 to 65534";
    // Arguments, result, and the folder or the error; once parsed, also --https, its port and the task.
    const struct { std::vector<const char *> argv; int result; const char *expected;
                   bool https = false; int https_port = 0; ServeTask task = SERVE_TASK_RUN; } cases[] = {
        {{}, 0, "."}, {{"game"}, 0, "game"}, {{"--", "-dash"}, 0, "-dash"}, {{"-"}, 0, "-"},
        {{"--https", "game"}, 0, "game", true}, {{"game", "--https"}, 0, "game", true},
        {{"--https", "--https-port", "8443", "game"}, 0, "game", true, 8443},
        {{"--help"}, 0, ".", false, 0, SERVE_TASK_HELP}, {{"-h"}, 0, ".", false, 0, SERVE_TASK_HELP},
        {{"--version"}, 0, ".", false, 0, SERVE_TASK_VERSION},
        {{"--help", "game"}, -1, "--help takes no argument"},
        {{"--https-port", "8443"}, -1, "--https-port goes with --https"},
        {{"--https", "--https-port", "65535"}, -1, range}, {{"--https", "--https-port", "0"}, -1, range},
        {{"--https", "--https-port", "84x"}, -1, range}, {{"--https", "--https-port"}, -1, range},
        {{"a", "b"}, -1, "one folder at most (see varnok-serve --help)"},
        {{"--root"}, -1, "unknown option --root (see varnok-serve --help)"},
    };
    for (const auto &row : cases) {
        std::vector<const char *> argv{"varnok-serve"};
        argv.insert(argv.end(), row.argv.begin(), row.argv.end());
        SCOPED_TRACE(argv.size() > 1 ? argv[1] : "(none)");
        ServeOptions options{};
        std::string error;
        ASSERT_EQ(serve_options_parse(static_cast<int>(argv.size()), argv.data(), &options, &error), row.result);
        EXPECT_EQ(row.result == 0 ? options.folder : error, row.expected);
        if (row.result == 0) {
            EXPECT_EQ(std::tuple(options.https, options.https_port, options.task),
                      std::tuple(row.https, row.https_port, row.task));
        }
    }
}

TEST(ServeShown, OnlyTextAndTheDrawingsColoursReachTheTerminal)
{
    // Text and what is shown of it ("": the text unchanged).
    const std::pair<std::string, std::string> cases[] = {
        {"plain text\twith a tab", ""}, {"\033[37;47m__\033[m\033[30;40m..\033[0m", ""},
        {"\033[38;5;16;48;5;231m\xe2\x96\x80\033[0m", ""}, {"caf\xc3\xa9 \xe2\x80\xba \xf0\x9f\x8e\xae", ""},
        {"\xa0\xff", ""}, {"\033[8mhidden", "\\x1b[8mhidden"},                             // conceal
        {"\033[5m\033[7m", "\\x1b[5m\\x1b[7m"},                                            // blink, reverse
        {"\033[38;2;1;2;3m", "\\x1b[38;2;1;2;3m"}, {"\033[38;5;256m", "\\x1b[38;5;256m"},  // true colour; 256
        {"\033[2J\033]52;c;Zm9v\007", "\\x1b[2J\\x1b]52;c;Zm9v\\x07"}, {"line\nnext", "line\\x0anext"},
        {"a\rb\bc\x7f" "d", "a\\x0db\\x08c\\x7fd"}, {std::string("nul\0x", 5), "nul\\x00x"},
        {"\x9b" "2J", "\\x9b2J"},                                                          // 8-bit CSI
        {"\xc2\x9b" "2J", "\\xc2\\x9b2J"}, {"\xc2\x85", "\\xc2\\x85"},                     // C1 in UTF-8
        {"\xe0\x80\x9b", "\xe0\\x80\\x9b"},                        // overlong: its C1-range bytes written out
        {"\033", "\\x1b"}, {"\033[", "\\x1b["},
    };
    for (const auto &[text, shown] : cases) {
        std::string out;
        serve_shown(text, &out);
        EXPECT_EQ(out, shown.empty() ? text : shown);
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
    const char *a = "192.168.1.20", *b = "10.20.30.77";
    const struct { std::vector<const char *> served, now; ServeFollow follow; } cases[] = {
        {{a}, {a}, SERVE_FOLLOW_NONE}, {{}, {}, SERVE_FOLLOW_NONE},
        {{a}, {a, b}, SERVE_FOLLOW_SOON}, {{a}, {b}, SERVE_FOLLOW_SOON}, {{}, {a}, SERVE_FOLLOW_SOON},
        {{a, b}, {a}, SERVE_FOLLOW_LATER}, {{a}, {}, SERVE_FOLLOW_LATER}, {{a, b}, {b, a}, SERVE_FOLLOW_LATER},
        {{"192.168.1.2", "10.0.0.1"}, {"192.168.1.20", "10.0.0.1"}, SERVE_FOLLOW_SOON},
    };
    for (const auto &row : cases)
        EXPECT_EQ(serve_follow(row.served.data(), static_cast<int>(row.served.size()), row.now.data(),
                               static_cast<int>(row.now.size())), row.follow) << "row " << &row - cases;
}

TEST(ServePathRule, EveryStepIsRootsOrTheServingUsers)
{
    constexpr uid_t player = 1000, other = 1001;
    // A folder's step, and a link's, whose own mode is always 0777.
    const auto dir = [](const char *p, uid_t u, mode_t m = 0755) { return PathStep{p, u, S_IFDIR | m}; };
    const auto link = [](const char *p, uid_t u) { return PathStep{p, u, S_IFLNK | 0777}; };
    const PathStep root = dir("/", 0), home = dir("/home", 0);
    const struct { const char *name; std::vector<PathStep> steps; int bad; uid_t uid = player; } cases[] = {
        {"all root's, then the player's",
         {root, home, dir("/home/player", player, 0700), dir("/home/player/game", player)}, -1},
        {"a folder of another user", {root, dir("/home/other", other), dir("/home/other/game", player)}, 1},
        {"the player's link into another's home",
         {root, dir("/home/player", player), link("/home/player/game", player), root, home,
          dir("/home/other", other, 0700)}, 1, other},
        {"another's link", {root, link("/srv/game", other), dir("/srv/real", player)}, 1},
        {"root's sticky /tmp", {root, dir("/tmp", 0, 01777), dir("/tmp/game", player)}, -1},
        {"a folder all may write", {root, dir("/srv", 0, 0777), dir("/srv/game", player)}, 1},
        {"the player's folder its group may write", {root, dir("/g", player, 0775)}, 1},
        {"the player's sticky folder all may write", {root, dir("/g", player, 01777)}, 1},
        {"a link's own mode does not count", {root, link("/g", player)}, -1},
        {"another user's folder on the way to theirs",
         {root, dir("/home/other", other), dir("/home/other/game", other)}, -1},
        {"a third user's link to theirs", {root, link("/srv/game", 1002), dir("/home/other/game", other)}, 1},
    };
    for (const auto &row : cases)
        EXPECT_EQ(serve_path_rule(row.steps, row.uid), row.bad) << row.name;
}

} // namespace
