// SPDX-License-Identifier: GPL-3.0-or-later
#pragma once
// sway (and other compositors that speak its IPC): the outputs with their connector names, make, model, serial
// and frames in the layout's logical units (get_outputs), and the focused window (get_tree's focused node). sway
// tells no pointer: its focused output stands for it.

#include <QByteArray>

#include "LumoraCore/DesktopLayout.h"

namespace Lumora::SwayDesktop {

// The answers to get_outputs and get_tree, as sway sends them (JSON). Outputs that are off are left out.
CompositorAnswers answers(const QByteArray& outputs, const QByteArray& tree);

}  // namespace Lumora::SwayDesktop
