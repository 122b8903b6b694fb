// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/HyprlandDesktop.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdlib>
#include <optional>

#include "Lumora/Platform/Linux/Desktop/DesktopInputs.h"
#include "Lumora/Platform/Linux/Desktop/IpcSocket.h"

namespace Lumora {
namespace {

constexpr auto answerWithin = std::chrono::milliseconds(250);

double number(const QJsonObject& object, const char* key)
{
    return object.value(QLatin1String(key)).toDouble();
}

class Hyprland final : public DesktopInputs {
public:
    explicit Hyprland(const std::string& signature)
    {
        const char* runtime = std::getenv("XDG_RUNTIME_DIR");
        const std::string current = std::string(runtime != nullptr ? runtime : "") + "/hypr/" + signature + "/.socket.sock";
        const std::string before = "/tmp/hypr/" + signature + "/.socket.sock";
        socketPath_ = runtime != nullptr && IpcSocket(current, answerWithin).connected() ? current : before;
    }

    std::string name() const override { return "Hyprland"; }

    DesktopView read() override
    {
        const std::optional<QByteArray> monitors = ask("j/monitors");
        if (!monitors)
            return {};
        return DesktopLayout::view(HyprlandDesktop::answers(*monitors, ask("j/activewindow").value_or(QByteArray()),
                                                            ask("j/cursorpos").value_or(QByteArray())));
    }

private:
    // Hyprland serves one request per connection, and stalls while a connection stays open: close it at once.
    std::optional<QByteArray> ask(const std::string& request) const
    {
        IpcSocket socket(socketPath_, answerWithin);
        if (!socket.send(request))
            return std::nullopt;
        const std::optional<std::string> reply = socket.receiveAll();
        if (!reply)
            return std::nullopt;
        return QByteArray::fromStdString(*reply);
    }

    std::string socketPath_;
};

}  // namespace

CompositorAnswers HyprlandDesktop::answers(const QByteArray& monitors, const QByteArray& activeWindow,
                                           const QByteArray& cursor)
{
    CompositorAnswers answers;
    for (const QJsonValue value : QJsonDocument::fromJson(monitors).array()) {
        const QJsonObject monitor = value.toObject();
        if (monitor.value(QLatin1String("disabled")).toBool())
            continue;
        CompositorOutput out;
        out.name = monitor.value(QLatin1String("name")).toString().toStdString();
        out.model = monitor.value(QLatin1String("model")).toString().toStdString();
        out.serialNumber = monitor.value(QLatin1String("serial")).toString().toStdString();
        out.area = {number(monitor, "x"), number(monitor, "y"), number(monitor, "width"), number(monitor, "height")};
        out.sizeInPixels = true;
        out.scale = number(monitor, "scale");
        out.quarterTurned = monitor.value(QLatin1String("transform")).toInt() % 2 == 1;  // 90° or 270°, flipped or not
        out.active = monitor.value(QLatin1String("focused")).toBool();
        answers.outputs.push_back(std::move(out));
    }
    const QJsonObject window = QJsonDocument::fromJson(activeWindow).object();
    const QJsonArray at = window.value(QLatin1String("at")).toArray();
    const QJsonArray size = window.value(QLatin1String("size")).toArray();
    if (at.size() == 2 && size.size() == 2 && size[0].toDouble() > 0 && size[1].toDouble() > 0)
        answers.focusedWindow = Rect{at[0].toDouble(), at[1].toDouble(), size[0].toDouble(), size[1].toDouble()};
    const QJsonObject pointer = QJsonDocument::fromJson(cursor).object();
    if (pointer.contains(QLatin1String("x")) && pointer.contains(QLatin1String("y")))
        answers.pointer = Point{number(pointer, "x"), number(pointer, "y")};
    return answers;
}

std::unique_ptr<DesktopInputs> makeHyprlandDesktop(const std::string& instanceSignature)
{
    return std::make_unique<Hyprland>(instanceSignature);
}

}  // namespace Lumora
