// The virtual-desk command, run as a user runs it. This program's main doubles as a tiny i2c client
// (`--client ...`) that virtual-desk starts as its command.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fcntl.h>
#include <linux/i2c-dev.h>
#include <linux/i2c.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

using testing::HasSubstr;
namespace fs = std::filesystem;

namespace {

std::string self;

std::string readText(const fs::path& path)
{
    std::ifstream in(path);
    std::stringstream ss;
    ss << in.rdbuf();
    return ss.str();
}

std::string quote(const std::string& s)
{
    std::string out = "'";
    for (char c : s)
        out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

class CliTest : public testing::Test {
protected:
    fs::path dir;
    std::string out, err;

    void SetUp() override
    {
        char tmpl[] = "/tmp/virtual-desk-cli-XXXXXX";
        ASSERT_NE(::mkdtemp(tmpl), nullptr);
        dir = tmpl;
    }
    void TearDown() override { fs::remove_all(dir); }

    // Runs virtual-desk with the given arguments (already quoted) under a time limit; returns its exit status.
    int run(const std::string& args)
    {
        const std::string cmd = "timeout -k 5 60 " + quote(VIRTUAL_DESK_BIN) + " " + args + " >" +
                                quote((dir / "out").string()) + " 2>" + quote((dir / "err").string());
        const int status = std::system(cmd.c_str());
        out = readText(dir / "out");
        err = readText(dir / "err");
        return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
};

TEST_F(CliTest, RunsTheCommandOnTheDeskAndPassesItsStatus)
{
    EXPECT_EQ(run("-- sh -c 'cat /sys/class/drm/card0-DP-1/status; exit 7'"), 7) << err;
    EXPECT_EQ(out, "connected\n");
}

TEST_F(CliTest, TalksToTheMonitorAndLogsEveryTransaction)
{
    const fs::path log = dir / "log.jsonl";
    EXPECT_EQ(run("--log " + quote(log.string()) + " -- " + quote(self) + " --client get 5"), 0) << err;
    EXPECT_EQ(out, "50\n");
    const std::string lines = readText(log);
    EXPECT_THAT(lines, HasSubstr(R"("bytes":"51 82 01 10 AC")"));
    EXPECT_THAT(lines, HasSubstr(R"("request":"reply")"));
    EXPECT_EQ(std::count(lines.begin(), lines.end(), '\n'), 2);
}

TEST_F(CliTest, AViolationFailsTheRun)
{
    EXPECT_EQ(run("-- " + quote(self) + " --client write50 3"), 3);
    EXPECT_THAT(err, HasSubstr("VIOLATION"));
    EXPECT_THAT(err, HasSubstr("0x50"));
}

TEST_F(CliTest, ControlSocketUnplugsAtRunTime)
{
    const std::string sock = (dir / "control").string();
    const std::string script = quote(VIRTUAL_DESK_BIN) + " --send " + quote(sock) +
                               " unplug card0-DP-1 && cat /sys/class/drm/card0-DP-1/status";
    EXPECT_EQ(run("--control " + quote(sock) + " -- sh -c " + quote(script)), 0) << err;
    EXPECT_EQ(out, "ok\ndisconnected\n");
    EXPECT_FALSE(fs::exists(sock)) << "the socket is removed at the end";
}

TEST_F(CliTest, ATerminationSignalReleasesHeldRequests)
{
    // The command blocks on a held Set VCP, where umockdev keeps its signals blocked. SIGTERM to virtual-desk (after
    // 2 s) reaches it and releases the hold, so it dies of the signal instead of the run hanging.
    const fs::path desk = dir / "held.json";
    std::ofstream(desk) << R"({"cards":[{"connectors":[{"name":"DP-1","ddc":{"bus":5},"monitor":{"hold":true}}]}]})";
    const std::string cmd = "timeout -k 5 60 timeout -s TERM 2 " + quote(VIRTUAL_DESK_BIN) + " --desk " +
                            quote(desk.string()) + " -- " + quote(self) + " --client set 5 2>/dev/null";
    const int status = std::system(cmd.c_str());
    ASSERT_TRUE(WIFEXITED(status));
    EXPECT_EQ(WEXITSTATUS(status), 124) << "timeout reports that it sent the signal, and virtual-desk then ended";
}

TEST_F(CliTest, BadArgumentsAndBadDeskFilesAreOneLineErrors)
{
    EXPECT_EQ(run("--frobnicate -- true"), 2);
    EXPECT_THAT(err, HasSubstr("unknown argument"));

    const fs::path desk = dir / "desk.json";
    std::ofstream(desk) << R"({"cards":[{"connectors":[{"name":"DP-1","monitor":{}}]}]})";
    EXPECT_EQ(run("--desk " + quote(desk.string()) + " -- true"), 2);
    EXPECT_THAT(err, HasSubstr("cards[0].connectors[0].monitor"));
    EXPECT_EQ(std::count(err.begin(), err.end(), '\n'), 1) << err;
}

// ---- the i2c client mode ----

int client(int argc, char** argv)
{
    if (argc < 4)
        return 64;
    const std::string what = argv[2];
    const int fd = ::open((std::string("/dev/i2c-") + argv[3]).c_str(), O_RDWR | O_CLOEXEC);
    if (fd < 0) {
        std::perror("open");
        return 65;
    }
    auto xfer = [&](uint16_t addr, bool read, uint8_t* buf, uint16_t len) {
        i2c_msg m{addr, static_cast<uint16_t>(read ? I2C_M_RD : 0), len, buf};
        i2c_rdwr_ioctl_data d{&m, 1};
        return ::ioctl(fd, I2C_RDWR, &d) < 0 ? errno : 0;
    };
    if (what == "get") {
        uint8_t req[] = {0x51, 0x82, 0x01, 0x10, 0xAC};
        if (xfer(0x37, false, req, sizeof req))
            return 66;
        ::usleep(50000); // the reply is ready some time after the request
        uint8_t reply[11] = {};
        if (xfer(0x37, true, reply, sizeof reply))
            return 67;
        std::printf("%d\n", reply[8] << 8 | reply[9]);
        return 0;
    }
    if (what == "set") {
        uint8_t req[] = {0x51, 0x84, 0x03, 0x10, 0x00, 0x32, 0x9A};
        return xfer(0x37, false, req, sizeof req) ? 69 : 0;
    }
    if (what == "write50") {
        uint8_t offset = 0;
        return xfer(0x50, false, &offset, 1) ? 68 : 0;
    }
    return 64;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc > 1 && std::strcmp(argv[1], "--client") == 0)
        return client(argc, argv);
    self = fs::canonical("/proc/self/exe").string();
    testing::InitGoogleTest(&argc, argv);
    return RUN_ALL_TESTS();
}
