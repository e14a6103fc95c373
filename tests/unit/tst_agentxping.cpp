// The question to the AgentX socket, and the exchange under it, with peers that answer, keep silent or are gone.
#include "support/testprogram.h"

#include "check/agentxping.h"
#include "check/localexchange.h"

#include <QElapsedTimer>
#include <QTemporaryDir>
#include <QtTest>

#include <cerrno>
#include <cstring>
#include <sys/socket.h>
#include <sys/un.h>
#include <thread>
#include <unistd.h>

namespace {

/// Takes one connection, reads what is asked, and sends what it was given, in two parts.
class Peer {
public:
    Peer(const QByteArray &path, QByteArray answer) : m_answer(std::move(answer))
    {
        m_listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.constData(), static_cast<std::size_t>(path.size()));
        if (::bind(m_listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
            ::listen(m_listener, 1) != 0)
            qFatal("no socket for the peer");
        m_thread = std::thread([this] { serve(); });
    }
    ~Peer()
    {
        if (m_thread.joinable())
            m_thread.join();
        ::close(m_listener);
    }
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    /// After the exchange.
    QByteArray asked()
    {
        m_thread.join();
        return m_asked;
    }

private:
    void serve()
    {
        const int client = ::accept(m_listener, nullptr, nullptr);
        char bytes[100];
        m_asked = QByteArray(bytes, static_cast<int>(::recv(client, bytes, sizeof bytes, 0)));
        const int half = m_answer.size() / 2;
        ::send(client, m_answer.constData(), static_cast<std::size_t>(half), MSG_NOSIGNAL);
        ::send(client, m_answer.constData() + half, static_cast<std::size_t>(m_answer.size() - half), MSG_NOSIGNAL);
        ::close(client);
    }

    QByteArray m_answer;
    QByteArray m_asked;
    int m_listener = -1;
    std::thread m_thread;
};

QByteArray response()
{
    return QByteArray::fromHex("01121000"
                               "00000000"
                               "00000000"
                               "00000001"
                               "00000008"
                               "0000005301010000");
}

} // namespace

class TestAgentxPing : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { m_folder = std::make_unique<QTemporaryDir>(); }
    void aMasterAnswers()
    {
        Peer peer(path(), response());
        const AgentxAnswer answer = pingAgentx(path(), 5000);
        QVERIFY(answer.connected);
        QVERIFY(answer.answered);
        QCOMPARE(peer.asked().toHex(),
                 QByteArray("010d100000000000000000000000000100000000")); // a ping without a session
    }

    void otherAnswersAreNone_data()
    {
        QTest::addColumn<QByteArray>("answer");
        QTest::newRow("closes at once") << QByteArray();
        QTest::newRow("too short") << response().left(19);
        QTest::newRow("another version") << "\x02" + response().mid(1);
        QTest::newRow("another protocol") << QByteArray(40, 'x');
    }

    void otherAnswersAreNone()
    {
        QFETCH(QByteArray, answer);
        const Peer peer(path(), answer);
        const AgentxAnswer result = pingAgentx(path(), 5000);
        QVERIFY(result.connected);
        QVERIFY(!result.answered);
    }

    void nobodyAnswers()
    {
        const int listener = ::socket(AF_UNIX, SOCK_STREAM, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path().constData(), static_cast<std::size_t>(path().size()));
        QCOMPARE(::bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        QCOMPARE(::listen(listener, 1), 0);
        QElapsedTimer elapsed;
        elapsed.start();
        const AgentxAnswer result = pingAgentx(path(), 200);
        QVERIFY(result.connected);
        QVERIFY(!result.answered);
        QVERIFY(elapsed.elapsed() >= 190);
        ::close(listener);
        QCOMPARE(pingAgentx(path(), 200).error, ECONNREFUSED);
    }

    void noSocket()
    {
        QCOMPARE(pingAgentx(path(), 200).error, ENOENT);
        QCOMPARE(exchange(QByteArray(200, 'x'), {}, 1, 200).error, ENAMETOOLONG);
    }

    void connectionsOfASocket()
    {
        const QByteArray list =
            "Num       RefCount Protocol Flags    Type St Inode Path\n"
            "00000000845cfc19: 00000003 00000000 00000000 0001 03 2560300 /var/agentx/master\n"
            "000000003199e987: 00000002 00000000 00010000 0001 01 2560241 /var/agentx/master\n" // listens
            "0000000078e99991: 00000003 00000000 00000000 0001 03 2560301 /var/agentx/master2\n"
            "000000003d2021db: 00000003 00000000 00000000 0001 03 2558967\n";
        QCOMPARE(agentxConnections(list, "/var/agentx/master"), 1);
        QCOMPARE(agentxConnections(list, "/var/agentx/none"), 0);
        QCOMPARE(agentxConnections({}, "/var/agentx/master"), 0);
    }

private:
    QByteArray path() const { return m_folder->filePath(QStringLiteral("s")).toLocal8Bit(); }

    std::unique_ptr<QTemporaryDir> m_folder;
};

const TestEntry entry("tst_agentxping", runTest<TestAgentxPing>);
#include "tst_agentxping.moc"
