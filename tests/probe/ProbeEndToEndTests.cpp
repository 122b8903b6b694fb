// The real `lumora` probe on emulated desks: what it prints, byte for byte, and what reaches each monitor.

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <sstream>

#include "support/Subprocess.h"

namespace {

namespace fs = std::filesystem;
using nlohmann::json;
using LumoraTest::Environment;
using LumoraTest::ProcessResult;

struct Wire {
    std::string connector;
    std::string addr;
    std::string dir;
    std::string request;
    int code = -1;
    int value = -1;
};

struct ProbeRun {
    ProcessResult process;
    std::vector<Wire> log;
    std::vector<std::string> sets(const std::string& connector, int code = 0x10) const
    {
        std::vector<std::string> values;
        for (const Wire& w : log) {
            if (w.connector == connector && w.request == "set" && w.code == code)
                values.push_back(std::to_string(w.value));
        }
        return values;
    }
    std::size_t setCount() const
    {
        std::size_t n = 0;
        for (const Wire& w : log)
            n += w.request == "set";
        return n;
    }
};

class ProbeOnDesk : public ::testing::Test {
protected:
    fs::path dir;

    void SetUp() override
    {
        dir = fs::temp_directory_path() / ("lumora-probe-" + std::to_string(::getpid()) + "-" +
                                           ::testing::UnitTest::GetInstance()->current_test_info()->name());
        fs::remove_all(dir);
        fs::create_directories(dir);
    }
    void TearDown() override { fs::remove_all(dir); }

    ProbeRun probe(const std::string& desk, std::optional<std::string> setValue = std::nullopt)
    {
        fs::path deskFile = dir / "desk.json";
        fs::path logFile = dir / "log.jsonl";
        std::ofstream(deskFile) << desk;
        Environment env{{"LUMORA_PROBE", "1"},
                        {"LUMORA_PROBE_SET", setValue},
                        // The panel is written through sysfs here, never through a real logind.
                        {"DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/lumora-test-bus"},
                        {"QT_QPA_PLATFORM", "xcb"},
                        {"DISPLAY", std::nullopt},
                        {"WAYLAND_DISPLAY", std::nullopt}};
        ProbeRun run;
        run.process = LumoraTest::runProcess({VIRTUAL_DESK, "--desk", deskFile.string(), "--log", logFile.string(), "--",
                                              LUMORA_BINARY},
                                             env, std::chrono::seconds(60));
        std::ifstream log(logFile);
        for (std::string line; std::getline(log, line);) {
            json j = json::parse(line);
            Wire w;
            w.connector = j.value("connector", "");
            w.addr = j.value("addr", "");
            w.dir = j.value("dir", "");
            w.request = j.value("request", "");
            if (j.contains("code"))
                w.code = std::stoi(j["code"].get<std::string>(), nullptr, 16);
            w.value = j.value("value", -1);
            run.log.push_back(w);
        }
        return run;
    }
};

// A DisplayPort monitor with a 0...255 scale, an HDMI monitor without a name, the laptop panel.
const char* threeDisplays = R"({
  "cards": [{"connectors": [
    {"name": "DP-1", "connectorId": 95, "edid": {"vendor": "DEL", "model": 41156, "serial": 7, "name": "DELL U2720Q"},
     "ddc": {"bus": 5, "via": "aux"}, "monitor": {"max": 255, "current": 51}},
    {"name": "HDMI-A-1", "connectorId": 103, "edid": {"vendor": "GSM", "model": 23305},
     "ddc": {"bus": 3, "via": "link"}, "monitor": {"max": 100, "current": 50}},
    {"name": "eDP-1", "connectorId": 110, "edid": {"vendor": "BOE", "model": 2330}, "ddc": {"bus": 4, "via": "aux"}}
  ]}],
  "backlights": [{"name": "intel_backlight", "type": "raw", "max": 1000, "brightness": 730, "connector": "card0-eDP-1"}]
})";

TEST_F(ProbeOnDesk, ListsEveryDisplayAndSetsThemAllScaledByEachMaximum)
{
    ProbeRun run = probe(threeDisplays, "40");
    ASSERT_EQ(run.process.exitStatus, 0) << run.process.err;
    EXPECT_EQ(run.process.out,
              "Displays: 3  (IOAVService: true, DisplayServices: true)\n"
              "\u2022 [95] DELL U2720Q (external/DDC) brightness=20%\n"
              "    set 40%\n"
              "\u2022 [103] Display 103 (external/DDC) brightness=50%\n"
              "    set 40%\n"
              "\u2022 [110] Built-in Display (internal) brightness=73%\n"
              "    set 40%\n");
    // 40 % of 255 is 102; the set goes out twice.
    EXPECT_EQ(run.sets("card0-DP-1"), (std::vector<std::string>{"102", "102"}));
    EXPECT_EQ(run.sets("card0-HDMI-A-1"), (std::vector<std::string>{"40", "40"}));
    for (const Wire& w : run.log) {
        if (w.dir == "write") {
            EXPECT_EQ(w.addr, "0x37") << "a write that was not DDC/CI";
        }
    }
}

TEST_F(ProbeOnDesk, ReadsBeforeItWritesAndWritesNothingWithoutASetValue)
{
    ProbeRun run = probe(threeDisplays);
    ASSERT_EQ(run.process.exitStatus, 0) << run.process.err;
    EXPECT_EQ(run.setCount(), 0u);
    EXPECT_NE(run.process.out.find("brightness=20%\n\u2022 [103]"), std::string::npos) << run.process.out;

    run = probe(threeDisplays, "150");
    ASSERT_EQ(run.process.exitStatus, 0);
    ASSERT_FALSE(run.log.empty());
    // Each monitor's first transaction is its read; its writes come after.
    for (std::string connector : {"card0-DP-1", "card0-HDMI-A-1"}) {
        auto first = std::find_if(run.log.begin(), run.log.end(), [&](const Wire& w) { return w.connector == connector; });
        ASSERT_NE(first, run.log.end());
        EXPECT_EQ(first->request, "get") << connector;
    }
    EXPECT_EQ(run.sets("card0-DP-1"), (std::vector<std::string>{"255", "255"}));
    EXPECT_NE(run.process.out.find("    set 100%\n"), std::string::npos);
}

TEST_F(ProbeOnDesk, GarbageSetValuesWriteNothingAndSayNothing)
{
    for (std::string value : {"", " 40", "40%", "4.5", "abc", "+-4", "99999999999999999999"}) {
        ProbeRun run = probe(threeDisplays, value);
        ASSERT_EQ(run.process.exitStatus, 0) << value;
        EXPECT_EQ(run.setCount(), 0u) << "LUMORA_PROBE_SET=\"" << value << "\"";
        EXPECT_EQ(run.process.out.find("set"), std::string::npos) << value;
    }
    // A negative value is clamped to 0 and still written.
    ProbeRun run = probe(threeDisplays, "-20");
    EXPECT_EQ(run.sets("card0-HDMI-A-1"), (std::vector<std::string>{"0", "0"}));
}

TEST_F(ProbeOnDesk, AMonitorThatNeverAnswersReadsNotAvailableAndIsStillWritten)
{
    ProbeRun run = probe(R"({"cards": [{"connectors": [
        {"name": "HDMI-A-1", "connectorId": 77, "edid": {"vendor": "ACR", "model": 1234, "name": "Silent"},
         "ddc": {"bus": 3}, "monitor": {"faults": {"neverAnswer": true}}}]}]})",
                    "+70");
    ASSERT_EQ(run.process.exitStatus, 0) << run.process.err;
    EXPECT_EQ(run.process.out,
              "Displays: 1  (IOAVService: true, DisplayServices: false)\n"
              "\u2022 [77] Silent (external/DDC) brightness=n/a\n"
              "    set 70%\n");
    EXPECT_EQ(run.sets("card0-HDMI-A-1"), (std::vector<std::string>{"70", "70"}));
    std::size_t gets = std::count_if(run.log.begin(), run.log.end(), [](const Wire& w) { return w.request == "get"; });
    EXPECT_EQ(gets, 5u) << "five attempts, then it gives up";
}

TEST_F(ProbeOnDesk, PrintsWhatEachDeskHolds)
{
    struct Case {
        const char* what;
        std::string desk;
        std::optional<std::string> set;
        std::string out;
    };
    std::string withoutI2CDev = threeDisplays;
    withoutI2CDev.insert(withoutI2CDev.find('{') + 1, R"("i2cDev": false, )");
    const Case cases[] = {
        {"identical monitors (same vendor, model, unknown serial) pair in order, each reads its own brightness",
         R"({"cards": [{"connectors": [
            {"name": "DP-1", "connectorId": 80, "edid": {"vendor": "DEL", "model": 41156, "name": "DELL P2419H"},
             "ddc": {"bus": 5}, "monitor": {"current": 30}},
            {"name": "DP-2", "connectorId": 81, "edid": {"vendor": "DEL", "model": 41156, "name": "DELL P2419H"},
             "ddc": {"bus": 6}, "monitor": {"current": 70}}]}]})",
         std::nullopt,
         "Displays: 2  (IOAVService: true, DisplayServices: false)\n"
         "\u2022 [80] DELL P2419H (external/DDC) brightness=30%\n"
         "\u2022 [81] DELL P2419H (external/DDC) brightness=70%\n"},
        {"online order [external, built-in, external on card1]: externals first; card1's ids carry its index",
         R"({"cards": [
            {"connectors": [
              {"name": "HDMI-A-1", "connectorId": 5, "edid": {"vendor": "GSM", "model": 1}, "ddc": {"bus": 3}, "monitor": {}},
              {"name": "eDP-1", "connectorId": 6, "edid": {"vendor": "BOE", "model": 2}}]},
            {"index": 1, "connectors": [
              {"name": "DP-1", "connectorId": 7, "edid": {"vendor": "DEL", "model": 3}, "ddc": {"bus": 9}, "monitor": {}}]}],
           "backlights": [{"name": "acpi_video0", "type": "firmware", "max": 10, "brightness": 5}]})",
         std::nullopt,
         "Displays: 3  (IOAVService: true, DisplayServices: true)\n"
         "\u2022 [5] Display 5 (external/DDC) brightness=50%\n"
         "\u2022 [65543] Display 65543 (external/DDC) brightness=50%\n"
         "\u2022 [6] Built-in Display (internal) brightness=50%\n"},
        {"without the kernel's i2c-dev only the panel is listed, and a note says why", withoutI2CDev, "10",
         "Displays: 1  (IOAVService: false, DisplayServices: true)\n"
         "\u2022 [110] Built-in Display (internal) brightness=73%\n"
         "    set 10%\n"
         "Note: i2c-dev is not loaded, so no external monitor can be reached; load it with \"sudo modprobe i2c-dev\" "
         "(see \"Device access\" in Lumora's README).\n"},
        {"a panel without backlight is listed and written, but reads n/a",
         R"({"cards": [{"connectors": [
            {"name": "eDP-1", "connectorId": 40, "edid": {"vendor": "BOE", "model": 2}, "ddc": {"bus": 4}}]}]})",
         "30",
         "Displays: 1  (IOAVService: true, DisplayServices: false)\n"
         "\u2022 [40] Built-in Display (internal) brightness=n/a\n"
         "    set 30%\n"},
        {"no active display: the header alone, and nothing is set",
         R"({"cards": [{"connectors": [
            {"name": "DP-1", "status": "disconnected", "ddc": {"bus": 5}},
            {"name": "HDMI-A-1", "enabled": false, "edid": {"vendor": "GSM", "model": 1}, "ddc": {"bus": 3},
             "monitor": {}}]}]})",
         "50", "Displays: 0  (IOAVService: true, DisplayServices: false)\n"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        ProbeRun run = probe(c.desk, c.set);
        ASSERT_EQ(run.process.exitStatus, 0) << run.process.err;
        EXPECT_EQ(run.process.out, c.out);
        if (c.out.find("set") == std::string::npos || c.out.find("IOAVService: false") != std::string::npos) {
            EXPECT_EQ(run.setCount(), 0u) << "nothing reaches a monitor";
        }
    }
}

TEST_F(ProbeOnDesk, BadEDIDsAndMissingIdentityStillPairAOneToOneDesk)
{
    // One monitor whose EDID is seven bytes of junk: nothing to compare, but one display and one channel pair.
    ProbeRun run = probe(R"({"cards": [{"connectors": [
        {"name": "DVI-D-1", "edid": {"raw": "00FFFFFF0102"}, "ddc": {"bus": 2}, "monitor": {"current": 25}},
        {"name": "VGA-1", "status": "disconnected", "edid": {"raw": ""}, "ddc": {"bus": 7}}]}]})");
    ASSERT_EQ(run.process.exitStatus, 0) << run.process.err;
    EXPECT_NE(run.process.out.find("(external/DDC) brightness=25%\n"), std::string::npos) << run.process.out;
    EXPECT_NE(run.process.out.find("] Display "), std::string::npos) << "no product name: named by number";
}

}  // namespace
