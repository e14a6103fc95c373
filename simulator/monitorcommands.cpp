// The commands for announcements of the amplifier monitor.
#include "simulator/commandrunner.h"
#include "simulator/monitor.h"

#include <algorithm>
#include <optional>
#include <vector>

namespace simulator {

namespace {

using Numbers = std::vector<uint>;

/// The leading arguments as numbers; nothing, with the reply, if one is none.
std::optional<Numbers> numbersOf(const QStringList &arguments, int count, Reply &reply)
{
    Numbers numbers;
    for (const QString &word : arguments.mid(0, count)) {
        bool isNumber = false;
        numbers.push_back(word.toUInt(&isNumber));
        if (!isNumber) {
            reply = {Reply::Usage, QStringLiteral("not a number: %1").arg(word)};
            return std::nullopt;
        }
    }
    return numbers;
}

QStringList textsOf(const Numbers &numbers)
{
    QStringList texts;
    for (const uint number : numbers)
        texts += QString::number(number);
    return texts;
}

/// Refuses a channel that the model does not have, and a transponder that the channel does not have.
Reply checkPlace(const Monitor &monitor, const Numbers &place)
{
    Numbers channels;
    Numbers lets;
    for (const AmpChannel &channel : monitor.channels()) {
        channels.push_back(channel.number);
        if (channel.number == place[0])
            lets = channel.lets;
    }
    const auto contains = [](const Numbers &numbers, uint number) {
        return std::find(numbers.begin(), numbers.end(), number) != numbers.end();
    };
    if (!contains(channels, place[0]))
        return unknownWord(QStringLiteral("amplifier channel"), QString::number(place[0]), textsOf(channels));
    if (place.size() > 1 && !contains(lets, place[1]))
        return unknownWord(QStringLiteral("line end transponder"), QString::number(place[1]), textsOf(lets));
    return {};
}

/// Sends the leading arguments, as numbers, with `emit`, and waits until the bus has read the signal. The first
/// `places` of them name a channel and a transponder of the model, unless the last argument is --any.
template <typename Emit>
Reply announce(Device &device, const QStringList &arguments, int count, int places, Emit emit)
{
    Reply reply;
    const std::optional<Numbers> n = numbersOf(arguments, count, reply);
    if (!n)
        return reply;
    if (device.monitor == nullptr || !device.monitor->isUp())
        return {Reply::Refused, QStringLiteral("the amplifier monitor is on no message bus")};
    if (places > 0 && arguments.value(count) != anyOption)
        reply = checkPlace(*device.monitor, Numbers(n->begin(), n->begin() + places));
    if (reply.code != Reply::Done)
        return reply;
    device.monitor->announcePending(); // in the order of their causes
    emit(*device.monitor, *n);
    return device.monitor->flush() ? Reply{} : Reply{Reply::Refused, QStringLiteral("the message bus does not answer")};
}

/// True if something else than --any follows the numbers.
bool hasWrongEnd(const QStringList &arguments, int count)
{
    return arguments.size() > count && arguments[count] != anyOption;
}

Reply gpo(Device &device, const QStringList &arguments)
{
    return announce(device, arguments, 1, 0, [&](Monitor &monitor, const Numbers &n) {
        Q_EMIT monitor.adaptor().onGpoUpdate(n[0], arguments[1], arguments.value(2, arguments[1]));
    });
}

Reply gpi(Device &device, const QStringList &arguments)
{
    return announce(device, arguments, 1, 0, [&](Monitor &monitor, const Numbers &n) {
        Q_EMIT monitor.adaptor().onGpiUpdate(n[0], arguments[1]);
    });
}

Reply amp(Device &device, const QStringList &arguments)
{
    if (hasWrongEnd(arguments, 2))
        return {Reply::Usage, usageOf("monitor amp")};
    return announce(device, arguments, 2, 1,
                    [](Monitor &monitor, const Numbers &n) { monitor.announceChannel(n[0], n[1]); });
}

Reply let(Device &device, const QStringList &arguments)
{
    if (hasWrongEnd(arguments, 3))
        return {Reply::Usage, usageOf("monitor let")};
    return announce(device, arguments, 3, 2, [](Monitor &monitor, const Numbers &n) {
        Q_EMIT monitor.adaptor().onLetPrecenseUpdate(n[0], n[1], n[2]);
    });
}

Reply power(Device &device, const QStringList &arguments)
{
    return announce(device, arguments, 2, 0, [](Monitor &monitor, const Numbers &n) {
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
