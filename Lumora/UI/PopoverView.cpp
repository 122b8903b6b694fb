// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/UI/PopoverView.h"

#include <QApplication>
#include <QEvent>
#include <QHBoxLayout>
#include <QLabel>
#include <QPainter>
#include <QPainterPath>
#include <QPushButton>
#include <QScrollArea>
#include <QScrollBar>
#include <QToolButton>
#include <QVBoxLayout>

#include <algorithm>
#include <set>

#include "Lumora/App/DisplayController.h"
#include "Lumora/UI/Divider.h"
#include "Lumora/UI/DisplayRow.h"
#include "Lumora/UI/HotkeySettings.h"
#include "Lumora/UI/Style.h"
#include "Lumora/UI/Symbols.h"

namespace Lumora {
namespace {

// The rows' scroll area: as tall as all its rows unless the view is limited, and then at least one row tall.
class RowsArea : public QScrollArea {
public:
    using QScrollArea::QScrollArea;

    QSize sizeHint() const override
    {
        const QSize content = widget() != nullptr ? widget()->sizeHint() : QSize();
        return {content.width(), content.height() + 2 * frameWidth()};
    }
    QSize minimumSizeHint() const override
    {
        return {0, std::min(sizeHint().height(), minimumRows)};
    }

private:
    static constexpr int minimumRows = 56;
};

}  // namespace

PopoverView::PopoverView(DisplayController& controller, QWidget* parent) : QWidget(parent), controller_(controller)
{
    setObjectName(QStringLiteral("popoverView"));
    setFixedWidth(panelWidth);
    setAccessibleName(tr("Lumora"));

    auto* stack = new QVBoxLayout(this);
    stack->setContentsMargins(16, 16, 16, 16);
    stack->setSpacing(14);

    auto* title = new QLabel(tr("Lumora"), this);
    title->setObjectName(QStringLiteral("title"));
    title->setFont(Style::headline(*this));
    stack->addWidget(title);

    empty_ = new QLabel(tr("No external DDC displays found."), this);
    empty_->setObjectName(QStringLiteral("emptyNote"));
    empty_->setFont(Style::subheadline(*this));
    stack->addWidget(empty_);

    rowsArea_ = new RowsArea(this);
    rowsArea_->setObjectName(QStringLiteral("rowsArea"));
    rowsArea_->setFrameShape(QFrame::NoFrame);
    rowsArea_->setWidgetResizable(true);
    rowsArea_->setHorizontalScrollBarPolicy(Qt::ScrollBarAlwaysOff);
    rowsArea_->setVerticalScrollBarPolicy(Qt::ScrollBarAsNeeded);
    rowsArea_->setFocusPolicy(Qt::NoFocus);
    rowsArea_->viewport()->setAutoFillBackground(false);
    rowsArea_->setSizePolicy(QSizePolicy::Preferred, QSizePolicy::Preferred);
    rowsBox_ = new QWidget;
    rowsBox_->setObjectName(QStringLiteral("rows"));
    rows_ = new QVBoxLayout(rowsBox_);
    rows_->setContentsMargins(0, 0, 0, 0);
    rows_->setSpacing(14);
    rowsArea_->setWidget(rowsBox_);
    rowsBox_->setAutoFillBackground(false);  // the view's own background shows through
    stack->addWidget(rowsArea_, 1);

    stack->addWidget(new Divider(this));
    settings_ = new QVBoxLayout;
    settings_->setContentsMargins(0, 0, 0, 0);
    settings_->setSpacing(0);
    stack->addLayout(settings_);
    stack->addWidget(new Divider(this));

    auto* footer = new QHBoxLayout;
    refresh_ = new QToolButton(this);
    refresh_->setObjectName(QStringLiteral("refreshButton"));
    refresh_->setAutoRaise(true);
    refresh_->setFocusPolicy(Qt::StrongFocus);
    refresh_->setProperty("symbol", QStringLiteral("arrow.clockwise"));
    refresh_->setIconSize(QSize(Style::symbolSize, Style::symbolSize));
    refresh_->setToolTip(tr("Refresh displays"));
    refresh_->setAccessibleName(tr("Refresh displays"));
    // An ordinary button: Enter belongs to the focused control, not to Quit.
    quit_ = new QPushButton(tr("Quit"), this);
    quit_->setObjectName(QStringLiteral("quitButton"));
    quit_->setDefault(false);
    quit_->setAutoDefault(false);
    quit_->setToolTip(tr("Quit Lumora"));
    quit_->setAccessibleDescription(tr("Quit Lumora"));
    footer->addWidget(refresh_, 0, Qt::AlignVCenter);
    footer->addStretch(1);
    footer->addWidget(quit_, 0, Qt::AlignVCenter);
    stack->addLayout(footer);

    connect(refresh_, &QToolButton::clicked, this, [this] { controller_.refresh(); });
    connect(quit_, &QPushButton::clicked, this, [] { QCoreApplication::quit(); });
    connect(&controller_, &DisplayController::displaysChanged, this, [this] { showDisplays(); });
    // A row reached with Tab scrolls into view.
    connect(qApp, &QApplication::focusChanged, this, [this](QWidget*, QWidget* now) {
        if (now != nullptr && rowsBox_->isAncestorOf(now)) {
            rowsArea_->ensureWidgetVisible(now, 0, 8);
        }
    });

    showColours();
    showDisplays();
}

PopoverView::PopoverView(DisplayController& controller, HotkeyService& hotkeys, QWidget* parent)
    : PopoverView(controller, parent)
{
    setSettingsSection(new HotkeySettings(hotkeys, this));
}

void PopoverView::setSettingsSection(QWidget* section)
{
    while (QLayoutItem* item = settings_->takeAt(0)) {
        delete item->widget();
        delete item;
    }
    if (section != nullptr) {
        section->setParent(this);
        settings_->addWidget(section);
    }
    chainFocus();
}

void PopoverView::setTranslucentBackground(bool translucent)
{
    translucent_ = translucent;
    update();
}

void PopoverView::setWindowed(bool windowed)
{
    windowed_ = windowed;
    update();
}

void PopoverView::setHeightLimit(int height)
{
    setMaximumHeight(height > 0 ? height : QWIDGETSIZE_MAX);
}

QSize PopoverView::sizeHint() const
{
    return {panelWidth, QWidget::sizeHint().height()};
}

void PopoverView::paintEvent(QPaintEvent*)
{
    QPainter painter(this);
    if (windowed_) {
        painter.fillRect(rect(), palette().color(QPalette::Window));
        return;
    }
    painter.setRenderHint(QPainter::Antialiasing);
    QColor fill = palette().color(QPalette::Window);
    if (translucent_) {
        fill.setAlphaF(0.94F);
    }
    // Without a compositor there is no shadow to lift the panel off the windows under it: a firmer outline does.
    QColor edge = palette().color(QPalette::WindowText);
    edge.setAlphaF(translucent_ ? 0.18F : 0.35F);
    QPainterPath shape;
    shape.addRoundedRect(QRectF(rect()).adjusted(0.5, 0.5, -0.5, -0.5), cornerRadius, cornerRadius);
    painter.setCompositionMode(QPainter::CompositionMode_Source);
    painter.fillPath(shape, fill);
    painter.setCompositionMode(QPainter::CompositionMode_SourceOver);
    painter.setPen(QPen(edge, 1.0));
    painter.drawPath(shape);
}

void PopoverView::changeEvent(QEvent* event)
{
    QWidget::changeEvent(event);
    if (event->type() == QEvent::PaletteChange || event->type() == QEvent::StyleChange) {
        showColours();
    }
}

// The colours that are not simply the palette's own roles: the note's secondary text and the refresh symbol.
void PopoverView::showColours()
{
    QPalette notePalette = empty_->palette();
    notePalette.setColor(QPalette::WindowText, Style::secondary(*this));
    empty_->setPalette(notePalette);
    refresh_->setIcon(Symbols::icon(QStringLiteral("arrow.clockwise"), palette().color(QPalette::ButtonText)));
}

void PopoverView::showDisplays()
{
    const auto& displays = controller_.displays();

    // Rows of displays that are gone leave; rows of displays that stay are kept and updated in place.
    std::set<std::uint32_t> listed;
    for (const auto& display : displays) {
        listed.insert(display.id);
    }
    for (auto it = rowById_.begin(); it != rowById_.end();) {
        if (listed.count(it->first) == 0) {
            rows_->removeWidget(it->second);
            it->second->hide();
            it->second->deleteLater();
            it = rowById_.erase(it);
        } else {
            ++it;
        }
    }

    // The published order is the shown order; a number listed twice shows once, at its first place.
    std::set<std::uint32_t> placed;
    int position = 0;
    for (const auto& display : displays) {
        if (!placed.insert(display.id).second) {
            continue;
        }
        DisplayRow*& row = rowById_[display.id];
        if (row == nullptr) {
            row = new DisplayRow(display, controller_, rowsBox_);
        } else if (row->display() != display) {
            row->update(display);
        }
        if (rows_->indexOf(row) != position) {
            rows_->removeWidget(row);
            rows_->insertWidget(position, row);
        }
        row->show();
        ++position;
    }

    empty_->setVisible(displays.empty());
    rowsArea_->setVisible(!displays.empty());
    rowsArea_->updateGeometry();
    chainFocus();
}

// Tab order, top to bottom: each row's controls, the settings section's, Refresh, Quit.
void PopoverView::chainFocus()
{
    QList<QWidget*> chain;
    for (int i = 0; i < rows_->count(); ++i) {
        if (auto* row = qobject_cast<DisplayRow*>(rows_->itemAt(i)->widget())) {
            chain.append(row->focusChain());
        }
    }
    for (int i = 0; i < settings_->count(); ++i) {
        QWidget* section = settings_->itemAt(i)->widget();
        if (section == nullptr) {
            continue;
        }
        if ((section->focusPolicy() & Qt::TabFocus) != 0) {
            chain.append(section);
        }
        for (QWidget* child : section->findChildren<QWidget*>()) {
            if ((child->focusPolicy() & Qt::TabFocus) != 0) {
                chain.append(child);
            }
        }
    }
    chain.append(refresh_);
    chain.append(quit_);
    for (int i = 0; i + 1 < chain.size(); ++i) {
        QWidget::setTabOrder(chain[i], chain[i + 1]);
    }
}

}  // namespace Lumora
