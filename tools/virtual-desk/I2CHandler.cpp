// SPDX-License-Identifier: GPL-3.0-or-later
// The umockdev side of every /dev/i2c-N: the ioctls a host makes (I2C_SLAVE, I2C_FUNCS, I2C_RDWR, ...) and plain
// read()/write(), turned into transfers for the desk. Handlers run on umockdev's worker thread and never wait: a
// transfer completes later, on the desk's thread.
#include "tools/virtual-desk/DeskImpl.h"

#include <linux/i2c-dev.h>
#include <linux/i2c.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstring>

namespace VirtualDesk {

void Desk::Impl::attach(Bus& bus)
{
    bus.handler = umockdev_ioctl_base_new();
    g_signal_connect(bus.handler, "handle-ioctl",
                     G_CALLBACK(+[](UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer data) -> gboolean {
                         auto* b = static_cast<Bus*>(data);
                         b->impl->handleIoctl(*b, client);
                         return TRUE;
                     }),
                     &bus);
    g_signal_connect(bus.handler, "handle-read",
                     G_CALLBACK(+[](UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer data) -> gboolean {
                         auto* b = static_cast<Bus*>(data);
                         b->impl->handleRead(*b, client);
                         return TRUE;
                     }),
                     &bus);
    g_signal_connect(bus.handler, "handle-write",
                     G_CALLBACK(+[](UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer data) -> gboolean {
                         auto* b = static_cast<Bus*>(data);
                         b->impl->handleWrite(*b, client);
                         return TRUE;
                     }),
                     &bus);
    g_signal_connect(bus.handler, "client-connected",
                     G_CALLBACK(+[](UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer data) {
                         auto* b = static_cast<Bus*>(data);
                         b->impl->onConnected(*b, client);
                     }),
                     &bus);
    g_signal_connect(bus.handler, "client-vanished",
                     G_CALLBACK(+[](UMockdevIoctlBase*, UMockdevIoctlClient* client, gpointer data) {
                         auto* b = static_cast<Bus*>(data);
                         b->impl->onVanished(*b, client);
                     }),
                     &bus);
    GError* error = nullptr;
    const std::string node = "/dev/i2c-" + std::to_string(bus.number);
    if (!umockdev_testbed_attach_ioctl(testbed, node.c_str(), bus.handler, &error)) {
        std::string msg = error ? error->message : "unknown error";
        g_clear_error(&error);
        throw std::runtime_error("virtual desk: cannot attach " + node + ": " + msg);
    }
}

void Desk::Impl::detach(Bus& bus)
{
    if (!bus.handler)
        return;
    const std::string node = "/dev/i2c-" + std::to_string(bus.number);
    umockdev_testbed_detach_ioctl(testbed, node.c_str(), nullptr);
    g_object_unref(bus.handler);
    bus.handler = nullptr;
}

void Desk::Impl::onClientFinalized(gpointer, GObject* client)
{
    std::lock_guard live(liveMu);
    if (liveImpl)
        liveImpl->clientGone(reinterpret_cast<UMockdevIoctlClient*>(client));
}

// The descriptor was closed: its conversation with the monitor ends, and its number is not used again.
void Desk::Impl::clientGone(UMockdevIoctlClient* client)
{
    std::lock_guard lk(mu);
    auto it = clients.find(client);
    if (it == clients.end())
        return;
    const int id = it->second.id;
    const int busNumber = it->second.bus;
    clients.erase(it);
    auto bus = buses.find(busNumber);
    if (bus != buses.end() && bus->second->connector && bus->second->connector->monitor)
        bus->second->connector->monitor->endConversation(id);
    notifyLocked();
}

void Desk::Impl::handleIoctl(Bus& bus, UMockdevIoctlClient* client)
{
    const gulong request = umockdev_ioctl_client_get_request(client);
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    unsigned long value = 0;
    if (arg && arg->data)
        std::memcpy(&value, arg->data, std::min<size_t>(sizeof value, static_cast<size_t>(arg->data_len)));

    switch (request) {
    case I2C_SLAVE:
    case I2C_SLAVE_FORCE:
        if (value > 0x7F) {
            complete(client, -1, EINVAL);
            return;
        }
        {
            std::lock_guard lk(mu);
            clientState(client, bus.number).slave = static_cast<uint16_t>(value);
        }
        complete(client, 0, 0);
        return;
    case I2C_FUNCS: {
        GError* error = nullptr;
        UMockdevIoctlData* out = umockdev_ioctl_data_resolve(arg, 0, sizeof(unsigned long), &error);
        if (!out) {
            g_clear_error(&error);
            complete(client, -1, EFAULT);
            return;
        }
        const unsigned long funcs = I2C_FUNC_I2C;
        std::memcpy(out->data, &funcs, sizeof funcs);
        complete(client, 0, 0);
        g_object_unref(out);
        return;
    }
    case I2C_TENBIT:
        complete(client, value ? -1 : 0, value ? EINVAL : 0);
        return;
    case I2C_PEC:
    case I2C_RETRIES:
    case I2C_TIMEOUT:
        complete(client, 0, 0);
        return;
    case I2C_RDWR:
        handleRdwr(bus, client, arg);
        return;
    default:
        complete(client, -1, ENOTTY);
        return;
    }
}

void Desk::Impl::handleRdwr(Bus& bus, UMockdevIoctlClient* client, UMockdevIoctlData* arg)
{
    auto t = std::make_unique<Transfer>();
    t->client = static_cast<UMockdevIoctlClient*>(g_object_ref(client));
    t->bus = &bus;
    t->via = "rdwr";
    GError* error = nullptr;
    auto fail = [&](int err) {
        g_clear_error(&error);
        complete(client, -1, err);
    };
    UMockdevIoctlData* rd = umockdev_ioctl_data_resolve(arg, 0, sizeof(i2c_rdwr_ioctl_data), &error);
    if (!rd)
        return fail(EFAULT);
    t->keep.push_back(rd);
    i2c_rdwr_ioctl_data header{};
    std::memcpy(&header, rd->data, sizeof header);
    if (header.nmsgs == 0 || header.nmsgs > I2C_RDWR_IOCTL_MAX_MSGS)
        return fail(EINVAL);
    UMockdevIoctlData* msgs = umockdev_ioctl_data_resolve(rd, offsetof(i2c_rdwr_ioctl_data, msgs),
                                                          header.nmsgs * sizeof(i2c_msg), &error);
    if (!msgs)
        return fail(EFAULT);
    t->keep.push_back(msgs);
    for (unsigned i = 0; i < header.nmsgs; ++i) {
        i2c_msg m{};
        std::memcpy(&m, msgs->data + i * sizeof(i2c_msg), sizeof m);
        if (m.len > 8192 || (m.flags & I2C_M_TEN))
            return fail(EINVAL);
        Msg msg;
        msg.addr = m.addr;
        msg.read = (m.flags & I2C_M_RD) != 0;
        msg.len = m.len;
        if (m.len > 0) {
            UMockdevIoctlData* buf =
                umockdev_ioctl_data_resolve(msgs, i * sizeof(i2c_msg) + offsetof(i2c_msg, buf), m.len, &error);
            if (!buf)
                return fail(EFAULT);
            if (msg.read) {
                msg.buffer = buf;
            } else {
                msg.data.assign(buf->data, buf->data + m.len);
                g_object_unref(buf);
            }
        }
        t->msgs.push_back(std::move(msg));
    }
    t->successResult = static_cast<long>(header.nmsgs);
    startTransfer(std::move(t));
}

void Desk::Impl::handleWrite(Bus& bus, UMockdevIoctlClient* client)
{
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    auto t = std::make_unique<Transfer>();
    t->client = static_cast<UMockdevIoctlClient*>(g_object_ref(client));
    t->bus = &bus;
    t->via = "write";
    Msg msg;
    {
        std::lock_guard lk(mu);
        msg.addr = clientState(client, bus.number).slave;
    }
    const size_t len = std::min<size_t>(static_cast<size_t>(std::max(arg->data_len, 0)), 8192);
    msg.data.assign(arg->data, arg->data + len);
    t->msgs.push_back(std::move(msg));
    t->successResult = static_cast<long>(len);
    startTransfer(std::move(t));
}

void Desk::Impl::handleRead(Bus& bus, UMockdevIoctlClient* client)
{
    UMockdevIoctlData* arg = umockdev_ioctl_client_get_arg(client);
    auto t = std::make_unique<Transfer>();
    t->client = static_cast<UMockdevIoctlClient*>(g_object_ref(client));
    t->bus = &bus;
    t->via = "read";
    Msg msg;
    {
        std::lock_guard lk(mu);
        msg.addr = clientState(client, bus.number).slave;
    }
    msg.read = true;
    msg.len = std::min<size_t>(static_cast<size_t>(std::max(arg->data_len, 0)), 8192);
    msg.buffer = static_cast<UMockdevIoctlData*>(g_object_ref(arg));
    t->successResult = static_cast<long>(msg.len);
    t->msgs.push_back(std::move(msg));
    startTransfer(std::move(t));
}

} // namespace VirtualDesk
