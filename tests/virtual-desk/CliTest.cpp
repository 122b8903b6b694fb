// The virtual-desk command as a user runs it: its exit statuses, its one-line errors, its control socket.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <filesystem>
#include <fstream>

using testing::HasSubstr;

namespace {

std::string readText(const std::string& path)
{
    std::ifstream in(path);
    return {std::istreambuf_iterator<char>(in), {}};
}

TEST(CliTest, ExitStatusesAndTheControlSocket)
{
    char tmpl[] = "/tmp/virtual-desk-cli-XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl, bin = VIRTUAL_DESK_BIN, sock = dir + "/control";
    std::ofstream(dir + "/bad.json") << R"({"cards":[{"connectors":[{"name":"DP-1","monitor":{}}]}]})";
    const struct { std::string args; int status; std::string out, err; } cases[] = {
        {"-- sh -c 'cat /sys/class/drm/card0-DP-1/status; exit 7'", 7, "connected\n", ""},
        {R"#(-- python3 -c "import os; os.write(os.open('/dev/i2c-0', os.O_RDWR), b'x')")#", 3, "", "VIOLATION"},
        {"--desk " + dir + "/bad.json -- true", 2, "", "cards[0].connectors[0].monitor"},
        {"--control " + sock + " -- sh -c '" + bin + " --send " + sock + " unplug card0-DP-1 && cat " +
             "/sys/class/drm/card0-DP-1/status'", 0, "ok\ndisconnected\n", ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.args);
        const int status = std::system(("timeout -k 5 60 " + bin + " " + c.args + " >" + dir + "/out 2>" + dir + "/err").c_str());
        const std::string err = readText(dir + "/err");
        EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, c.status) << err;
        EXPECT_EQ(readText(dir + "/out"), c.out);
        EXPECT_THAT(err, HasSubstr(c.err));
        EXPECT_TRUE(c.status != 2 || std::count(err.begin(), err.end(), '\n') == 1) << "one line";
    }
    EXPECT_FALSE(std::filesystem::exists(sock)) << "the socket is removed at the end";
    std::filesystem::remove_all(dir);
}

TEST(CliTest, KeysFromTheControlSocketAreLogged)
{
    char tmpl[] = "/tmp/virtual-desk-cli-XXXXXX";
    ASSERT_NE(::mkdtemp(tmpl), nullptr);
    const std::string dir = tmpl, bin = VIRTUAL_DESK_BIN, sock = dir + "/control";
    const std::string send = bin + " --send " + sock + " ";
    const int status = std::system(("timeout -k 5 60 " + bin + " --log " + dir + "/log --control " + sock + " -- sh -c '" +
                                    send + "key event0 KEY_BRIGHTNESSUP 1 && " + send + "heldkeys event0 && " + send +
                                    "key event2 KEY_BRIGHTNESSUP 1' >" + dir + "/out 2>&1").c_str());
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -1, 1) << "the last command fails: event2 has no such key";
    EXPECT_EQ(readText(dir + "/out"), "ok\nok 225\nerror: /dev/input/event2 (Logitech USB Keyboard) has no key "
                                      "KEY_BRIGHTNESSUP\n");
    EXPECT_THAT(readText(dir + "/log"), HasSubstr(R"("kind":"input",)"));
    EXPECT_THAT(readText(dir + "/log"), HasSubstr(R"("device":"/dev/input/event0","what":"key","type":"EV_KEY","code":"KEY_BRIGHTNESSUP","value":1})"));
    std::filesystem::remove_all(dir);
}

} // namespace
