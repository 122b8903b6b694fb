#pragma once
// The tray application's root: it owns the display controller and the updater for the whole run, puts the sun into
// the system tray, opens and closes the floating panel on a left click, pops up the status menu on a right click,
// and refreshes the displays whenever one is added, removed, enabled or disabled.

#include <QObject>
#include <QPoint>
#include <QPointer>
#include <QSystemTrayIcon>

#include <memory>

#include "Lumora/App/DisplayController.h"
#include "Lumora/Updater/Updater.h"

class QMessageBox;

namespace Lumora {

class DisplayChangeMonitor;
class OutsideClickWatcher;
class PopoverPanel;

class AppDelegate : public QObject {
    Q_OBJECT
public:
    // Creates the controller and the updater; nothing is shown yet.
    AppDelegate();
    ~AppDelegate() override;

    // The application start: one instance per session, a tray-only QApplication, one delegate, the event loop.
    // Returns the exit status (0 after Quit; 0 at once when another instance runs; 1 at once when there is no
    // display server to show a tray on).
    static int runApplication(int argc, char** argv);

    // Builds the tray item and the panel, refreshes the displays and starts watching for display changes.
    void applicationDidFinishLaunching();

    // Shows the panel when it is hidden, hides it when it is shown.
    void toggle();

private:
    void configureStatusItem();
    void configurePanel();
    void registerForDisplayChanges();
    void statusItemClicked(QSystemTrayIcon::ActivationReason reason);
    void show();
    void hide();
    void showMenu();
    void showAbout();
    void checkForUpdates();
    void quit();
    bool isOwnWindowAt(QPoint position) const;
    QRect statusItemAnchor() const;

    DisplayController controller_;
    Updater updater_;
    std::unique_ptr<QSystemTrayIcon> statusItem_;
    std::unique_ptr<PopoverPanel> panel_;
    std::unique_ptr<OutsideClickWatcher> dismissMonitor_;
    std::unique_ptr<DisplayChangeMonitor> displayChanges_;
    QPointer<QMessageBox> about_;
};

}  // namespace Lumora
