// KWin (KDE Plasma on Wayland): org.kde.KWin on /KWin tells the connector name of the output KWin takes as active
// (activeOutputName, which follows its "active screen" rule: the pointer's output, or the active window's), and
// that output is the display in use. KWin tells other programs nothing of its windows or its pointer over D-Bus.

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusReply>

#include "Lumora/Platform/Linux/Desktop/DesktopInputs.h"

namespace Lumora {
namespace {

constexpr int answerWithinMs = 250;

class KWin final : public DesktopInputs {
public:
    std::string name() const override { return "KWin"; }

    DesktopView read() override
    {
        QDBusMessage call = QDBusMessage::createMethodCall(QStringLiteral("org.kde.KWin"), QStringLiteral("/KWin"),
                                                           QStringLiteral("org.kde.KWin"),
                                                           QStringLiteral("activeOutputName"));
        const QDBusReply<QString> reply = QDBusConnection::sessionBus().call(call, QDBus::Block, answerWithinMs);
        if (!reply.isValid() || reply.value().isEmpty())
            return {};
        // Only the active output is known: it is the one output of the view, and stands for the pointer.
        CompositorAnswers answers;
        CompositorOutput active;
        active.name = reply.value().toStdString();
        active.area = {0, 0, 1, 1};
        active.active = true;
        answers.outputs.push_back(std::move(active));
        return DesktopLayout::view(answers);
    }
};

}  // namespace

std::unique_ptr<DesktopInputs> makeKWinDesktop()
{
    return std::make_unique<KWin>();
}

}  // namespace Lumora
