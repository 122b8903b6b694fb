#include "Lumora/Platform/Linux/Desktop/InputAccessRequest.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QProcess>
#include <QStandardPaths>

#ifndef LUMORA_LIBEXECDIR_FROM_BINDIR
#define LUMORA_LIBEXECDIR_FROM_BINDIR "../libexec/lumora"
#endif

namespace Lumora::InputAccessRequest {
namespace {

constexpr const char* helperName = "lumora-grant-input-access";

// Installed: in the private program directory beside the binary's. In the build tree: beside the binary.
QString helper()
{
    const QString bindir = QCoreApplication::applicationDirPath();
    for (const QString& dir : {bindir + QStringLiteral("/" LUMORA_LIBEXECDIR_FROM_BINDIR), bindir}) {
        const QFileInfo candidate(dir + QLatin1Char('/') + QLatin1String(helperName));
        if (candidate.isFile() && candidate.isExecutable())
            return candidate.canonicalFilePath();
    }
    return {};
}

}  // namespace

bool start()
{
    const QString pkexec = QStandardPaths::findExecutable(QStringLiteral("pkexec"));
    const QString program = helper();
    if (pkexec.isEmpty() || program.isEmpty())
        return false;
    return QProcess::startDetached(pkexec, {program});
}

}  // namespace Lumora::InputAccessRequest
