// Traps: the enabled ones, and their receivers.
#include "check/checks.h"
#include "check/snmpdconffile.h"
#include "check/subject.h"

#include "device/trapcatalogue.h"
#include "tal/snmpsettings.h"

#include <QHostAddress>

#include <cerrno>
#include <cstring>
#include <future>
#include <memory>
#include <netdb.h>
#include <sys/socket.h>
#include <thread>
#include <unistd.h>

namespace {

const QString trapSettings = QLatin1String(snmpSettingsFolder) + QLatin1String("trap_settings/");

struct AddressListDeleter {
    void operator()(addrinfo *list) const { freeaddrinfo(list); }
};
using AddressList = std::unique_ptr<addrinfo, AddressListDeleter>;

AddressList addressesOf(const QByteArray &host)
{
    addrinfo wanted{};
    wanted.ai_socktype = SOCK_DGRAM;
    addrinfo *list = nullptr;
    return AddressList(getaddrinfo(host.constData(), "162", &wanted, &list) == 0 ? list : nullptr);
}

/// Sends nothing: connecting a datagram socket only looks up a route. Empty if there is one.
QString missingRoute(const addrinfo &address)
{
    const int descriptor = ::socket(address.ai_family, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (descriptor < 0)
        return QString::fromLocal8Bit(std::strerror(errno));
    const int error = ::connect(descriptor, address.ai_addr, address.ai_addrlen) == 0 ? 0 : errno;
    ::close(descriptor);
    return error == 0 ? QString() : QString::fromLocal8Bit(std::strerror(error));
}

bool isLoopback(const addrinfo &address)
{
    return QHostAddress(address.ai_addr).isLoopback();
}

/// The error of a receiver; empty if traps can be sent to it.
QString whatIsWrong(const QByteArray &host)
{
    const AddressList list = addressesOf(host);
    if (!list)
        return QStringLiteral("is no address and no name that this device can resolve");
    if (isLoopback(*list) && !addressesOf("localhost")) // from which it sends to itself
        return QStringLiteral("gets nothing: this device cannot resolve the name localhost, see /etc/hosts");
    const QString route = missingRoute(*list);
    return route.isEmpty() ? QString() : QStringLiteral("cannot be reached: ") + route;
}

/// A lookup without an answer can take half a minute; the thread is then abandoned.
QString whatIsWrong(const QByteArray &host, int timeoutMs)
{
    std::promise<QString> promise;
    std::future<QString> answer = promise.get_future();
    std::thread([host, promise = std::move(promise)]() mutable { promise.set_value(whatIsWrong(host)); }).detach();
    if (answer.wait_for(std::chrono::milliseconds(timeoutMs)) != std::future_status::ready)
        return QStringLiteral("was not resolved within %1 s").arg(timeoutMs / 1000.0);
    return answer.get();
}

std::vector<Receiver> receiversOf(const Subject &subject)
{
    if (subject.service.customConfig.value_or(false))
        return subject.conf.receivers();
    const SnmpTrapSettings &trap = subject.service.settings.trap;
    std::vector<Receiver> receivers;
    if (!trap.informAddress.trimmed().isEmpty())
        receivers.push_back({"informsink", trap.informAddress.toUtf8()});
    if (!trap.trapAddress.trimmed().isEmpty())
        receivers.push_back({"trap2sink", trap.trapAddress.toUtf8()});
    return receivers;
}

} // namespace

Outcome checkTrapsEnabled(Subject &subject)
{
    const QMap<QString, bool> &traps = subject.service.enabledTraps;
    QStringList on;
    QStringList off;
    for (auto trap = traps.begin(); trap != traps.end(); ++trap)
        (trap.value() ? on : off).append(trap.key());
    const int all = static_cast<int>(std::size(trapCatalogue));
    const QString separator = QStringLiteral(", ");
    if (on.isEmpty())
        return warning(
            QStringLiteral("none of the %1 traps is enabled: no fault is reported").arg(all),
            QStringLiteral("set %1traps/trap[name='...']/enabled to \"true\" for the wanted traps").arg(trapSettings));
    QString text = QStringLiteral("%1 of %2").arg(on.size()).arg(all);
    if (!off.isEmpty())
        text += on.size() <= off.size() ? QStringLiteral(", on: ") + on.join(separator)
                                        : QStringLiteral(", off: ") + off.join(separator);
    return ok(text);
}

Outcome checkTrapReceivers(Subject &subject)
{
    const std::vector<Receiver> receivers = receiversOf(subject);
    if (receivers.empty())
        return warning(QStringLiteral("none: traps and informs go nowhere"),
                       QStringLiteral("set %1trap_address or inform_address; in a custom snmpd.conf trap2sink or "
                                      "informsink")
                           .arg(trapSettings));
    QStringList shown;
    QStringList wrongOnes;
    for (const Receiver &receiver : receivers) {
        const QString name = QString::fromUtf8(receiver.directive + ' ' + receiver.address);
        const QString wrong = whatIsWrong(hostOfReceiver(receiver.address), subject.timeoutMs);
        shown.append(name);
        if (!wrong.isEmpty())
            wrongOnes.append(name + QLatin1Char(' ') + wrong);
    }
    if (!wrongOnes.isEmpty())
        return warning(
            wrongOnes.join(QStringLiteral("; ")),
            QStringLiteral("correct the address, the network's routes or the name service; snmpd looks a name up "
                           "only once, at its start"));
    return ok(shown.join(QStringLiteral(", ")));
}
