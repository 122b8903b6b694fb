#include "Lumora/Hotkeys/HotkeyService.h"

#include <QSettings>
#include <QTimer>

#include "Lumora/App/DisplayController.h"
#include "Lumora/Hotkeys/DisplayInUse.h"
#include "Lumora/Platform/Linux/Desktop/InputAccessRequest.h"
#include "Lumora/Platform/Linux/Desktop/InputAccessWatcher.h"
#include "Lumora/Platform/Linux/Input/InputAccess.h"
#include "Lumora/Platform/Linux/Input/KeyTap.h"

namespace Lumora {
namespace {

QSettings settings()
{
    return QSettings(QStringLiteral("Lumora"), QStringLiteral("Lumora"));
}

}  // namespace

HotkeyService::HotkeyService(DisplayController& controller, QObject* parent)
    : QObject(parent), controller_(controller)
{
    assignTrusted(readTrust());
    eventTap_.reset();
    assignEnabled(settings().value(QLatin1String(settingsKey), false).toBool());
    observeTrustChanges();
    reconcile();
}

HotkeyService::~HotkeyService()
{
    trustWatcher_.reset();
    stopTap();
}

void HotkeyService::setEnabled(bool enabled)
{
    assignEnabled(enabled);
    settings().setValue(QLatin1String(settingsKey), enabled);
    if (enabled && !readTrust())
        InputAccessRequest::start();
    reconcile();
}

void HotkeyService::openAccessibilitySettings()
{
    InputAccessRequest::start();
}

void HotkeyService::observeTrustChanges()
{
    // Every notification gets its own look, half a second later; none are merged.
    trustWatcher_ = std::make_unique<InputAccessWatcher>(
        [this] { QTimer::singleShot(trustRecheckDelayMs, this, [this] { reconcile(); }); });
}

void HotkeyService::reconcile()
{
    assignTrusted(readTrust());
    if (isEnabled_ && isTrusted_)
        startTap();
    else
        stopTap();
}

void HotkeyService::startTap()
{
    if (eventTap_ != nullptr)
        return;
    const std::uint64_t generation = ++tapGeneration_;
    // Runs on a capture thread: only hands the press to this thread, through the mailbox, and returns.
    eventTap_ = Platform::KeyTap::create([this, generation](const Platform::KeyPress& press) {
        {
            std::lock_guard<std::mutex> hold(pressesMutex_);
            presses_.emplace_back(generation, press);
        }
        QMetaObject::invokeMethod(this, "takePresses", Qt::QueuedConnection);
    });
    if (eventTap_ == nullptr)
        assignTrusted(false);
}

void HotkeyService::stopTap()
{
    eventTap_.reset();
}

// Main thread: decides what was handed over, oldest first. One run may take the presses of later hand-overs, and
// their own runs then find nothing left.
void HotkeyService::takePresses()
{
    std::vector<std::pair<std::uint64_t, Platform::KeyPress>> taken;
    {
        std::lock_guard<std::mutex> hold(pressesMutex_);
        taken.swap(presses_);
    }
    for (const auto& [generation, press] : taken)
        pressArrived(generation, press);
}

void HotkeyService::pressArrived(std::uint64_t tapGeneration, const Platform::KeyPress& press)
{
    if (eventTap_ == nullptr || tapGeneration != tapGeneration_)
        return;  // that tap is gone, and with it the press (it was passed on)
    eventTap_->settle(press.id, [&] { return handle(press.event, press.option); });
}

bool HotkeyService::handle(const KeyEvent& event, bool option)
{
    if (!KeyEventDecision::isBrightnessPress(event))
        return false;
    const KeyOutcome outcome = KeyEventDecision::decide(event, option, DisplayInUse::resolve(controller_.displays()));
    switch (outcome.call) {
    case KeyOutcome::Call::step:
        controller_.step(outcome.displayID, outcome.amount);
        emit adjusted(outcome.displayID);
        break;
    case KeyOutcome::Call::setBrightness:
        controller_.setBrightness(outcome.displayID, outcome.amount);
        emit adjusted(outcome.displayID);
        break;
    case KeyOutcome::Call::none:
        break;
    }
    return outcome.consumed;
}

bool HotkeyService::readTrust() const
{
    return Platform::InputAccess::isTrusted(eventTap_ != nullptr ? eventTap_->clones() : std::set<std::string>{});
}

void HotkeyService::assignEnabled(bool value)
{
    emit objectWillChange();
    isEnabled_ = value;
    emit isEnabledChanged(value);
}

void HotkeyService::assignTrusted(bool value)
{
    emit objectWillChange();
    isTrusted_ = value;
    emit isTrustedChanged(value);
}

}  // namespace Lumora
