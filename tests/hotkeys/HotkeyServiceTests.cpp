// The brightness keys' service as a state machine over the stored setting and the access to the device nodes:
// off, waiting for permission, active; when it asks for access, what it stores, and the half-second look after
// each change of access.

#include <QElapsedTimer>
#include <QFile>
#include <QSignalSpy>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include "HotkeysTestEnvironment.h"
#include "InputNodes.h"
#include "Lumora/App/DisplayController.h"
#include "Lumora/Hotkeys/HotkeyService.h"

using namespace LumoraTest;
using Lumora::HotkeyService;

namespace {

class HotkeyServiceStates : public ::testing::Test {
protected:
    void SetUp() override
    {
        removeSetting();
        clearPkexecRuns();
    }

    // Every assignment of a published field, in order: "will" before it, then the field and its value.
    struct Record {
        explicit Record(HotkeyService& service)
        {
            QObject::connect(&service, &HotkeyService::objectWillChange, [this] { log.push_back("will"); });
            QObject::connect(&service, &HotkeyService::isEnabledChanged,
                             [this](bool on) { log.push_back(on ? "enabled" : "disabled"); });
            QObject::connect(&service, &HotkeyService::isTrustedChanged, [this](bool on) {
                log.push_back(on ? "trusted" : "untrusted");
                trustLooks.push_back(clock.elapsed());
            });
            clock.start();
        }
        std::vector<std::string> log;
        std::vector<qint64> trustLooks;  // ms since the record started, one per assignment of isTrusted
        QElapsedTimer clock;
    };

    InputNodes nodes;
    Lumora::DisplayController controller{[] { return std::vector<Lumora::DisplayInfo>{}; }};
};

}  // namespace

TEST_F(HotkeyServiceStates, LaunchReadsTheSettingAndTheAccessAndNeverAsks)
{
    const struct {
        const char* what;
        std::optional<bool> stored;
        bool access;
        bool enabled;
    } cases[] = {
        {"nothing stored, access", std::nullopt, true, false},
        {"nothing stored, no access", std::nullopt, false, false},
        {"stored off", false, true, false},
        {"stored on, access: active", true, true, true},
        {"stored on, no access: waiting for permission", true, false, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        removeSetting();
        if (c.stored)
            storeSetting(*c.stored);
        if (c.access)
            nodes.addUinput();
        {
            HotkeyService service(controller);
            EXPECT_EQ(service.isEnabled(), c.enabled);
            EXPECT_EQ(service.isTrusted(), c.access);
        }
        if (c.access)
            nodes.removeUinput();
    }
    pumpUntil([] { return false; }, 200ms);
    EXPECT_TRUE(pkexecRuns().isEmpty()) << pkexecRuns().join(QLatin1Char('|')).toStdString();
}

TEST_F(HotkeyServiceStates, SwitchingOnWithoutAccessAsksOnceAndWaits)
{
    HotkeyService service(controller);
    Record record(service);
    service.setEnabled(true);

    EXPECT_EQ(storedSetting(), QStringLiteral("true"));
    EXPECT_TRUE(service.isEnabled());
    EXPECT_FALSE(service.isTrusted());
    // The view learns both at once: the switch, and the missing access it has to show.
    EXPECT_EQ(record.log, (std::vector<std::string>{"will", "enabled", "will", "untrusted"}));
    ASSERT_TRUE(pumpUntil([] { return !pkexecRuns().isEmpty(); }));
    pumpUntil([] { return false; }, 200ms);
    const QStringList runs = pkexecRuns();
    ASSERT_EQ(runs.size(), 1);
    EXPECT_TRUE(runs.front().endsWith(QStringLiteral("/lumora-grant-input-access"))) << runs.front().toStdString();

    // The button asks again, and changes nothing by itself.
    record.log.clear();
    service.openAccessibilitySettings();
    ASSERT_TRUE(pumpUntil([] { return pkexecRuns().size() == 2; }));
    EXPECT_TRUE(record.log.empty());
    EXPECT_FALSE(service.isTrusted());
}

TEST_F(HotkeyServiceStates, GrantingAccessWhileWaitingActivatesHalfASecondLater)
{
    storeSetting(true);
    HotkeyService service(controller);
    ASSERT_FALSE(service.isTrusted());
    Record record(service);

    nodes.addUinput();
    ASSERT_TRUE(pumpUntil([&] { return service.isTrusted(); }, 5s));
    EXPECT_GE(record.trustLooks.front(), 450) << "looked before the desktop could finish granting";
    EXPECT_TRUE(service.isEnabled());
    EXPECT_TRUE(pkexecRuns().isEmpty());

    // Taking it back removes the tap the same way.
    nodes.removeUinput();
    ASSERT_TRUE(pumpUntil([&] { return !service.isTrusted(); }, 5s));
    EXPECT_TRUE(service.isEnabled());
}

TEST_F(HotkeyServiceStates, SwitchingWhileTrusted)
{
    nodes.addUinput();
    HotkeyService service(controller);
    Record record(service);

    service.setEnabled(true);
    service.setEnabled(true);
    EXPECT_EQ(storedSetting(), QStringLiteral("true"));
    EXPECT_TRUE(service.isTrusted());

    service.setEnabled(false);
    EXPECT_EQ(storedSetting(), QStringLiteral("false"));
    EXPECT_FALSE(service.isEnabled());
    EXPECT_TRUE(service.isTrusted());
    // Every switch assigns both fields again, equal values included.
    EXPECT_EQ(record.log, (std::vector<std::string>{"will", "enabled", "will", "trusted", "will", "enabled", "will",
                                                    "trusted", "will", "disabled", "will", "trusted"}));
    pumpUntil([] { return false; }, 200ms);
    EXPECT_TRUE(pkexecRuns().isEmpty());

    // The stored setting is what the next launch starts from.
    HotkeyService next(controller);
    EXPECT_FALSE(next.isEnabled());
}

TEST_F(HotkeyServiceStates, EveryChangeOfAccessGetsItsOwnLookHalfASecondLater)
{
    nodes.addUinput();
    HotkeyService service(controller);
    Record record(service);

    // A keyboard with five interfaces arrives: five new event nodes, five notifications, none merged.
    for (int i = 0; i < 5; ++i)
        nodes.addEventNode(90 + i);
    ASSERT_TRUE(pumpUntil([&] { return record.trustLooks.size() >= 5; }, 5s));
    pumpUntil([] { return false; }, 700ms);
    EXPECT_EQ(record.trustLooks.size(), 5u);
    for (qint64 at : record.trustLooks)
        EXPECT_GE(at, 450) << "a look came early";
    EXPECT_TRUE(service.isTrusted());
}
