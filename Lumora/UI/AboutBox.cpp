// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/UI/AboutBox.h"

#include <QApplication>
#include <QDialogButtonBox>
#include <QFontMetrics>
#include <QHBoxLayout>
#include <QLabel>
#include <QPushButton>
#include <QVBoxLayout>

#include <algorithm>

#include "Lumora/UI/Style.h"
#include "Lumora/UI/Symbols.h"

namespace Lumora {
namespace {

constexpr int iconSize = 48;
constexpr int narrowest = 380;
// What a title bar needs beside the title itself: the window menu, the buttons and their margins.
constexpr int titleBarAllowance = 180;

}  // namespace

AboutBox::AboutBox(const QString& version, QWidget* parent) : QDialog(parent)
{
    setObjectName(QStringLiteral("aboutBox"));
    setWindowTitle(tr("About Lumora"));

    auto* icon = new QLabel(this);
    icon->setPixmap(Symbols::trayIcon(palette()).pixmap(QSize(iconSize, iconSize), devicePixelRatioF()));
    icon->setAccessibleName(tr("Lumora"));
    icon->setAlignment(Qt::AlignTop);

    auto* name = new QLabel(tr("Lumora %1").arg(version), this);
    name->setObjectName(QStringLiteral("aboutName"));
    QFont headline = Style::headline(*this);
    headline.setPointSizeF(headline.pointSizeF() * 1.25);
    name->setFont(headline);
    auto* what = new QLabel(tr("Brightness and standby for every display on the desk."), this);
    what->setObjectName(QStringLiteral("aboutText"));
    what->setWordWrap(true);
    auto* licence = new QLabel(tr("Free software under the GNU General Public License, version 3 or any later "
                                  "version. It comes with no warranty."),
                               this);
    licence->setObjectName(QStringLiteral("aboutLicence"));
    licence->setWordWrap(true);

    auto* text = new QVBoxLayout;
    text->setSpacing(8);
    text->addWidget(name);
    text->addWidget(what);
    text->addWidget(licence);
    text->addStretch(1);

    auto* body = new QHBoxLayout;
    body->setSpacing(16);
    body->addWidget(icon, 0, Qt::AlignTop);
    body->addLayout(text, 1);

    auto* buttons = new QDialogButtonBox(QDialogButtonBox::Ok, this);
    connect(buttons, &QDialogButtonBox::accepted, this, &QDialog::accept);

    auto* layout = new QVBoxLayout(this);
    layout->setContentsMargins(20, 20, 20, 16);
    layout->setSpacing(16);
    layout->addLayout(body);
    layout->addWidget(buttons);

    const QFontMetrics titleFont(QApplication::font("QMdiSubWindowTitleBar"));
    setMinimumWidth(std::max(narrowest, titleFont.horizontalAdvance(windowTitle()) + titleBarAllowance));
}

}  // namespace Lumora
