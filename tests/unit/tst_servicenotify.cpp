// What a service manager receives, at a socket of the test's.
#include "support/testprogram.h"

#include "app/servicenotify.h"

#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

#include <algorithm>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {

/// A service manager's socket, named in the environment while it lives. A name that begins with '@' is abstract.
class NotifySocket {
public:
    explicit NotifySocket(const QByteArray &name) : m_descriptor(socket(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::copy(name.cbegin(), name.cend(), address.sun_path);
        if (name.startsWith('@'))
            address.sun_path[0] = '\0';
        const auto length =
            static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + static_cast<std::size_t>(name.size()));
        bound = bind(m_descriptor, reinterpret_cast<const sockaddr *>(&address), length) == 0;
        qputenv("NOTIFY_SOCKET", name);
    }
    ~NotifySocket()
    {
        qunsetenv("NOTIFY_SOCKET");
        close(m_descriptor);
    }
    NotifySocket(const NotifySocket &) = delete;
    NotifySocket &operator=(const NotifySocket &) = delete;

    /// The oldest message that was not taken yet; null when there is none.
    QByteArray take() const
    {
        char buffer[256];
        const ssize_t got = recv(m_descriptor, buffer, sizeof buffer, 0);
        return got < 0 ? QByteArray() : QByteArray(buffer, static_cast<int>(got));
    }

    bool bound = false;

private:
    int m_descriptor;
};

} // namespace

class TestServiceNotify : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void eachStateIsOneMessage_data()
    {
        QTest::addColumn<QByteArray>("name");

        QTest::newRow("in a folder") << QFile::encodeName(m_folder.filePath(QStringLiteral("notify")));
        QTest::newRow("abstract") << "@kvsnmp-test-" + QByteArray::number(getpid());
    }

    void eachStateIsOneMessage()
    {
        QFETCH(QByteArray, name);

        const NotifySocket manager(name);
        QVERIFY(manager.bound);
        notifyService("READY=1");
        notifyService("WATCHDOG=1");
        notifyService("STOPPING=1");
        QCOMPARE(manager.take(), QByteArray("READY=1"));
        QCOMPARE(manager.take(), QByteArray("WATCHDOG=1"));
        QCOMPARE(manager.take(), QByteArray("STOPPING=1"));
        QVERIFY(manager.take().isNull());
    }

    void withoutASocketNothingIsSent()
    {
        const NotifySocket manager(QFile::encodeName(m_folder.filePath(QStringLiteral("unnamed"))));
        QVERIFY(manager.bound);
        qunsetenv("NOTIFY_SOCKET");
        notifyService("READY=1");
        QVERIFY(manager.take().isNull());
    }

    void aSocketThatIsGoneIsNoHarm()
    {
        qputenv("NOTIFY_SOCKET", QFile::encodeName(m_folder.filePath(QStringLiteral("gone"))));
        notifyService("READY=1");
        qunsetenv("NOTIFY_SOCKET");
    }

private:
    QTemporaryDir m_folder;
};

const TestEntry entry("tst_servicenotify", runTest<TestServiceNotify>);
#include "tst_servicenotify.moc"
