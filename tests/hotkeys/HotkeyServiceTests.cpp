// The brightness keys' service as a state machine over the stored setting and the access to the desk's keyboards
// and /dev/uinput (their file modes): off, waiting for permission, active (the keyboards taken); when it asks for
// access, what it stores, and the half-second look after each change of access.

#include <QElapsedTimer>

#include <gtest/gtest.h>

#include "HotkeysTestEnvironment.h"
#include "Lumora/App/DisplayController.h"
#include "Lumora/Hotkeys/HotkeyService.h"
#include "tools/virtual-desk/VirtualDesk.h"

using namespace LumoraTest;
using Lumora::HotkeyService;

namespace {

const std::string uinput = "/dev/uinput";
const std::string grant = "0660";
const std::string deny = "0600";

class HotkeyServiceStates : public ::testing::Test {
protected:
    void SetUp() override
    {
        removeSetting();
        clearPkexecRuns();
    }
    void TearDown() override { EXPECT_TRUE(desk.violations().empty()); }

    // The tap is installed: the keyboards with brightness keys are taken.
    bool tapped() const { return desk.grabbed(laptop) && desk.grabbed(videoBus) && desk.grabbed(consumer); }
    bool untapped() const
    {
        return !desk.grabbed(laptop) && !desk.grabbed(videoBus) && !desk.grabbed(consumer) && desk.clones().empty();
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

    VirtualDesk::Desk desk{VirtualDesk::DeskConfig::defaultDesk()};
    Lumora::DisplayController controller{[] { return std::vector<Lumora::DisplayInfo>{}; }};
};

}  // namespace

TEST_F(HotkeyServiceStates, LaunchReadsTheSettingAndTheAccessAndNeverAsks)
{
    const struct {
        const char* what;
        std::optional<bool> stored;
        std::string uinputMode, laptopMode;
        bool trusted, enabled;
    } cases[] = {
        {"nothing stored, access", std::nullopt, grant, grant, true, false},
        {"nothing stored, no access", std::nullopt, deny, grant, false, false},
        {"stored off", false, grant, grant, true, false},
        {"stored on, access: active", true, grant, grant, true, true},
        {"stored on, /dev/uinput not writable: waiting for permission", true, deny, grant, false, true},
        {"stored on, a keyboard not readable: waiting for permission", true, grant, deny, false, true},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        removeSetting();
        if (c.stored)
            storeSetting(*c.stored);
        desk.setAccess(uinput, c.uinputMode);
        desk.setAccess(laptop, c.laptopMode);
        {
            HotkeyService service(controller);
            EXPECT_EQ(service.isEnabled(), c.enabled);
            EXPECT_EQ(service.isTrusted(), c.trusted);
            EXPECT_EQ(tapped(), c.enabled && c.trusted);
            EXPECT_FALSE(desk.grabbed(external));
        }
        EXPECT_TRUE(desk.waitFor([&] { return untapped(); }, 5s)) << "the tap goes with the service";
    }
    pumpUntil([] { return false; }, 200ms);
    EXPECT_TRUE(pkexecRuns().isEmpty()) << pkexecRuns().join(QLatin1Char('|')).toStdString();
}

TEST_F(HotkeyServiceStates, SwitchingOnWithoutAccessAsksOnceAndWaits)
{
    desk.setAccess(uinput, deny);
    HotkeyService service(controller);
    Record record(service);
    service.setEnabled(true);

    EXPECT_EQ(storedSetting(), QStringLiteral("true"));
    EXPECT_TRUE(service.isEnabled());
    EXPECT_FALSE(service.isTrusted());
    EXPECT_TRUE(untapped());
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
    desk.setAccess(laptop, deny);
    HotkeyService service(controller);
    ASSERT_FALSE(service.isTrusted());
    Record record(service);

    desk.setAccess(laptop, grant);
    ASSERT_TRUE(pumpUntil([&] { return service.isTrusted() && tapped(); }, 5s));
    EXPECT_GE(record.trustLooks.front(), 450) << "looked before the desktop could finish granting";
    EXPECT_TRUE(service.isEnabled());
    EXPECT_TRUE(pkexecRuns().isEmpty());

    // Taking it back removes the tap the same way.
    desk.setAccess(uinput, deny);
    ASSERT_TRUE(pumpUntil([&] { return !service.isTrusted() && untapped(); }, 5s));
    EXPECT_TRUE(service.isEnabled());
}

TEST_F(HotkeyServiceStates, SwitchingWhileTrusted)
{
    HotkeyService service(controller);
    Record record(service);

    service.setEnabled(true);
    ASSERT_TRUE(tapped());
    const std::vector<std::string> clones = desk.clones();
    service.setEnabled(true);
    EXPECT_EQ(desk.clones(), clones) << "a second switch on keeps the one tap";
    EXPECT_EQ(storedSetting(), QStringLiteral("true"));
    EXPECT_TRUE(service.isTrusted());

    service.setEnabled(false);
    EXPECT_EQ(storedSetting(), QStringLiteral("false"));
    EXPECT_FALSE(service.isEnabled());
    EXPECT_TRUE(service.isTrusted());
    EXPECT_TRUE(desk.waitFor([&] { return untapped(); }, 5s));
    // Every switch assigns both fields again, equal values included.
    EXPECT_EQ(record.log, (std::vector<std::string>{"will", "enabled", "will", "trusted", "will", "enabled", "will",
                                                    "trusted", "will", "disabled", "will", "trusted"}));
    pumpUntil([] { return false; }, 200ms);
    EXPECT_TRUE(pkexecRuns().isEmpty());

    // The stored setting is what the next launch starts from.
    HotkeyService next(controller);
    EXPECT_FALSE(next.isEnabled());
    EXPECT_TRUE(untapped());
}

TEST_F(HotkeyServiceStates, EveryChangeOfAccessGetsItsOwnLookHalfASecondLater)
{
    HotkeyService service(controller);
    Record record(service);

    // Five nodes change their access at once (the permission helper's rule applied): five notifications, none
    // merged, each looked at half a second after it came.
    for (const std::string& node : {laptop, videoBus, external, consumer, uinput})
        desk.setAccess(node, grant);
    ASSERT_TRUE(pumpUntil([&] { return record.trustLooks.size() >= 5; }, 5s));
    pumpUntil([] { return false; }, 700ms);
    EXPECT_EQ(record.trustLooks.size(), 5u);
    for (qint64 at : record.trustLooks)
        EXPECT_GE(at, 450) << "a look came early";
    EXPECT_TRUE(service.isTrusted());
}
