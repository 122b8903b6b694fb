#include "Lumora/App/AppDelegate.h"

#include <QApplication>
#include <QCursor>
#include <QDialog>
#include <QKeyEvent>
#include <QMenu>
#include <QMessageBox>
#include <QScreen>

#include <cstdio>

#include "Lumora/App/PopoverPanel.h"
#include "Lumora/Platform/Linux/Desktop/Compositor.h"
#include "Lumora/Platform/Linux/Desktop/DisplayChangeMonitor.h"
#include "Lumora/Platform/Linux/Desktop/OutsideClickWatcher.h"
#include "Lumora/Platform/Linux/Desktop/SingleInstance.h"
#include "Lumora/UI/PopoverView.h"
#include "Lumora/UI/Symbols.h"

#ifndef LUMORA_VERSION
#define LUMORA_VERSION "0"
#endif

namespace Lumora {
namespace {

const QString tooltip = QStringLiteral("Lumora \u2014 external monitor brightness");
constexpr int menuGap = 4;

// The status menu: "q" (and the desktop's usual Ctrl+Q) quits while it is open.
class StatusMenu : public QMenu {
public:
    using QMenu::QMenu;
    QAction* quitAction = nullptr;

protected:
    void keyPressEvent(QKeyEvent* event) override
    {
        const auto modifiers = event->modifiers() & ~Qt::KeypadModifier;
        if (quitAction != nullptr && event->key() == Qt::Key_Q &&
            (modifiers == Qt::NoModifier || modifiers == Qt::ControlModifier)) {
            close();
            quitAction->trigger();
            return;
        }
        QMenu::keyPressEvent(event);
    }
};

// The tray and the panel belong to the X11 desktop: under XWayland too, where positioning a panel and seeing
// clicks elsewhere work as on X11. An explicit QT_QPA_PLATFORM is left alone.
void preferX11()
{
    if (qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM") && !qEnvironmentVariableIsEmpty("DISPLAY")) {
        qputenv("QT_QPA_PLATFORM", "xcb");
    }
}

QRect screenFor(const QRect& anchor)
{
    QScreen* screen = QGuiApplication::screenAt(anchor.center());
    if (screen == nullptr) {
        screen = QGuiApplication::primaryScreen();
    }
    return screen != nullptr ? screen->geometry() : QRect();
}

}  // namespace

AppDelegate::AppDelegate() = default;

AppDelegate::~AppDelegate()
{
    // The watchers go before the panel and the tray item they refer to.
    dismissMonitor_.reset();
    displayChanges_.reset();
    delete about_.data();
}

int AppDelegate::runApplication(int argc, char** argv)
{
    // Without a display server there is no tray to sit in (Qt would abort trying to reach one).
    if (qEnvironmentVariableIsEmpty("DISPLAY") && qEnvironmentVariableIsEmpty("WAYLAND_DISPLAY") &&
        qEnvironmentVariableIsEmpty("QT_QPA_PLATFORM")) {
        std::fputs("lumora: no desktop session here (neither DISPLAY nor WAYLAND_DISPLAY is set), so there is no tray "
                   "to sit in.\nThe probe works anywhere: LUMORA_PROBE=1 lumora\n",
                   stderr);
        return 1;
    }
    if (!SingleInstance::acquire()) {
        return 0;  // another Lumora serves this session
    }
    preferX11();
    QApplication app(argc, argv);
    QApplication::setApplicationName(QStringLiteral("Lumora"));
    QApplication::setApplicationVersion(QStringLiteral(LUMORA_VERSION));
    QApplication::setDesktopFileName(QStringLiteral("lumora"));
    // A tray application: closing a window never ends it, only Quit does.
    QApplication::setQuitOnLastWindowClosed(false);

    AppDelegate delegate;
    delegate.applicationDidFinishLaunching();
    QApplication::exec();
    return 0;
}

void AppDelegate::applicationDidFinishLaunching()
{
    configureStatusItem();
    configurePanel();
    controller_.refresh();
    registerForDisplayChanges();
}

void AppDelegate::configureStatusItem()
{
    statusItem_ = std::make_unique<QSystemTrayIcon>();
    statusItem_->setIcon(Symbols::trayIcon());
    statusItem_->setToolTip(tooltip);
    connect(statusItem_.get(), &QSystemTrayIcon::activated, this,
            [this](QSystemTrayIcon::ActivationReason reason) { statusItemClicked(reason); });
    statusItem_->show();
}

void AppDelegate::configurePanel()
{
    panel_ = std::make_unique<PopoverPanel>(new PopoverView(controller_));
}

void AppDelegate::registerForDisplayChanges()
{
    displayChanges_ = std::make_unique<DisplayChangeMonitor>([this](unsigned flags) {
        if ((flags & DisplayChange::refreshMask) != 0) {
            controller_.refresh();
        }
    });
}

void AppDelegate::statusItemClicked(QSystemTrayIcon::ActivationReason reason)
{
    if (reason == QSystemTrayIcon::Context) {
        showMenu();
        return;
    }
    // A second click within the double-click interval arrives as DoubleClick: it is a click like any other.
    toggle();
}

void AppDelegate::toggle()
{
    if (panel_ != nullptr && panel_->isVisible()) {
        hide();
    } else {
        show();
    }
}

QRect AppDelegate::statusItemAnchor() const
{
    // A StatusNotifier host gives no geometry for the item: the cursor, which just clicked it, stands in.
    const QRect geometry = statusItem_ != nullptr ? statusItem_->geometry() : QRect();
    if (geometry.isValid() && !geometry.isEmpty()) {
        return geometry;
    }
    return {QCursor::pos(), QSize(0, 0)};
}

void AppDelegate::show()
{
    if (statusItem_ == nullptr || panel_ == nullptr || panel_->contentView() == nullptr) {
        return;
    }
    controller_.refresh();
    panel_->fitContent();
    const QRect anchor = statusItemAnchor();
    panel_->placeAt(anchor, screenFor(anchor));
    panel_->setComposited(Compositor::isRunning());
    panel_->show();
    panel_->raise();
    dismissMonitor_ = OutsideClickWatcher::install([this](QPoint position) { return isOwnWindowAt(position); },
                                                   [this] { hide(); });
}

void AppDelegate::hide()
{
    if (panel_ != nullptr) {
        panel_->hide();
    }
    dismissMonitor_.reset();
}

bool AppDelegate::isOwnWindowAt(QPoint position) const
{
    if (panel_ != nullptr && panel_->isVisible() && panel_->frameGeometry().contains(position)) {
        return true;
    }
    if (statusItem_ != nullptr && statusItem_->geometry().contains(position)) {
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

void AppDelegate::showMenu()
{
    if (statusItem_ == nullptr) {
        return;
    }
    auto* menu = new StatusMenu;
    menu->setAttribute(Qt::WA_DeleteOnClose);
    QAction* about = menu->addAction(QStringLiteral("About Lumora"));
    QAction* updates = menu->addAction(QStringLiteral("Check for Updates\u2026"));
    updates->setEnabled(updater_.isAvailable());
    menu->addSeparator();
    QAction* quitItem = menu->addAction(QStringLiteral("Quit Lumora"));
    quitItem->setShortcut(QKeySequence(Qt::CTRL | Qt::Key_Q));
    quitItem->setShortcutVisibleInContextMenu(true);
    menu->quitAction = quitItem;
    connect(about, &QAction::triggered, this, [this] { showAbout(); });
    connect(updates, &QAction::triggered, this, [this] { checkForUpdates(); });
    connect(quitItem, &QAction::triggered, this, [this] { quit(); });

    // Under the item on a top panel, above it on a bottom panel, at the cursor when the tray gives no geometry.
    const QRect anchor = statusItemAnchor();
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
        about_ = new QMessageBox(QMessageBox::NoIcon, QStringLiteral("About Lumora"),
                                 QStringLiteral("Lumora %1").arg(QStringLiteral(LUMORA_VERSION)), QMessageBox::Ok);
        about_->setInformativeText(QStringLiteral("Brightness and standby for every display on the desk."));
        about_->setIconPixmap(Symbols::trayIcon().pixmap(48, 48));
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
