// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// The status menu that pops up from the tray item: "q" (and the desktop's usual Ctrl+Q) quits while it is open.

#include <QMenu>

namespace Lumora {

class StatusMenu : public QMenu {
    Q_OBJECT
public:
    using QMenu::QMenu;
    QAction* quitAction = nullptr;

protected:
    void keyPressEvent(QKeyEvent* event) override;
};

}  // namespace Lumora
