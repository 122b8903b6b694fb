// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/KeyServiceClient.h"

#include <QDBusConnection>
#include <QDBusError>
#include <QDBusMessage>
#include <QDBusPendingCallWatcher>
#include <QDBusPendingReply>
#include <QDBusUnixFileDescriptor>
#include <QSocketNotifier>

#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

namespace Lumora {
namespace {

// polkit's password dialog waits for the user.
constexpr int interactiveTimeoutMs = 300'000;
constexpr int quietTimeoutMs = 25'000;

}  // namespace

KeyServiceClient::KeyServiceClient(std::function<bool(const KeyProtocol::Press&)> decide, QObject* parent)
    : QObject(parent), decide_(std::move(decide))
{
}

KeyServiceClient::~KeyServiceClient()
{
    detach();
}

void KeyServiceClient::attach(bool interactive)
{
    if (attaching_ && interactive)
        askAgain_ = true;  // a quiet attempt under way that polkit refuses is followed by one that may ask
    if (socket_ >= 0 || attaching_)
        return;
    int pair[2];
    if (::socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, pair) != 0) {
        emit attachedChanged(false);
        return;
    }
    socket_ = pair[0];
    attaching_ = true;
    const unsigned attempt = ++attempt_;
    QDBusMessage call = QDBusMessage::createMethodCall(QStringLiteral("org.lumora.Keys"), QStringLiteral("/org/lumora/Keys"),
                                                       QStringLiteral("org.lumora.Keys1"), QStringLiteral("Attach"));
    call << QVariant::fromValue(QDBusUnixFileDescriptor(pair[1])) << interactive;
    call.setInteractiveAuthorizationAllowed(interactive);
    ::close(pair[1]);  // the message holds its own copy
    auto* watcher = new QDBusPendingCallWatcher(
        QDBusConnection::systemBus().asyncCall(call, interactive ? interactiveTimeoutMs : quietTimeoutMs), this);
    connect(watcher, &QDBusPendingCallWatcher::finished, this, [this, watcher, attempt] {
        watcher->deleteLater();
        if (attempt != attempt_)
            return;  // given up by detach()
        attaching_ = false;
        const QDBusError::ErrorType error = watcher->error().type();
        foundNoService_ = error == QDBusError::ServiceUnknown || error == QDBusError::NoServer ||
                          error == QDBusError::Disconnected;
        if (watcher->isError()) {
            dropLink();
            if (std::exchange(askAgain_, false)) {
                attach(true);
                return;
            }
            emit attachedChanged(false);
            return;
        }
        askAgain_ = false;
        notifier_ = new QSocketNotifier(socket_, QSocketNotifier::Read, this);
        connect(notifier_, &QSocketNotifier::activated, this, [this] { readPresses(); });
        emit attachedChanged(true);
    });
}

void KeyServiceClient::detach()
{
    ++attempt_;
    attaching_ = false;
    askAgain_ = false;
    dropLink();
}

void KeyServiceClient::dropLink()
{
    delete notifier_;
    notifier_ = nullptr;
    if (socket_ >= 0)
        ::close(socket_);
    socket_ = -1;
}

void KeyServiceClient::readPresses()
{
    for (;;) {
        std::uint8_t buffer[KeyProtocol::messageSize + 1];
        const ssize_t n = ::recv(socket_, buffer, sizeof buffer, MSG_DONTWAIT | MSG_TRUNC);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK))
            return;
        const std::optional<KeyProtocol::Press> press =
            n == ssize_t(KeyProtocol::messageSize)
                ? KeyProtocol::decodePress(std::span<const std::uint8_t>(buffer, KeyProtocol::messageSize))
                : std::nullopt;
        if (!press) {
            // The service went away (or speaks something else): the keys are no longer ours.
            dropLink();
            emit attachedChanged(false);
            emit dropped();
            return;
        }
        const KeyProtocol::Message answer = KeyProtocol::encode(KeyProtocol::Decision{press->id, decide_(*press)});
        // A full socket or a broken link is seen at the next read; an answer that does not go out is a key the
        // service passes on after its bound.
        [[maybe_unused]] const ssize_t sent = ::send(socket_, answer.data(), answer.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    }
}

}  // namespace Lumora
