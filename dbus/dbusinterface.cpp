// The connection to the amplifier monitor: logs its announcements and passes them on as signals.
#include "dbus/dbusinterface.h"

#include "tal/talhandler.h"

#include "pamoninterface.h" // generated

#include <QDBusConnection>
#include <QDebug>

#include <cerrno>
#include <string>
#include <utility>

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

constexpr timeval answerLimit = {.tv_sec = 25, .tv_usec = 0}; // the D-Bus library's limit after authentication

/// The socket of the system bus; empty for another kind of address.
std::string busSocket()
{
    const std::string address = qEnvironmentVariable(systemBusVariable, QLatin1String(defaultSystemBus)).toStdString();
    const std::string kind = "unix:path=";
    return address.starts_with(kind) ? address.substr(kind.size(), address.find_first_of(",;") - kind.size()) : "";
}

/// Whether the bus accepts connections but never answers: the D-Bus library would wait endlessly for its handshake.
bool isBusSilent()
{
    const std::string path = busSocket();
    sockaddr_un address = {.sun_family = AF_UNIX, .sun_path = {}};
    if (path.empty() || path.size() >= sizeof address.sun_path)
        return false;
    path.copy(address.sun_path, path.size());

    const int bus = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    setsockopt(bus, SOL_SOCKET, SO_SNDTIMEO, &answerLimit, sizeof answerLimit);
    setsockopt(bus, SOL_SOCKET, SO_RCVTIMEO, &answerLimit, sizeof answerLimit);
    constexpr char question[] = "\0AUTH\r\n"; // asks for its mechanisms
    char answer[256] = {};
    errno = 0;
    const bool answered = connect(bus, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
                          send(bus, question, sizeof question - 1, MSG_NOSIGNAL) > 0 &&
                          recv(bus, answer, sizeof answer, 0) > 0;
    const bool silent = !answered && errno == EAGAIN;
    close(bus);
    return silent;
}

/// Not connected if the bus does not answer.
QDBusConnection systemBus()
{
    return isBusSilent() ? QDBusConnection(QString()) : QDBusConnection::systemBus();
}

} // namespace

DbusInterface::DbusInterface(TalHandler *parent)
    : QObject(parent),
      m_proxy(new ComOrvanePamonInterface(QLatin1String(monitorName), QStringLiteral("/monitor"), systemBus(), this))
{
    connect(m_proxy, SIGNAL(onGpoUpdate(uint, QString, QString)), this,
            SLOT(dbusDoGpoUpdateSlot(uint, QString, QString)));
    connect(m_proxy, SIGNAL(onGpiUpdate(uint, QString)), this, SLOT(dbusDoGpiUpdateSlot(uint, QString)));
    connect(m_proxy, SIGNAL(onAmpChannelStatusUpdate(uint, uint)), this,
            SLOT(dbusDoAmpChannelStatusUpdateSlot(uint, uint)));
    connect(m_proxy, SIGNAL(onLetPrecenseUpdate(uint, uint, uint)), this,
            SLOT(dbusDoLetPrecenseUpdateSlot(uint, uint, uint)));
}

void DbusInterface::dbusDoGpoUpdateSlot(uint gpoIndex, QString state, QString systemState)
{
    Q_EMIT gpoUpdateSignal(gpoIndex, std::move(state), std::move(systemState));
}

void DbusInterface::dbusDoGpiUpdateSlot(uint gpiIndex, QString state)
{
    qDebug().noquote() << "dbusDoGpiUpdateSlot"
                       << "GPI:" << gpiIndex << "State:" << state;
    Q_EMIT gpiUpdateSignal(gpiIndex, std::move(state));
}

void DbusInterface::dbusDoAmpChannelStatusUpdateSlot(uint amp, uint status)
{
    qDebug().noquote() << "dbusDoAmpChannelStatusUpdateSlot"
                       << "Amp:" << amp << "Status:" << status;
    Q_EMIT ampChannelStatusUpdateSignal(amp, status);
}

// The labels are the monitor's; receivers of these signals use the first number as the channel.
void DbusInterface::dbusDoLetPrecenseUpdateSlot(uint let, uint channel, uint status)
{
    qDebug().noquote() << "dbusDoLetPrecenseUpdateSlot"
                       << "Let:" << let << "Channel:" << channel << "Status:" << status;
    Q_EMIT letPrecenseUpdateSignal(let, channel, status);
}
