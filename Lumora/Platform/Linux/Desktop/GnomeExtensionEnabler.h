// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// Turns Lumora's GNOME Shell extension on at Lumora's first start in a GNOME Shell session. GNOME enables no
// extension by itself, and without this one Lumora has no top-bar button that opens the panel on a single click
// (the AppIndicator extension opens an item's menu instead) and the keys cannot tell the monitor the user works on.
// It is done once per user, and recorded in Lumora's settings: a user who turns the extension off later keeps it
// off. Nothing is done off GNOME Shell, when the extension is not installed, or when the user's extensions are
// turned off. Every question to the shell is asynchronous and bounded: the start never waits for it.

#include <QObject>

namespace Lumora {

class GnomeExtensionEnabler : public QObject {
    Q_OBJECT
public:
    // Starts the questions to the shell; the enabler, a child of parent, deletes itself once it is done.
    static void start(QObject* parent);

private:
    explicit GnomeExtensionEnabler(QObject* parent);
    void askUserExtensionsEnabled();
    void askExtensionInfo();
    void enable();
    void record();
};

}  // namespace Lumora
