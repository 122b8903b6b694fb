// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// "About Lumora": the sun, the name and version, one line on what Lumora does, and OK. Wide enough for its whole
// title in the window manager's title bar, and for its text on few lines.

#include <QDialog>

namespace Lumora {

class AboutBox : public QDialog {
    Q_OBJECT
public:
    explicit AboutBox(const QString& version, QWidget* parent = nullptr);
};

}  // namespace Lumora
