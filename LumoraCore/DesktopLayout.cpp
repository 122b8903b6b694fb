// SPDX-License-Identifier: GPL-3.0-or-later
#include "LumoraCore/DesktopLayout.h"

#include <utility>

namespace Lumora::DesktopLayout {

Rect logicalFrame(const CompositorOutput& output)
{
    if (!output.sizeInPixels)
        return output.area;
    double width = output.area.width;
    double height = output.area.height;
    if (output.quarterTurned)
        std::swap(width, height);
    const double scale = output.scale > 0.0 ? output.scale : 1.0;
    return {output.area.x, output.area.y, width / scale, height / scale};
}

DesktopView view(const CompositorAnswers& answers)
{
    DesktopView view;
    view.focusedWindow = answers.focusedWindow;
    view.pointer = answers.pointer;
    for (const CompositorOutput& output : answers.outputs) {
        const Rect frame = logicalFrame(output);
        view.screens.push_back({output.name, output.model, output.serialNumber, frame});
        if (!view.pointer && output.active)
            view.pointer = Point{frame.x + frame.width / 2, frame.y + frame.height / 2};
    }
    return view;
}

}  // namespace Lumora::DesktopLayout
