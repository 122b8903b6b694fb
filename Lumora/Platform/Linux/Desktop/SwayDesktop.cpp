// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/SwayDesktop.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>

#include <cstdint>
#include <cstring>
#include <optional>

#include "Lumora/Platform/Linux/Desktop/DesktopInputs.h"
#include "Lumora/Platform/Linux/Desktop/IpcSocket.h"

namespace Lumora {
namespace {

constexpr char magic[] = "i3-ipc";
constexpr std::size_t magicLength = sizeof(magic) - 1;
constexpr std::uint32_t getOutputs = 3;
constexpr std::uint32_t getTree = 4;
constexpr auto answerWithin = std::chrono::milliseconds(250);

Rect rectOf(const QJsonObject& rect)
{
    return {rect.value(QLatin1String("x")).toDouble(), rect.value(QLatin1String("y")).toDouble(),
            rect.value(QLatin1String("width")).toDouble(), rect.value(QLatin1String("height")).toDouble()};
}

// The focused window: the focused node that is a window (a workspace or an output may hold the focus instead).
std::optional<Rect> focusedWindow(const QJsonObject& node)
{
    const QString type = node.value(QLatin1String("type")).toString();
    if (node.value(QLatin1String("focused")).toBool() &&
        (type == QLatin1String("con") || type == QLatin1String("floating_con"))) {
        return rectOf(node.value(QLatin1String("rect")).toObject());
    }
    for (const char* children : {"nodes", "floating_nodes"}) {
        for (const QJsonValue child : node.value(QLatin1String(children)).toArray()) {
            if (const std::optional<Rect> found = focusedWindow(child.toObject()))
                return found;
        }
    }
    return std::nullopt;
}

// One request and its reply on sway's socket: "i3-ipc", the payload's length and the message type (each 32 bits
// in the machine's order), then the payload; the reply is framed the same way.
std::optional<QByteArray> ask(IpcSocket& socket, std::uint32_t type)
{
    std::string request(magic, magicLength);
    const std::uint32_t header[2] = {0, type};
    request.append(reinterpret_cast<const char*>(header), sizeof(header));
    if (!socket.send(request))
        return std::nullopt;
    const std::optional<std::string> head = socket.receive(magicLength + sizeof(header));
    if (!head || head->compare(0, magicLength, magic) != 0)
        return std::nullopt;
    std::uint32_t reply[2];
    std::memcpy(reply, head->data() + magicLength, sizeof(reply));
    if (reply[1] != type || reply[0] > 64u * 1024 * 1024)
        return std::nullopt;
    const std::optional<std::string> payload = socket.receive(reply[0]);
    if (!payload)
        return std::nullopt;
    return QByteArray::fromStdString(*payload);
}

class Sway final : public DesktopInputs {
public:
    explicit Sway(std::string socketPath) : socketPath_(std::move(socketPath)) {}

    std::string name() const override { return "sway"; }

    DesktopView read() override
    {
        IpcSocket socket(socketPath_, answerWithin);
        const std::optional<QByteArray> outputs = ask(socket, getOutputs);
        const std::optional<QByteArray> tree = outputs ? ask(socket, getTree) : std::nullopt;
        if (!tree)
            return {};
        return DesktopLayout::view(SwayDesktop::answers(*outputs, *tree));
    }

private:
    const std::string socketPath_;
};

}  // namespace

CompositorAnswers SwayDesktop::answers(const QByteArray& outputs, const QByteArray& tree)
{
    CompositorAnswers answers;
    for (const QJsonValue value : QJsonDocument::fromJson(outputs).array()) {
        const QJsonObject output = value.toObject();
        if (!output.value(QLatin1String("active")).toBool(true))
            continue;
        CompositorOutput out;
        out.name = output.value(QLatin1String("name")).toString().toStdString();
        out.model = output.value(QLatin1String("model")).toString().toStdString();
        out.serialNumber = output.value(QLatin1String("serial")).toString().toStdString();
        out.area = rectOf(output.value(QLatin1String("rect")).toObject());
        out.active = output.value(QLatin1String("focused")).toBool();
        answers.outputs.push_back(std::move(out));
    }
    answers.focusedWindow = focusedWindow(QJsonDocument::fromJson(tree).object());
    return answers;
}

std::unique_ptr<DesktopInputs> makeSwayDesktop(const std::string& socketPath)
{
    return std::make_unique<Sway>(socketPath);
}

}  // namespace Lumora
