// The commands for announcements of the amplifier monitor.
#include "simulator/commandrunner.h"
#include "simulator/monitor.h"

#include <vector>

namespace simulator {

namespace {

/// Reads the leading arguments as numbers, sends them with `emit`, and waits until the bus has read the signal.
template <typename Emit>
Reply announce(Device &device, const QStringList &arguments, int numbers, Emit emit)
{
    std::vector<uint> n;
    for (const QString &word : arguments.mid(0, numbers)) {
        bool isNumber = false;
        n.push_back(word.toUInt(&isNumber));
        if (!isNumber)
            return {Reply::Usage, QStringLiteral("not a number: %1").arg(word)};
    }
    if (device.monitor == nullptr || !device.monitor->isUp())
        return {Reply::Refused, QStringLiteral("the amplifier monitor is on no message bus")};
    device.monitor->announcePending(); // in the order of their causes
    emit(*device.monitor, n);
    return device.monitor->flush() ? Reply{} : Reply{Reply::Refused, QStringLiteral("the message bus does not answer")};
}

using Numbers = std::vector<uint>;

Reply gpo(Device &device, const QStringList &arguments)
{
    return announce(device, arguments, 1, [&](Monitor &monitor, const Numbers &n) {
        Q_EMIT monitor.adaptor().onGpoUpdate(n[0], arguments[1], arguments.value(2, arguments[1]));
    });
}

Reply gpi(Device &device, const QStringList &arguments)
{
    return announce(device, arguments, 1, [&](Monitor &monitor, const Numbers &n) {
        Q_EMIT monitor.adaptor().onGpiUpdate(n[0], arguments[1]);
    });
}

Reply amp(Device &device, const QStringList &arguments)
{
    return announce(device, arguments, 2,
                    [](Monitor &monitor, const Numbers &n) { monitor.announceChannel(n[0], n[1]); });
}

Reply let(Device &device, const QStringList &arguments)
{
    return announce(device, arguments, 3, [](Monitor &monitor, const Numbers &n) {
        Q_EMIT monitor.adaptor().onLetPrecenseUpdate(n[0], n[1], n[2]);
    });
}

Reply power(Device &device, const QStringList &arguments)
{
    return announce(device, arguments, 2, [](Monitor &monitor, const Numbers &n) {
        Q_EMIT monitor.adaptor().onPowerConsumptionUpdate(n[0], n[1]);
    });
}

Reply status(Device &device, const QStringList &)
{
    const bool up = device.monitor != nullptr && device.monitor->isUp();
    return {Reply::Done, up ? QStringLiteral("up") : QStringLiteral("down")};
}

constexpr CommandAction monitorTable[] = {
    {"monitor gpo", gpo}, {"monitor gpi", gpi},     {"monitor amp", amp},
    {"monitor let", let}, {"monitor power", power}, {"monitor status", status},
};

} // namespace

std::span<const CommandAction> monitorActions()
{
    return monitorTable;
}

} // namespace simulator
