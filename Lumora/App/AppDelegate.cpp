// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/App/AppDelegate.h"

#include <QApplication>
#include <QCursor>
#include <QDialog>
#include <QMenu>
#include <QScreen>
#include <QTimer>

#include <algorithm>
#include <chrono>

#include <cstdio>
#include <optional>

#include "Lumora/App/CommandLine.h"
#include "Lumora/App/HostPoint.h"
#include "Lumora/App/PopoverPanel.h"
#include "Lumora/App/StatusMenu.h"
#include "Lumora/App/Translations.h"
#include "Lumora/Hotkeys/DisplayInUse.h"
#include "Lumora/Platform/Linux/Desktop/Compositor.h"
#include "Lumora/Platform/Linux/Desktop/DesktopInputs.h"
#include "Lumora/Platform/Linux/Desktop/DisplayChangeMonitor.h"
#include "Lumora/Platform/Linux/Desktop/DisplayServer.h"
#include "Lumora/Platform/Linux/Desktop/GnomeExtensionEnabler.h"
#include "Lumora/Platform/Linux/Desktop/InputFocus.h"
#include "Lumora/Platform/Linux/Desktop/OutsideClickWatcher.h"
#include "Lumora/Platform/Linux/Desktop/ResumeMonitor.h"
#include "Lumora/Platform/Linux/Desktop/SingleInstance.h"
#include "Lumora/Platform/Linux/Desktop/StatusNotifierItem.h"
#include "Lumora/Platform/Linux/Desktop/TrayWatcher.h"
#include "Lumora/Platform/Linux/Desktop/WaylandSession.h"
#include "Lumora/UI/AboutBox.h"
#include "Lumora/UI/PopoverView.h"
#include "Lumora/UI/Symbols.h"

#ifndef LUMORA_VERSION
#define LUMORA_VERSION "0"
#endif

namespace Lumora {
namespace {

constexpr int menuGap = 4;
// How far the pointer may move between the press on a StatusNotifier item and the activation that follows it.
constexpr int clickSlop = 8;
// How long after the panel lost the focus the activation of a click on the tray item may arrive: the host sends
// it on the button's release, or after its own double-click test.
constexpr qint64 focusLossToActivationMs = 700;

// Messages at start, before (or without) a QApplication: translated from Lumora's catalogue directly.
constexpr const char* messageContext = "Lumora::AppDelegate";
const char* const noSession = QT_TRANSLATE_NOOP(
    "Lumora::AppDelegate",
    "lumora: no desktop session here (neither DISPLAY nor WAYLAND_DISPLAY is set), so there is no tray to sit in.\n"
    "The probe works anywhere: LUMORA_PROBE=1 lumora");
const char* const unreachable = QT_TRANSLATE_NOOP(
    "Lumora::AppDelegate",
    "lumora: cannot reach the display server at %1=%2: it is not running, or it does not let Lumora in.");
const char* const alreadyRunning = QT_TRANSLATE_NOOP(
    "Lumora::AppDelegate", "lumora: Lumora is already running in this session; its panel opens from its tray icon.");
const char* const noTray = QT_TRANSLATE_NOOP(
    "Lumora::AppDelegate",
    "lumora: this desktop has no system tray, so Lumora shows its panel as a window. Start Lumora again to reopen it.");

const char* const noTrayInBackground = QT_TRANSLATE_NOOP(
    "Lumora::AppDelegate",
    "lumora: this desktop has no system tray, so Lumora waits in the background. Start Lumora to open its panel.");
const char* const usage = QT_TRANSLATE_NOOP(
    "Lumora::AppDelegate",
    "Usage: lumora [--background]\n"
    "Brightness and standby for every display on the desk, from a panel under a tray icon.\n"
    "\n"
    "  --background  start without opening a window (on a desktop without a tray the panel\n"
    "                opens when Lumora is started again)\n"
    "  --help        show this text\n"
    "  --version     show the version\n"
    "\n"
    "LUMORA_PROBE=1 lumora lists every display instead; see lumora(1).");
const char* const unknownArgument = QT_TRANSLATE_NOOP(
    "Lumora::AppDelegate", "lumora: unknown argument '%1'. Try 'lumora --help'.");

void write(const QString& message, std::FILE* stream)
{
    const QByteArray line = message.toUtf8() + '\n';
    std::fputs(line.constData(), stream);
    std::fflush(stream);
}
// What went wrong or what Lumora does about it, on stderr; what was asked for (--help, --version), on stdout.
void say(const QString& message) { write(message, stderr); }
void print(const QString& message) { write(message, stdout); }
// Monitors come back slowly after a resume: they are read at once, and again this much later.
constexpr auto secondRefreshAfterResume = std::chrono::milliseconds(3000);

// Chooses the window system before Qt does, and makes sure it answers: Qt aborts when it cannot connect. The tray
// and the panel belong to the X11 desktop, under XWayland too, where positioning a panel and seeing clicks
// elsewhere work as on X11; a DISPLAY left over beside a live Wayland session gives way to Wayland. An explicit
// QT_QPA_PLATFORM is left alone, except that xcb is checked as well. Returns the message when nothing answers.
std::optional<QString> chooseDisplayServer()
{
    const QByteArray platform = qgetenv("QT_QPA_PLATFORM");
    const bool chosen = !platform.isEmpty();
    if (chosen && !platform.startsWith("xcb")) {
        return std::nullopt;
    }
    const DisplayServer::Reachability server = DisplayServer::check();
    if (server.kind == DisplayServer::Kind::none || (chosen && qEnvironmentVariableIsEmpty("DISPLAY"))) {
        return Translations::text(messageContext, noSession);
    }
    if (!server.reachable || (chosen && server.kind != DisplayServer::Kind::x11)) {
        const bool x11 = server.kind == DisplayServer::Kind::x11 || chosen;
        return Translations::text(messageContext, unreachable)
            .arg(QLatin1String(x11 ? "DISPLAY" : "WAYLAND_DISPLAY"),
                 x11 ? qEnvironmentVariable("DISPLAY") : QString::fromStdString(server.address));
    }
    if (!chosen) {
        qputenv("QT_QPA_PLATFORM", server.kind == DisplayServer::Kind::x11 ? "xcb" : "wayland");
    }
    return std::nullopt;
}

QScreen* screenAt(const QRect& anchor)
{
    QScreen* screen = QGuiApplication::screenAt(anchor.center());
    return screen != nullptr ? screen : QGuiApplication::primaryScreen();
}

QRect screenFor(const QRect& anchor)
{
    QScreen* screen = screenAt(anchor);
    return screen != nullptr ? screen->geometry() : QRect();
}

}  // namespace

AppDelegate::AppDelegate() = default;

AppDelegate::~AppDelegate()
{
    // The watchers go before the panel and the tray item they refer to; the panel before the brightness keys it
    // shows.
    dismissMonitor_.reset();
    displayChanges_.reset();
    trayWatcher_.reset();
    notifierItem_.reset();
    sessionBus_.reset();
    resume_.reset();
    panel_.reset();
    hotkeys_.reset();
    delete about_.data();
}

int AppDelegate::runApplication(int argc, char** argv)
{
    const CommandLine options = CommandLine::parse(argc, argv);
    if (options.help) {
        print(Translations::text(messageContext, usage));
        return 0;
    }
    if (options.version) {
        print(QStringLiteral("lumora " LUMORA_VERSION));
        return 0;
    }
    if (const std::optional<QString> problem = chooseDisplayServer()) {
        say(*problem);
        return 1;
    }
    if (!SingleInstance::acquire()) {
        if (options.background) {
            return 0;  // started with the session twice: the running one stays as it is
        }
        // Another Lumora serves this session: it shows its panel, and this one is done.
        QCoreApplication asking(argc, argv);
        if (!SessionBus::showRunningPanel()) {
            say(Translations::text(messageContext, alreadyRunning));
        }
        return 0;
    }
    QApplication app(argc, argv);
    // Qt has taken its own options out of argv by now; what is left and not Lumora's is a mistake.
    if (const CommandLine left = CommandLine::parse(argc, argv); !left.unknown.empty()) {
        say(Translations::text(messageContext, unknownArgument).arg(QString::fromStdString(left.unknown.front())));
        return 2;
    }
    QApplication::setApplicationName(QStringLiteral("Lumora"));
    QApplication::setApplicationVersion(QStringLiteral(LUMORA_VERSION));
    // The installed desktop entry's name: desktops match the windows and the tray item to it (and its icon).
    QApplication::setDesktopFileName(QLatin1String(DisplayController::applicationIdentifier));
    // A tray application: closing a window never ends it, only Quit does.
    QApplication::setQuitOnLastWindowClosed(false);
    Translations::install(app);

    AppDelegate delegate;
    delegate.background_ = options.background;
    if (delegate.serveSessionBus() == SessionBus::Claim::takenByAnother) {
        // A Lumora whose lock lives elsewhere serves this session's bus: it shows its panel instead.
        SessionBus::showRunningPanel();
        return 0;
    }
    delegate.applicationDidFinishLaunching();
    QApplication::exec();
    return 0;
}

SessionBus::Claim AppDelegate::serveSessionBus()
{
    SessionBusActions actions;
    actions.showPanel = [this] { showPanel(); };
    actions.displays = [this]() -> const std::vector<DisplaySnapshot>& { return controller_.displays(); };
    // Any process of the session may call these as fast as it likes: their standby and wake commands are folded.
    constexpr auto folded = DisplayController::PowerCommands::newestOnly;
    // Their changes show in the on-screen display, as a key's do: a script or a shortcut changes a monitor out of
    // the user's sight of any slider.
    actions.setBrightness = [this](std::uint32_t id, double fraction) {
        controller_.setBrightness(id, fraction, folded);
        osd_.show(id);
    };
    actions.step = [this](std::uint32_t id, double delta) {
        controller_.step(id, delta, folded);
        osd_.show(id);
    };
    actions.togglePower = [this](std::uint32_t id) { controller_.togglePower(id, folded); };
    actions.refresh = [this] { controller_.refresh(); };
    actions.displayInUse = [this]() -> std::optional<std::uint32_t> {
        const std::optional<TargetResolver::Decision> inUse = DisplayInUse::resolve(controller_.displays());
        return inUse ? std::optional<std::uint32_t>(inUse->displayID) : std::nullopt;
    };
    SessionBus::Claim outcome = SessionBus::Claim::noBus;
    sessionBus_ = SessionBus::claim(std::move(actions), outcome);
    if (sessionBus_ != nullptr) {
        connect(&controller_, &DisplayController::displaysChanged, sessionBus_.get(), &SessionBus::displaysChanged);
    }
    return outcome;
}

void AppDelegate::applicationDidFinishLaunching()
{
    configureStatusItem();
    // The desktop's reader is set up now rather than at the first key: on KWin it loads a script whose reports of
    // the active window must have come in by then.
    DesktopInputs::session().read();
    GnomeExtensionEnabler::start(this);
    hotkeys_ = std::make_unique<HotkeyService>(controller_);
    connect(hotkeys_.get(), &HotkeyService::adjusted, &osd_, &OnScreenDisplay::show);
    configurePanel();
    controller_.refresh();
    registerForDisplayChanges();
    trayWatcher_ = std::make_unique<TrayWatcher>([this] { followTray(false); });
    followTray(true);
    registerForResume();
}

void AppDelegate::configureStatusItem()
{
    exportedMenu_.reset(buildMenu());
    StatusNotifierActions actions;
    actions.activate = [this](QPoint at) { itemActivated(at); };
    actions.secondaryActivate = [this](QPoint at) { itemActivated(at); };
    actions.contextMenu = [this](QPoint at) { showMenu(at); };
    actions.availabilityChanged = [this](bool available) { notifierHostChanged(available); };
    notifierItem_ = StatusNotifierItem::create(exportedMenu_.get(), std::move(actions));
    if (notifierItem_ != nullptr) {
        notifierItem_->setIcon(Symbols::trayIcon(QGuiApplication::palette()));
        notifierItem_->setToolTip(QApplication::applicationName(), tr("Lumora \u2014 external monitor brightness"));
        inNotifierHost_ = StatusNotifierItem::hostAvailable();
    }
    if (!inNotifierHost_) {
        createTrayIcon();
    }
}

// Qt's tray icon, for a desktop without a StatusNotifier host: it docks in the X11 desktop's XEmbed tray.
void AppDelegate::createTrayIcon()
{
    statusItem_ = std::make_unique<QSystemTrayIcon>();
    statusItem_->setIcon(Symbols::trayIcon(QGuiApplication::palette()));
    statusItem_->setToolTip(tr("Lumora \u2014 external monitor brightness"));
    connect(statusItem_.get(), &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) { statusItemClicked(reason); });
    statusItem_->show();
}

// A StatusNotifier host came (the icon moves there from an XEmbed tray or the window) or went (back to them).
void AppDelegate::notifierHostChanged(bool available)
{
    if (available == inNotifierHost_) {
        return;
    }
    hide();
    inNotifierHost_ = available;
    if (available) {
        statusItem_.reset();
    } else if (statusItem_ == nullptr) {
        createTrayIcon();
    }
    followTray(false);
}

void AppDelegate::itemActivated(QPoint hostPoint)
{
    activationPoint_ = itemPosition(hostPoint);
    statusItemClicked(QSystemTrayIcon::Trigger);
}

// Where the StatusNotifier host says its item was clicked, in Qt's coordinates. A host that gives the position
// inside its bar (waybar) tells only how far down: its tray sits at the end of the bar, so the panel goes to the
// right end of the screen the pointer was last seen on, at that height.
std::optional<QPoint> AppDelegate::itemPosition(QPoint hostPoint) const
{
    if (notifierItem_ != nullptr && !notifierItem_->hostGivesGlobalPositions()) {
        const QRect screen = screenFor({QCursor::pos(), QSize(0, 0)});
        if (screen.isEmpty()) {
            return std::nullopt;
        }
        return QPoint(screen.x() + screen.width() - 1, screen.y() + std::clamp(hostPoint.y(), 0, screen.height() - 1));
    }
    return HostPoint::toLogical(hostPoint, HostPoint::currentScreens());
}

void AppDelegate::configurePanel()
{
    panel_ = std::make_unique<PopoverPanel>(new PopoverView(controller_, *hotkeys_));
    panel_->setManagedByCompositor(WaylandSession::isActive());
    connect(panel_.get(), &PopoverPanel::dismissRequested, this, [this] { hide(); });
    connect(panel_.get(), &PopoverPanel::focusLost, this, [this] { focusLost(); });
    connect(panel_.get(), &PopoverPanel::appearanceChanged, this, [this] {
        const QIcon icon = Symbols::trayIcon(QGuiApplication::palette());
        if (statusItem_ != nullptr) {
            statusItem_->setIcon(icon);
        }
        if (notifierItem_ != nullptr) {
            notifierItem_->setIcon(icon);
        }
    });
}

void AppDelegate::registerForDisplayChanges()
{
    displayChanges_ = std::make_unique<DisplayChangeMonitor>([this](unsigned flags) {
        if ((flags & DisplayChange::refreshMask) != 0) {
            controller_.refresh();
        }
    });
}

// Without a tray the panel becomes the window (opened at start, said once); with one it floats under the icon,
// which Qt docks by itself when the tray appears.
void AppDelegate::followTray(bool starting)
{
    const bool windowed = !inNotifierHost_ && !QSystemTrayIcon::isSystemTrayAvailable();
    if (windowed == windowed_ && !starting) {
        return;
    }
    if (windowed != windowed_) {
        hide();
        windowed_ = windowed;
        panel_->setWindowed(windowed_);
    }
    if (windowed_ && !saidNoTray_) {
        saidNoTray_ = true;
        say(starting && background_ ? tr(noTrayInBackground) : tr(noTray));
    }
    if (windowed_ && starting && !background_) {
        showWindow();
    }
}

void AppDelegate::registerForResume()
{
    resume_ = std::make_unique<ResumeMonitor>([this] {
        controller_.refresh();
        QTimer::singleShot(secondRefreshAfterResume, Qt::PreciseTimer, this, [this] { controller_.refresh(); });
    });
}

void AppDelegate::statusItemClicked(QSystemTrayIcon::ActivationReason reason)
{
    if (reason == QSystemTrayIcon::Context) {
        showMenu();
        return;
    }
    const std::optional<QPoint> pressed = hiddenByPressAt_;
    hiddenByPressAt_.reset();
    if (pressed && (QCursor::pos() - *pressed).manhattanLength() <= clickSlop) {
        return;  // the press of this very click already hid the panel
    }
    const bool justLostFocus = hiddenByFocusLoss_.isValid() && hiddenByFocusLoss_.elapsed() < focusLossToActivationMs;
    hiddenByFocusLoss_.invalidate();
    if (justLostFocus) {
        return;  // this click took the focus from the panel, which closed
    }
    // A second click within the double-click interval arrives as DoubleClick: it is a click like any other.
    toggle();
}

void AppDelegate::toggle()
{
    if (panel_ != nullptr && panel_->isVisible() && !windowed_) {
        hide();
    } else {
        showPanel();
    }
}

void AppDelegate::showPanel()
{
    if (panel_ == nullptr) {
        return;
    }
    if (windowed_) {
        showWindow();
    } else if (!panel_->isVisible()) {
        show();
    } else {
        panel_->raise();
        panel_->takeFocus();
    }
}

bool AppDelegate::statusItemHasGeometry() const
{
    const QRect geometry = statusItem_ != nullptr ? statusItem_->geometry() : QRect();
    return geometry.isValid() && !geometry.isEmpty();
}

bool AppDelegate::hasStatusItem() const
{
    return statusItem_ != nullptr || (notifierItem_ != nullptr && inNotifierHost_);
}

QRect AppDelegate::statusItemAnchor() const
{
    // An XEmbed tray tells where the icon is; a StatusNotifier host tells where it was clicked; otherwise the
    // cursor, which just clicked it, stands in.
    if (statusItemHasGeometry()) {
        return statusItem_->geometry();
    }
    if (inNotifierHost_ && activationPoint_) {
        return {*activationPoint_, QSize(0, 0)};
    }
    return {QCursor::pos(), QSize(0, 0)};
}

void AppDelegate::show()
{
    if (!hasStatusItem() || panel_ == nullptr || panel_->contentView() == nullptr) {
        return;
    }
    hiddenByPressAt_.reset();
    hiddenByFocusLoss_.invalidate();
    controller_.refresh();
    const QRect anchor = statusItemAnchor();
    QScreen* screen = screenAt(anchor);
    panel_->placeAt(anchor, screenFor(anchor), screen != nullptr ? screen->availableGeometry() : QRect());
    panel_->setComposited(Compositor::isRunning());
    // The host's token for this click lets the compositor give the new window the focus.
    const QString token = notifierItem_ != nullptr ? notifierItem_->takeActivationToken() : QString();
    if (!token.isEmpty()) {
        if (QGuiApplication::platformName().startsWith(QLatin1String("wayland"))) {
            qputenv("XDG_ACTIVATION_TOKEN", token.toUtf8());
        } else {
            InputFocus::announceActivation(*panel_, token);
        }
    }
    panel_->show();
    panel_->raise();
    panel_->takeFocus();
    InputFocus::completeStartup(*panel_, token);
    if (!WaylandSession::isActive()) {
        // On X11 a click elsewhere is seen directly; on Wayland the panel closes when it loses the focus.
        dismissMonitor_ = OutsideClickWatcher::install([this](QPoint position) { return isOwnWindowAt(position); },
                                                       [this](QPoint position) { outsidePress(position); });
    }
}

void AppDelegate::showWindow()
{
    controller_.refresh();
    QScreen* screen = panel_->isVisible() && panel_->screen() != nullptr ? panel_->screen()
                                                                       : QGuiApplication::primaryScreen();
    if (screen != nullptr) {
        panel_->limitTo(screen->availableGeometry());
    }
    panel_->show();
    panel_->raise();
    panel_->activateWindow();
}

void AppDelegate::hide()
{
    if (panel_ != nullptr) {
        if (panel_->isVisible()) {
            panel_->giveFocusBack();
        }
        panel_->hide();
    }
    dismissMonitor_.reset();
}

void AppDelegate::outsidePress(QPoint position)
{
    if (!statusItemHasGeometry()) {
        hiddenByPressAt_ = position;
    }
    hide();
}

void AppDelegate::focusLost()
{
    if (panel_ == nullptr || !panel_->isVisible() || panel_->isWindowed()) {
        return;
    }
    // A menu or dialog of Lumora's own that took the focus leaves the panel alone.
    if (QWidget* active = QApplication::activePopupWidget(); active != nullptr) {
        return;
    }
    if (const QWidget* active = QApplication::activeWindow(); active != nullptr && active != panel_.get()) {
        return;
    }
    hide();
    hiddenByFocusLoss_.start();
}

bool AppDelegate::isOwnWindowAt(QPoint position) const
{
    if (panel_ != nullptr && panel_->isVisible() && panel_->frameGeometry().contains(position)) {
        return true;
    }
    if (statusItemHasGeometry() && statusItem_->geometry().contains(position)) {
        return true;
    }
    for (const QWidget* window : QApplication::topLevelWidgets()) {
        const bool ours = qobject_cast<const QMenu*>(window) != nullptr || qobject_cast<const QDialog*>(window) != nullptr;
        if (ours && window->isVisible() && window->frameGeometry().contains(position)) {
            return true;
        }
    }
    return false;
}

StatusMenu* AppDelegate::buildMenu()
{
    auto* menu = new StatusMenu;
    QAction* about = menu->addAction(tr("About Lumora"));
    QAction* updates = menu->addAction(tr("Check for Updates\u2026"));
    updates->setEnabled(updater_.isAvailable());
    menu->addSeparator();
    QAction* quitItem = menu->addAction(tr("Quit Lumora"));
    quitItem->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
    quitItem->setShortcutVisibleInContextMenu(true);
    menu->quitAction = quitItem;
    connect(about, &QAction::triggered, this, [this] { showAbout(); });
    connect(updates, &QAction::triggered, this, [this] { checkForUpdates(); });
    connect(quitItem, &QAction::triggered, this, [this] { quit(); });
    return menu;
}

void AppDelegate::showMenu(std::optional<QPoint> hostPoint)
{
    if (!hasStatusItem()) {
        return;
    }
    StatusMenu* menu = buildMenu();
    menu->setAttribute(Qt::WA_DeleteOnClose);

    // Under the item on a top panel, above it on a bottom panel: the XEmbed icon's geometry, else where the host
    // says the click was, else the cursor.
    QRect anchor = statusItemAnchor();
    if (!statusItemHasGeometry() && hostPoint) {
        if (const std::optional<QPoint> at = itemPosition(*hostPoint)) {
            anchor = {*at, QSize(0, 0)};
        }
    }
    const QRect screen = screenFor(anchor);
    const QSize size = menu->sizeHint();
    QPoint at(anchor.x(), anchor.y() + anchor.height() + menuGap);
    if (anchor.center().y() >= screen.center().y()) {
        at.setY(anchor.y() - menuGap - size.height());
    }
    menu->popup(at);
}

void AppDelegate::showAbout()
{
    if (about_ == nullptr) {
        about_ = new AboutBox(QStringLiteral(LUMORA_VERSION));
        about_->setAttribute(Qt::WA_DeleteOnClose);
        about_->setModal(false);
    }
    about_->show();
    about_->raise();
    about_->activateWindow();
}

void AppDelegate::checkForUpdates()
{
    updater_.checkForUpdates();
}

void AppDelegate::quit()
{
    QCoreApplication::quit();
}

}  // namespace Lumora
