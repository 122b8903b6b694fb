// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/KWinDesktop.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusReply>
#include <QDir>
#include <QFile>
#include <QObject>
#include <QRegularExpression>
#include <QStandardPaths>

#include "Lumora/Platform/Linux/Desktop/DesktopInputs.h"

namespace Lumora {
namespace {

constexpr int answerWithinMs = 250;
const QString kwin = QStringLiteral("org.kde.KWin");
const QString reportPath = QStringLiteral("/org/lumora/Lumora/KWin");

QDBusMessage ask(const QString& path, const QString& interface, const QString& method, const QVariantList& args = {})
{
    QDBusMessage call = QDBusMessage::createMethodCall(kwin, path, interface, method);
    call.setArguments(args);
    return QDBusConnection::sessionBus().call(call, QDBus::Block, answerWithinMs);
}

// The script KWin runs for Lumora: the active window's frame, sent to this process whenever it may have changed.
QString script(const QString& service)
{
    return QStringLiteral(R"(
const service = "%1";
let watched = null;
function report() {
    const c = workspace.activeClient;
    const g = c ? c.frameGeometry : null;
    callDBus(service, "%2", "org.lumora.Lumora.KWin", "Report",
             g ? g.x + " " + g.y + " " + g.width + " " + g.height : "none");
}
function activated(c) {
    if (watched) watched.frameGeometryChanged.disconnect(report);
    watched = c;
    if (c) c.frameGeometryChanged.connect(report);
    report();
}
workspace.clientActivated.connect(activated);
activated(workspace.activeClient);
)")
        .arg(service, reportPath);
}

// Takes the script's reports.
class Reports : public QObject {
    Q_OBJECT
    Q_CLASSINFO("D-Bus Interface", "org.lumora.Lumora.KWin")
public:
    QString last = QStringLiteral("none");
    bool heard = false;

public slots:
    Q_SCRIPTABLE void Report(const QString& frame)
    {
        last = frame;
        heard = true;
    }
};

class KWin final : public DesktopInputs {
public:
    std::string name() const override { return "KWin"; }

    DesktopView read() override
    {
        startScript();
        const QDBusReply<QString> active = ask(QStringLiteral("/KWin"), kwin, QStringLiteral("activeOutputName"));
        if (!active.isValid() || active.value().isEmpty())
            return {};
        CompositorAnswers answers;
        answers.outputs = outputs(active.value());
        for (CompositorOutput& output : answers.outputs)
            output.active = output.name == active.value().toStdString();
        answers.focusedWindow = KWinDesktop::window(reports_.last);
        return DesktopLayout::view(answers);
    }

private:
    // KWin's outputs, read again when the active output is not among them (one was added, or renamed).
    const std::vector<CompositorOutput>& outputs(const QString& active)
    {
        for (const CompositorOutput& output : outputs_) {
            if (output.name == active.toStdString())
                return outputs_;
        }
        const QDBusReply<QString> info = ask(QStringLiteral("/KWin"), kwin, QStringLiteral("supportInformation"));
        outputs_ = info.isValid() ? KWinDesktop::outputs(info.value()) : std::vector<CompositorOutput>{};
        if (outputs_.empty()) {
            // Nothing to read: the active output alone, which is then the display in use.
            CompositorOutput alone;
            alone.name = active.toStdString();
            alone.area = {0, 0, 1, 1};
            outputs_.push_back(alone);
        }
        return outputs_;
    }

    // Loads and starts the reporting script once per session bus connection.
    void startScript()
    {
        if (started_)
            return;
        started_ = true;
        QDBusConnection bus = QDBusConnection::sessionBus();
        if (!bus.isConnected() || !bus.registerObject(reportPath, &reports_, QDBusConnection::ExportScriptableSlots))
            return;
        // In the user's own runtime directory (Qt makes one of mode 0700 when the session has none), never in a
        // directory others may write to.
        const QString dir = QStandardPaths::writableLocation(QStandardPaths::RuntimeLocation);
        if (dir.isEmpty())
            return;
        QFile file(QDir(dir).filePath(QStringLiteral("lumora-kwin.js")));
        if (!file.open(QIODevice::WriteOnly | QIODevice::Truncate) || file.write(script(bus.baseService()).toUtf8()) < 0)
            return;
        file.close();
        // One Lumora runs per session: a script left by an earlier one (that ended without unloading it) goes.
        const QString plugin = QStringLiteral("lumora-display-in-use");
        ask(QStringLiteral("/Scripting"), QStringLiteral("org.kde.kwin.Scripting"), QStringLiteral("unloadScript"), {plugin});
        const QDBusReply<int> id = ask(QStringLiteral("/Scripting"), QStringLiteral("org.kde.kwin.Scripting"),
                                       QStringLiteral("loadScript"), {file.fileName(), plugin});
        if (!id.isValid() || id.value() < 0)
            return;
        // KWin 5 serves a loaded script at /<id>, KWin 6 at /Scripting/Script<id>.
        const QDBusMessage ran = ask(QStringLiteral("/%1").arg(id.value()), QStringLiteral("org.kde.kwin.Script"),
                                     QStringLiteral("run"));
        if (ran.type() != QDBusMessage::ReplyMessage)
            ask(QStringLiteral("/Scripting/Script%1").arg(id.value()), QStringLiteral("org.kde.kwin.Script"),
                QStringLiteral("run"));
    }

    bool started_ = false;
    Reports reports_;
    std::vector<CompositorOutput> outputs_;
};

}  // namespace

std::vector<CompositorOutput> KWinDesktop::outputs(const QString& supportInformation)
{
    std::vector<CompositorOutput> result;
    static const QRegularExpression screen(QStringLiteral(R"(^Screen \d+:\s*$)"));
    static const QRegularExpression name(QStringLiteral(R"(^Name:\s*(\S+)\s*$)"));
    static const QRegularExpression geometry(QStringLiteral(R"(^Geometry:\s*(-?\d+),(-?\d+),(\d+)x(\d+)\s*$)"));
    static const QRegularExpression disabled(QStringLiteral(R"(^Enabled:\s*0\s*$)"));
    bool inScreen = false;
    for (const QString& line : supportInformation.split(QLatin1Char('\n'))) {
        if (screen.match(line).hasMatch()) {
            inScreen = true;
            result.emplace_back();
            continue;
        }
        if (!inScreen)
            continue;
        if (const QRegularExpressionMatch m = name.match(line); m.hasMatch()) {
            result.back().name = m.captured(1).toStdString();
        } else if (const QRegularExpressionMatch g = geometry.match(line); g.hasMatch()) {
            result.back().area = {g.captured(1).toDouble(), g.captured(2).toDouble(), g.captured(3).toDouble(),
                                  g.captured(4).toDouble()};
        } else if (disabled.match(line).hasMatch()) {
            result.back().name.clear();  // an output that is off shows nothing
        } else if (line.trimmed().isEmpty()) {
            inScreen = false;  // the screens' section ended
        }
    }
    std::erase_if(result, [](const CompositorOutput& o) { return o.name.empty() || o.area.width <= 0; });
    return result;
}

std::optional<Rect> KWinDesktop::window(const QString& report)
{
    const QStringList parts = report.split(QLatin1Char(' '));
    if (parts.size() != 4)
        return std::nullopt;
    bool ok[4];
    const Rect frame{parts[0].toDouble(&ok[0]), parts[1].toDouble(&ok[1]), parts[2].toDouble(&ok[2]),
                     parts[3].toDouble(&ok[3])};
    if (!(ok[0] && ok[1] && ok[2] && ok[3]) || frame.width <= 0 || frame.height <= 0)
        return std::nullopt;
    return frame;
}

std::unique_ptr<DesktopInputs> makeKWinDesktop()
{
    return std::make_unique<KWin>();
}

}  // namespace Lumora

#include "KWinDesktop.moc"
