// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The tray application's root: it owns the display controller, the brightness keys and the updater for the whole
// run, puts the sun into the system tray, opens and closes the floating panel on a left click, pops up the status
// menu on a right click, and refreshes the displays whenever one is added, removed, enabled or disabled, and after
// a resume from suspend.
//
// On a desktop without a tray the panel is an ordinary window instead, opened at start (unless started with
// --background, as the session's autostart does) and again whenever Lumora is started a second time; when a tray appears the icon docks and the panel floats under it again. A second start on
// any desktop reaches the running Lumora over the session bus and shows its panel.

#include <QElapsedTimer>
#include <QObject>
#include <QPoint>
#include <QPointer>
#include <QSystemTrayIcon>

#include <memory>
#include <optional>

#include "Lumora/App/DisplayController.h"
#include "Lumora/App/OnScreenDisplay.h"
#include "Lumora/Platform/Linux/Desktop/SessionBus.h"
#include "Lumora/Hotkeys/HotkeyService.h"
#include "Lumora/Updater/Updater.h"

namespace Lumora {

class AboutBox;
class DisplayChangeMonitor;
class StatusMenu;
class StatusNotifierItem;
class OutsideClickWatcher;
class PopoverPanel;
class ResumeMonitor;
class TrayWatcher;

class AppDelegate : public QObject {
    Q_OBJECT
public:
    // Creates the controller and the updater; nothing is shown yet.
    AppDelegate();
    ~AppDelegate() override;

    // The application start: one instance per session, a tray-only QApplication, one delegate, the event loop.
    // Returns the exit status (0 after Quit; 0 at once for --help and --version, and when another instance runs,
    // which is asked to show its panel unless this one was started with --background; 1 at once when there is no
    // display server to show anything on; 2 for an argument that is neither Lumora's nor Qt's).
    static int runApplication(int argc, char** argv);

    // Serves the session bus interface (the panel, and the controller's operations for scripts and shortcuts);
    // another Lumora may own it already.
    SessionBus::Claim serveSessionBus();

    // Builds the tray item and the panel, refreshes the displays and starts watching for display changes and for
    // resumes from suspend.
    void applicationDidFinishLaunching();

    // Shows the panel when it is hidden, hides it when it is shown.
    void toggle();
    // Shows the panel, or brings it forward when it is shown: under the tray item, or as the window.
    void showPanel();

private:
    void configureStatusItem();
    void createTrayIcon();
    void notifierHostChanged(bool available);
    void itemActivated(QPoint hostPoint);
    std::optional<QPoint> itemPosition(QPoint hostPoint) const;
    void configurePanel();
    void registerForDisplayChanges();
    void followTray(bool starting);
    void registerForResume();
    void statusItemClicked(QSystemTrayIcon::ActivationReason reason);
    void show();
    void showWindow();
    void hide();
    void outsidePress(QPoint position);
    void focusLost();
    StatusMenu* buildMenu();
    void showMenu(std::optional<QPoint> hostPoint = std::nullopt);
    void showAbout();
    void checkForUpdates();
    void quit();
    bool isOwnWindowAt(QPoint position) const;
    bool statusItemHasGeometry() const;
    bool hasStatusItem() const;
    QRect statusItemAnchor() const;

    DisplayController controller_;
    OnScreenDisplay osd_{controller_};  // after a key or a bus call; never after the panel's sliders
    Updater updater_;
    std::unique_ptr<HotkeyService> hotkeys_;  // outlives the panel, which shows it
    // The tray item: Lumora's own StatusNotifier item where the session has a host for it, else Qt's tray icon,
    // which docks in an XEmbed tray.
    std::unique_ptr<QSystemTrayIcon> statusItem_;
    std::unique_ptr<StatusMenu> exportedMenu_;  // the status menu as StatusNotifier hosts show it
    std::unique_ptr<StatusNotifierItem> notifierItem_;
    bool inNotifierHost_ = false;
    // Where the StatusNotifier host last said its item was clicked, in Qt's coordinates.
    std::optional<QPoint> activationPoint_;
    std::unique_ptr<PopoverPanel> panel_;
    std::unique_ptr<OutsideClickWatcher> dismissMonitor_;
    std::unique_ptr<DisplayChangeMonitor> displayChanges_;
    std::unique_ptr<TrayWatcher> trayWatcher_;
    std::unique_ptr<SessionBus> sessionBus_;
    QPointer<AboutBox> about_;
    bool windowed_ = false;     // no tray: the panel is an ordinary window
    bool saidNoTray_ = false;
    bool background_ = false;   // started with --background: no window at start
    // Where a press outside hid the panel while the tray item has no geometry: that press may have been the click
    // on the item itself, whose activation then follows and must not open the panel again.
    std::optional<QPoint> hiddenByPressAt_;
    // When the panel last closed because it lost the focus: the click on the tray item that took the focus from it
    // is followed by the item's activation, which must not open it again.
    QElapsedTimer hiddenByFocusLoss_;
    std::unique_ptr<ResumeMonitor> resume_;
};

}  // namespace Lumora
