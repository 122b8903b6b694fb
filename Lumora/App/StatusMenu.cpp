// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/App/StatusMenu.h"

#include <QKeyEvent>

namespace Lumora {

void StatusMenu::keyPressEvent(QKeyEvent* event)
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

}  // namespace Lumora
