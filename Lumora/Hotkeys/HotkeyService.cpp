// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Hotkeys/HotkeyService.h"

#include <QSettings>
#include <QTimer>

#include "Lumora/App/DisplayController.h"
#include "Lumora/Hotkeys/DisplayInUse.h"
#include "Lumora/Platform/Linux/Desktop/KeyServiceClient.h"
#include "Lumora/Platform/Linux/Desktop/KeyServiceWatcher.h"

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
    eventTap_ = std::make_unique<KeyServiceClient>(
        [this](const KeyProtocol::Press& press) { return handle(press.event, press.option); });
    // An attach that finishes, or a link the service drops, is what the view shows; a dropped link is also a change
    // of authorization worth a new look (the service restarted, or the session is no longer the active one).
    connect(eventTap_.get(), &KeyServiceClient::attachedChanged, this, [this](bool attached) { assignTrusted(attached); });
    connect(eventTap_.get(), &KeyServiceClient::dropped, this,
            [this] { QTimer::singleShot(trustRecheckDelayMs, this, [this] { reconcile(); }); });
    assignTrusted(readTrust());
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
        eventTap_->attach(true);  // polkit may ask for a password
    reconcile();
}

void HotkeyService::openAccessibilitySettings()
{
    eventTap_->attach(true);
}

void HotkeyService::observeTrustChanges()
{
    // Every notification gets its own look, half a second later; none are merged.
    const auto recheck = [this] { QTimer::singleShot(trustRecheckDelayMs, this, [this] { reconcile(); }); };
    trustWatcher_ = std::make_unique<KeyServiceWatcher>(recheck, [this, recheck] {
        if (eventTap_->foundNoService())
            recheck();
    });
}

void HotkeyService::reconcile()
{
    if (!isEnabled_)
        stopTap();
    assignTrusted(readTrust());
    if (isEnabled_)
        startTap();
}

// Attaching is asynchronous: the outcome comes back through attachedChanged.
void HotkeyService::startTap()
{
    eventTap_->attach(false);
}

void HotkeyService::stopTap()
{
    eventTap_->detach();
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
    return eventTap_->isAttached();
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
