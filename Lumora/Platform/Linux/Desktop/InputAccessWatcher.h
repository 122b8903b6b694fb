#pragma once
// Tells when the access to the input devices may have changed: inotify on /dev/input (event nodes created or
// removed, their modes, owners or ACLs changed) and on /dev (/dev/uinput, or /dev/input itself, the same). Each
// such inotify event is one notification (inotify itself merges an event with an identical one still unread),
// delivered on the thread of the Qt event loop that created the watcher.

#include <QObject>

#include <functional>

class QSocketNotifier;

namespace Lumora {

class InputAccessWatcher : public QObject {
    Q_OBJECT
public:
    // Without inotify there are no notifications.
    explicit InputAccessWatcher(std::function<void()> onChange, QObject* parent = nullptr);
    ~InputAccessWatcher() override;

private:
    void readEvents();
    void watchInputDirectory();

    std::function<void()> onChange_;
    int inotify_ = -1;
    int devWatch_ = -1;
    int inputWatch_ = -1;
    QSocketNotifier* notifier_ = nullptr;
};

}  // namespace Lumora
