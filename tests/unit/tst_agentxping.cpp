// The question to the AgentX socket, and the exchange under it, with peers that answer, keep silent or are gone.
#include "support/testprogram.h"

#include "check/agentxping.h"
#include "check/localexchange.h"

#include <cerrno>
#include <cstring>
#include <future>
#include <memory>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {
class Listener {
public:
    explicit Listener(const QByteArray &path) : m_socket(::socket(AF_UNIX, SOCK_STREAM, 0))
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.constData(), static_cast<std::size_t>(path.size()));
        if (::bind(m_socket, reinterpret_cast<const sockaddr *>(&address), sizeof address) != 0 ||
            ::listen(m_socket, 1) != 0)
            qFatal("no socket for the peer");
    }
    ~Listener() { ::close(m_socket); }
    Q_DISABLE_COPY(Listener)

    /// Returns what is asked, and sends the answer in two parts.
    QByteArray serve(const QByteArray &answer) const
    {
        const int client = ::accept(m_socket, nullptr, nullptr);
        char bytes[100];
        const QByteArray asked(bytes, static_cast<int>(::recv(client, bytes, sizeof bytes, 0)));
        for (const QByteArray &part : {answer.left(answer.size() / 2), answer.mid(answer.size() / 2)})
            ::send(client, part.constData(), static_cast<std::size_t>(part.size()), MSG_NOSIGNAL);
        ::close(client);
        return asked;
    }

private:
    int m_socket;
};
} // namespace

class TestAgentxPing : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init() { m_folder = std::make_unique<QTemporaryDir>(); }

    void onlyAResponseIsAnAnswer()
    {
        const QByteArray response = QByteArray::fromHex("0112100000000000000000000000000100000008"
                                                        "0000005301010000");
        const std::pair<const char *, QByteArray> rows[] = {
            {"a master", response},
            {"closes at once", {}},
            {"too short", response.left(19)},
            {"another version", "\x02" + response.mid(1)},
            {"another protocol", QByteArray(40, 'x')},
        };
        for (const auto &[name, text] : rows) {
            const AtRow at(name);
            init();
            const Listener listener(path());
            auto asked = std::async(std::launch::async, [&, text = text] { return listener.serve(text); });
            const AgentxAnswer answer = pingAgentx(path(), 5000);
            QVERIFY(answer.connected);
            QCOMPARE(answer.answered, text == response);
            QCOMPARE(asked.get().toHex(), QByteArray("010d100000000000000000000000000100000000")); // without a session
        }
    }

    void nobodyAnswers()
    {
        QCOMPARE(pingAgentx(path(), 200).error, ENOENT);
        {
            const Listener listener(path());
            QElapsedTimer elapsed;
            elapsed.start();
            const AgentxAnswer result = pingAgentx(path(), 200);
            QVERIFY(result.connected && !result.answered);
            QVERIFY(elapsed.elapsed() >= 190);
        }
        QCOMPARE(pingAgentx(path(), 200).error, ECONNREFUSED);
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
