// What a service manager receives, at a socket of the test's.
#include "support/testprogram.h"

#include "app/servicenotify.h"

#include <algorithm>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {
/// A service manager's socket, named in the environment while it lives.
class NotifySocket {
public:
    explicit NotifySocket(const QByteArray &name) : m_descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::copy(name.cbegin(), name.cend(), address.sun_path);
        QCOMPARE(bind(m_descriptor, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        qputenv("NOTIFY_SOCKET", name);
    }
    ~NotifySocket()
    {
        qunsetenv("NOTIFY_SOCKET");
        close(m_descriptor);
    }
    Q_DISABLE_COPY(NotifySocket)

    /// The oldest message that was not taken yet; null when there is none.
    QByteArray take() const
    {
        char buffer[256];
        const ssize_t got = recv(m_descriptor, buffer, sizeof buffer, 0);
        return got < 0 ? QByteArray() : QByteArray(buffer, static_cast<int>(got));
    }

private:
    int m_descriptor;
};
} // namespace

class TestServiceNotify : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void eachStateIsOneMessage()
    {
        const NotifySocket manager(pathOf("notify"));
        for (const char *state : {"READY=1", "WATCHDOG=1", "STOPPING=1"})
            notifyService(state);
        for (const char *state : {"READY=1", "WATCHDOG=1", "STOPPING=1"})
            QCOMPARE(manager.take(), state);
        QVERIFY(manager.take().isNull());
    }

    void withoutASocketNothingIsSent()
    {
        const NotifySocket manager(pathOf("unnamed"));
        qunsetenv("NOTIFY_SOCKET");
        notifyService("READY=1");
        QVERIFY(manager.take().isNull());
        qputenv("NOTIFY_SOCKET", pathOf("nothing there"));
        notifyService("READY=1"); // no harm
    }

private:
    QByteArray pathOf(const char *name) const { return QFile::encodeName(m_folder.filePath(QLatin1String(name))); }

    QTemporaryDir m_folder;
};

const TestEntry entry("tst_servicenotify", runTest<TestServiceNotify>);
#include "tst_servicenotify.moc"
