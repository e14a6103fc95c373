// What the self-check reads from the system: processes, pid files, GPIO lines (it exports none), and the AgentX socket,
// with peers that answer, are silent or have ended.
#include "support/files.h"
#include "support/gpiofolder.h"
#include "support/testprogram.h"

#include "check/agentxping.h"
#include "check/gpiosurvey.h"
#include "check/localexchange.h"
#include "check/processes.h"

#include <cerrno>
#include <cstring>
#include <future>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

namespace {
/// The fields of a process up to its start, 4000 s after the system's.
QByteArray stat(const char *name, char state, int parent = 1)
{
    const QByteArray ticks = QByteArray::number(4000 * static_cast<qlonglong>(sysconf(_SC_CLK_TCK)));
    return QByteArray("7 (") + name + ") " + state + " " + QByteArray::number(parent) +
           " 1 1 0 -1 4194560 1 0 0 0 1 1 0 0 20 0 1 0 " + ticks + " 100 2\n";
}

void addLines(const GpioFolder &folder, int first, int count)
{
    for (int line = first; line < first + count; ++line)
        folder.setValue(line, line % 2 == 0 ? "0\n" : "1\n");
}

class Listener {
public:
    explicit Listener(const QByteArray &path) : m_socket(::socket(AF_UNIX, SOCK_STREAM, 0))
    {
        QFile::remove(QFile::decodeName(path)); // of the one before
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

class TestSystem : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void processesAreFoundByName()
    {
        write("12/stat", stat("snmpd", 'S'));
        write("9/stat", stat("snmpd", 'R'));
        write("13/stat", stat("snmpd", 'Z')); // ended, not yet reaped
        write("14/stat", stat("snmptrapd", 'S'));
        write("15/stat", QByteArray());           // ends while it is looked at
        write("16/stat", stat("snmpd", 'S', 12)); // forked, has not executed its program yet
        write("self/stat", stat("snmpd", 'S'));
        QCOMPARE(pidsOf(processesNamed("snmpd", proc())), QStringLiteral("9 and 12"));
        QVERIFY(!processOf(13, proc()));
        QVERIFY(!processOf(99, proc()));
    }

    void startNameAndState()
    {
        write("stat", "cpu 1 2\nbtime 1000000\n");
        for (const char state : {'S', 'D', 'T', 't'}) {
            write("21/stat", stat("a) S (b", state));
            const std::optional<Process> process = processOf(21, proc());
            QVERIFY(process);
            QCOMPARE(process->name, "a) S (b");
            QCOMPARE(process->isStopped(), state == 'T' || state == 't');
            QCOMPARE(process->started.toSecsSinceEpoch(), qint64{1004000});
        }
    }

    void environment()
    {
        write("30/environ", QByteArray("PATH=/bin:/sbin\0EMPTY=\0A=b=c\0", 29));
        const QMap<QByteArray, QByteArray> expected = {{"PATH", "/bin:/sbin"}, {"EMPTY", ""}, {"A", "b=c"}};
        QCOMPARE(environmentOf(30, proc()), expected);
        QVERIFY(environmentOf(31, proc()).isEmpty());
    }

    void pidFile()
    {
        static constexpr struct {
            const char *text;
            int pid;
        } rows[] = {{"123\n", 123}, {"123\n456\n", 123}, {"", 0}, {"snmpd\n", 0}};
        const QString path = m_folder.filePath(QStringLiteral("pid"));
        QVERIFY(!pidInFile(path));
        for (const auto &row : rows) {
            const AtRow at(row.text);
            write("pid", row.text);
            QCOMPARE(pidInFile(path).value_or(-1), row.pid);
        }
    }

    void everyGpioLineOfTheModel()
    {
        const GpioFolder folder;
        addLines(folder, 84, 2);
        addLines(folder, 168, 8);
        addLines(folder, 504, 7);
        for (const auto &[model, lines] : {std::pair{6211U, 7}, {6214U, 10}, {6259U, 10}, {6891U, 7}, {6420U, 0}}) {
            const GpioSurvey tree = surveyGpio(folder.root(), model, false);
            QVERIFY(tree.exists);
            QCOMPARE(tree.lines, lines);
            QCOMPARE(tree.unreadable, QStringList());
            QCOMPARE(tree.missingChips, QStringList());
        }
        QVERIFY(!surveyGpio(folder.path(QStringLiteral("none")), 6211, false).exists);
    }

    void gpioLinesThatCannotBeReadAndExpanders()
    {
        const GpioFolder folder;
        addLines(folder, 168, 6);
        folder.setValue(169, "2\n");
        GpioSurvey tree = surveyGpio(folder.root(), 6211, true);
        QCOMPARE(tree.unreadable, (QStringList{QStringLiteral("169"), QStringLiteral("174")}));
        QCOMPARE(tree.lines, 23);
        QCOMPARE(tree.missingChips.size(), 2);

        folder.addChip(300, "pca9555 1-0021");
        folder.addChip(320, "pca9555 1-0022");
        addLines(folder, 300, 8);
        addLines(folder, 320, 7); // the last line of the second is missing
        tree = surveyGpio(folder.root(), 6211, true);
        QCOMPARE(tree.missingChips, QStringList());
        QCOMPARE(tree.unreadable, (QStringList{QStringLiteral("169"), QStringLiteral("327"), QStringLiteral("174")}));
        QCOMPARE(folder.text(QStringLiteral("export")), QByteArray());
    }

    void onlyAResponseIsAnAnswerOfAgentx()
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
            const Listener listener(socketPath());
            auto asked = std::async(std::launch::async, [&, text = text] { return listener.serve(text); });
            const AgentxAnswer answer = pingAgentx(socketPath(), 5000);
            QVERIFY(answer.connected);
            QCOMPARE(answer.answered, text == response);
            QCOMPARE(asked.get().toHex(), QByteArray("010d100000000000000000000000000100000000")); // without a session
        }
    }

    void nobodyAnswersAtTheAgentxSocket()
    {
        QCOMPARE(pingAgentx(socketPath() + "-none", 200).error, ENOENT);
        {
            const Listener listener(socketPath());
            QElapsedTimer elapsed;
            elapsed.start();
            const AgentxAnswer result = pingAgentx(socketPath(), 200);
            QVERIFY(result.connected && !result.answered);
            QVERIFY(elapsed.elapsed() >= 190);
        }
        QCOMPARE(pingAgentx(socketPath(), 200).error, ECONNREFUSED);
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
    QByteArray socketPath() const { return m_folder.filePath(QStringLiteral("s")).toLocal8Bit(); }
    QString proc() const { return m_folder.path(); }
    void write(const char *name, const QByteArray &text) const
    {
        const QString path = m_folder.filePath(QLatin1String(name));
        QVERIFY(QDir().mkpath(QFileInfo(path).path()));
        writeFile(path, text);
    }

    QTemporaryDir m_folder;
};

const TestEntry entry("tst_system", runTest<TestSystem>);
#include "tst_system.moc"
