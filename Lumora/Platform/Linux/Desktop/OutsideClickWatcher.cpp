// SPDX-License-Identifier: GPL-3.0-or-later
#include "Lumora/Platform/Linux/Desktop/OutsideClickWatcher.h"

#include <QCursor>
#include <QGuiApplication>
#include <QSocketNotifier>
#include <QTimer>

#include <xcb/xcb.h>
#include <xcb/xinput.h>

#include <cstdlib>
#include <optional>

namespace Lumora {
namespace {

constexpr std::uint32_t leftButton = 1;
constexpr std::uint32_t rightButton = 3;

}  // namespace

std::unique_ptr<OutsideClickWatcher> OutsideClickWatcher::install(std::function<bool(QPoint)> isOwn,
                                                                  std::function<void(QPoint)> onOutsideClick)
{
    if (QGuiApplication::platformName() != QLatin1String("xcb")) {
        return nullptr;
    }
    int screenNumber = 0;
    xcb_connection_t* connection = xcb_connect(nullptr, &screenNumber);
    if (connection == nullptr || xcb_connection_has_error(connection) != 0) {
        if (connection != nullptr) {
            xcb_disconnect(connection);
        }
        return nullptr;
    }
    const xcb_query_extension_reply_t* extension = xcb_get_extension_data(connection, &xcb_input_id);
    xcb_input_xi_query_version_reply_t* version = nullptr;
    if (extension != nullptr && extension->present != 0) {
        version = xcb_input_xi_query_version_reply(connection, xcb_input_xi_query_version(connection, 2, 2), nullptr);
    }
    const bool usable = version != nullptr && version->major_version >= 2;
    std::free(version);
    if (!usable) {
        xcb_disconnect(connection);
        return nullptr;
    }

    xcb_screen_iterator_t screens = xcb_setup_roots_iterator(xcb_get_setup(connection));
    for (int i = 0; i < screenNumber && screens.rem > 0; ++i) {
        xcb_screen_next(&screens);
    }
    if (screens.rem == 0) {
        xcb_disconnect(connection);
        return nullptr;
    }
    struct {
        xcb_input_event_mask_t head;
        std::uint32_t mask;
    } selection{{XCB_INPUT_DEVICE_ALL_MASTER, 1}, XCB_INPUT_XI_EVENT_MASK_RAW_BUTTON_PRESS};
    xcb_generic_error_t* error = xcb_request_check(
        connection, xcb_input_xi_select_events_checked(connection, screens.data->root, 1, &selection.head));
    if (error != nullptr) {
        std::free(error);
        xcb_disconnect(connection);
        return nullptr;
    }
    return std::unique_ptr<OutsideClickWatcher>(new OutsideClickWatcher(
        connection, extension->major_opcode, std::move(isOwn), std::move(onOutsideClick)));
}

OutsideClickWatcher::OutsideClickWatcher(xcb_connection_t* connection, std::uint8_t opcode,
                                         std::function<bool(QPoint)> isOwn, std::function<void(QPoint)> onOutsideClick)
    : connection_(connection), opcode_(opcode), isOwn_(std::move(isOwn)), onOutsideClick_(std::move(onOutsideClick))
{
    notifier_ = new QSocketNotifier(xcb_get_file_descriptor(connection_), QSocketNotifier::Read, this);
    connect(notifier_, &QSocketNotifier::activated, this, [this] { readEvents(); });
}

OutsideClickWatcher::~OutsideClickWatcher()
{
    delete notifier_;
    // Closing the connection drops its event selection with it.
    xcb_disconnect(connection_);
}

void OutsideClickWatcher::readEvents()
{
    std::optional<QPoint> outside;
    while (xcb_generic_event_t* event = xcb_poll_for_event(connection_)) {
        if ((event->response_type & 0x7F) == XCB_GE_GENERIC) {
            auto* generic = reinterpret_cast<xcb_ge_generic_event_t*>(event);
            if (generic->extension == opcode_ && generic->event_type == XCB_INPUT_RAW_BUTTON_PRESS) {
                auto* press = reinterpret_cast<xcb_input_raw_button_press_event_t*>(event);
                if ((press->detail == leftButton || press->detail == rightButton) && !outside) {
                    const QPoint position = QCursor::pos();
                    if (!isOwn_(position)) {
                        outside = position;
                    }
                }
            }
        }
        std::free(event);
    }
    if (xcb_connection_has_error(connection_) != 0) {
        notifier_->setEnabled(false);
    }
    if (outside) {
        // The handler may well destroy this watcher, so it runs from the event loop, not inside the notifier's
        // signal; it is dropped if the watcher is gone by then.
        QTimer::singleShot(0, this, [this, position = *outside] { onOutsideClick_(position); });
    }
}

}  // namespace Lumora
