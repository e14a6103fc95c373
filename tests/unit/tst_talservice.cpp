// The simulator's data service: its clients, and the commands of its control socket.
#include "support/testprogram.h"

#include "simulator/controlserver.h"
#include "simulator/talserver.h"
#include "simulator/treefiles.h"

#include <QLocalSocket>

using namespace simulator;

namespace {
constexpr char fanPath[] = "/state/fans/fan[kid='amp_power']/speed_sensor_rpm";
constexpr char namePath[] = "/state/config/snmp_settings/mib_2_settings/sys_name";
constexpr char trapPath[] = "/state/config/snmp_settings/trap_settings/traps/trap[name='LET Fault']";

struct Service {
    QTemporaryDir folder;
    QString path = folder.filePath("tal.sock");
    QString controlPath = folder.filePath("ctl.sock");
    DataTree tree;
    TalServer server;
    Device device;
    ControlServer control;

    Service() : server(nullptr, tree), device{tree, server, nullptr, nullptr, "6420"}, control(nullptr, device)
    {
        QString error;
        if (loadModel(KVSNMP_TREES, "6420", tree) || !server.listen(path, error) || !control.listen(controlPath, error))
            qFatal("no service: %s", qPrintable(error));
    }
};

struct Connection {
    QLocalSocket socket;

    explicit Connection(const QString &path)
    {
        socket.connectToServer(path);
        if (!socket.waitForConnected())
            qFatal("no connection");
    }
};

struct Client : Connection {
    QByteArray received;

    explicit Client(const Service &service) : Connection(service.path)
    {
        QObject::connect(&socket, &QLocalSocket::readyRead, &socket, [this] { received += socket.readAll(); });
    }

    /// Sends requests and waits for this many messages: all messages since the last call, as "ref op rpath data".
    QStringList messages(int count, const QByteArray &requests = {})
    {
        static const QRegularExpression notify("^<notify><ref>(.*)</ref><op>(.*)</op><rpath>(.*)</rpath>"
                                               "<spath>.*</spath><data>(.*)</data></notify>$");
        socket.write(requests);
        static_cast<void>(QTest::qWaitFor([&] { return received.count('\0') >= count; }, 10000));
        QByteArrayList parts = received.split('\0');
        received = parts.takeLast();
        QStringList list;
        for (const QByteArray &part : qAsConst(parts))
            list += QString::fromUtf8(part).replace(notify, "\\1 \\2 \\3 \\4");
        return list;
    }
};

/// Sends lines to the control socket and reads the replies as "code text".
struct Control : Connection {
    explicit Control(const Service &service) : Connection(service.controlPath) {}

    QString reply()
    {
        if (!QTest::qWaitFor([this] { return socket.canReadLine(); }, 20000))
            return "(no reply)";
        const QJsonObject object = QJsonDocument::fromJson(socket.readLine()).object();
        return QString("%1 %2").arg(object["code"].toInt(-1)).arg(object["text"].toString()).trimmed();
    }

    QString run(const QString &line)
    {
        socket.write(line.toUtf8() + '\n');
        return reply();
    }
};

QByteArray subscribeRequest(const char *ref, const char *path)
{
    return QByteArray("<request><ref>") + ref + "</ref><subscribe><path>" + path +
           "</path><operation>change</operation><single_level>true</single_level><target>0</target></subscribe>"
           "</request>" +
           '\0';
}

QByteArray editRequest(const char *operation, const char *path, const char *data)
{
    return QByteArray("<request><ref>edit</ref><edit><path>") + path + "</path><operation>" + operation +
           "</operation>" + (data != nullptr ? QByteArray("<data>") + data + "</data>" : QByteArray()) +
           "</edit></request>" + '\0';
}

QString fanMessage(const char *words, const char *speed)
{
    return QString("%1 %2 <speed_sensor_rpm>%3</speed_sensor_rpm>").arg(words, fanPath, speed);
}

// clang-format off
constexpr struct { const char *line, *reply; } commands[] = {
    {"get /state/fans/fan", "0 FAN\t<fan><kid>amp_power</kid><speed_sensor_rpm>1450</speed_sensor_rpm></fan>\n"
                            "/state/fans/fan[kid='amp_class_d']\t"
                            "<fan><kid>amp_class_d</kid><speed_sensor_rpm>1600</speed_sensor_rpm></fan>"},
    {"get /state/fans/fan/kid", "0 FAN/kid\tamp_power\n/state/fans/fan[kid='amp_class_d']/kid\tamp_class_d"},
    {"fault raise amp 7 fan_not_running crit 'no fan' --timestamp 0x10", "0"},
    {"fault raise amp 7 x crit t", "1 is there already: FAULT"},
    {"get FAULT", "0 <sys_message>\n  <reporter>amp</reporter>\n  <rep_ref>7</rep_ref>\n  <msgdata>\n"
     "    <fan_not_running/>\n  </msgdata>\n  <text>no fan</text>\n  <timestamp>0x10</timestamp>\n"
     "  <level>crit</level>\n</sys_message>"},
    {"fault raise 'psu 1/]' 8 \"\" err <t> --timestamp \"\" --replace", "0"}, // nothing to replace
    {"fault list", "0 amp\t7\tfan_not_running\tcrit\t0x10\tno fan\npsu 1/]\t8\t\terr\t\t<t>"},
    {"fault raise \"it's\" 7 x crit t", "1 reporter and reference may hold no apostrophe"},
    {"fault raise a 7 <x> crit t", "1 not a message identifier: <x>"},
    {"fault raise amp 7 y err u --replace --timestamp 2", "0"}, {"fault clear 'psu 1/]' 8", "0"},
    {"fault list", "0 amp\t7\ty\terr\t2\tu"},
    {"fault clear amp 7", "0"}, {"fault list", "0"}, {"fault clear amp 7", "1 no such node: FAULT"},
    {"trap disable 'LET Fault'", "0"},
    {"get \"TRAP\"", "0 <trap>\n  <name>LET Fault</name>\n  <enabled>false</enabled>\n</trap>"},
    {"trap enable 'LET Fault'", "0"}, {"get \"TRAP/enabled\"", "0 true"}, {"trap enable x", "1 no such trap: x"},
};
// clang-format on

QString withPaths(const char *text)
{
    return QString(text)
        .replace("FAN", "/state/fans/fan[kid='amp_power']")
        .replace("TRAP", trapPath)
        .replace("FAULT", "/state/sys_messages/sys_message[reporter='amp'][rep_ref='7']");
}
} // namespace

class TestTalService : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void subscriptions()
    {
        Service service;
        Client client(service);
        for (const char byte : subscribeRequest("fans", "/state/fans")) { // in chunks of one byte
            client.socket.write(&byte, 1);
            client.socket.flush();
            QCoreApplication::processEvents();
        }
        QVERIFY(client.messages(1).join('|').startsWith("fans create /state/fans <fans><fan><kid>amp_power</kid>"));
        const char *live = "/state/power_sources/power_source[kid='ac_power']/live";
        QCOMPARE(client.messages(3, subscribeRequest("a", live) + editRequest("replace", live, "<live>false</live>") +
                                        subscribeRequest("b", fanPath)), // served in order
                 (QStringList{QString("a create %1 <live>true</live>").arg(live),
                              QString("a replace %1 <live>false</live>").arg(live), fanMessage("b create", "1450")}));
        // the same subscription replaces the old one and sends its creates anew; another reference is another one
        QCOMPARE(client.messages(2, subscribeRequest("b", fanPath) + subscribeRequest("c", fanPath)).size(), 2);
        QVERIFY(!service.tree.set(fanPath, "9"));
        QCOMPARE(client.messages(3), (QStringList{fanMessage("fans replace", "9"), fanMessage("b replace", "9"),
                                                  fanMessage("c replace", "9")}));
    }

    void severalClients()
    {
        Service service;
        Client two(service);
        QCOMPARE(two.messages(1, subscribeRequest("two", fanPath)).size(), 1);
        {
            Client one(service);
            QCOMPARE(one.messages(2, subscribeRequest("one", fanPath) + subscribeRequest("one", namePath)).size(), 2);
            QVERIFY(!service.tree.remove("/state/fans/fan[kid='amp_power']"));
            QCOMPARE(one.messages(1), QStringList(fanMessage("one delete", "1450")));
            QCOMPARE(two.messages(1), QStringList(fanMessage("two delete", "1450")));
            one.socket.abort();
        }
        Control control(service);
        for (int i = 0; i < 10; ++i) // one is gone and its session may be there still
            QCOMPARE(control.run(QString("set %1 %2").arg(namePath).arg(i)), QString("0"));
        QTRY_COMPARE(service.server.sessions().size(), std::size_t{1});
        Client again(service);
        QTRY_COMPARE(service.server.sessions().size(), std::size_t{2});
        QVERIFY(service.server.sessions().back()->subscriptions().empty()); // they ended with their connection
        QCOMPARE(again.messages(1, subscribeRequest("b", namePath)),
                 QStringList(QString("b create %1 <sys_name>9</sys_name>").arg(namePath)));
    }

    void clientEdits()
    {
        Service service;
        Client client(service);
        QByteArray requests;
        for (const char *message : {"", "garbage", "<a><b></a>", "\xFF\xFE", "<request/>", "<notify/>",
                                    "<request><ref>x</ref><rpc><session_info/></rpc></request>",
                                    "<request><ref>x</ref><subscribe><path>no path</path></subscribe></request>",
                                    "<request><ref>x</ref><edit><path>/state/fans</path></edit></request>"})
            requests += QByteArray(message) + '\0'; // the connection outlives all these
        requests += subscribeRequest("v", "/state/version/software");
        const struct {
            const char *operation, *key, *data, *message;
        } edits[] = {
            {"create", "firmware", "<software/>", nullptr}, // refused: it exists
            {"rename", "firmware", "<software/>", nullptr},
            {"create", "x", "<software/><software><kid>z</kid></software>", nullptr},
            {"create", "x", "a text", nullptr},
            {"create", "x", nullptr, nullptr},
            {"create", "x", "<software><version>2</version></software>", "create X <version>2</version></software>"},
            {"patch", "x", "<software><version>3</version></software>", "replace X/version <version>3</version>"},
            {"replace", "x", "<software><version>4</version></software>", "replace X <version>4</version></software>"},
            {"delete", "x", nullptr, "delete X <version>4</version></software>"},
        };
        QStringList expected{"v create /state/version/software[kid='firmware'] <software><kid>firmware</kid>"
                             "<version>4.2.1</version></software>"};
        for (const auto &[operation, key, data, message] : edits) {
            const QString path = QString("/state/version/software[kid='%1']").arg(key);
            requests += editRequest(operation, path.toUtf8(), data);
            if (message != nullptr)
                expected += QString("v %1").arg(message).replace("X <", "X <software><kid>x</kid><").replace("X", path);
        }
        QCOMPARE(client.messages(expected.size(), requests), expected);
    }

    void overLongMessages()
    {
        Service service;
        Client client(service);
        Client other(service);
        client.socket.write(QByteArray(5 * 1024 * 1024, 'x')); // closes the connection
        QTRY_COMPARE(client.socket.state(), QLocalSocket::UnconnectedState);
        QCOMPARE(other.messages(2, subscribeRequest("a", namePath) + subscribeRequest("b", fanPath)).size(), 2);
        QTRY_COMPARE(service.server.sessions().size(), std::size_t{1});
        // a notification that is too long is not sent: every character is sent as five
        QVERIFY(!service.tree.set(namePath, std::string(maxMessageSize / 4, '&')));
        QVERIFY(!service.tree.set(fanPath, "7"));
        QCOMPARE(other.messages(1), QStringList(fanMessage("b replace", "7")));
    }

    void controlCommands()
    {
        const Service service;
        Control control(service);
        for (const auto &[line, reply] : commands) {
            const AtRow at(line);
            QCOMPARE(control.run(withPaths(line)), withPaths(reply));
        }
    }

    void replyComesAfterTheChangeWasSent()
    {
        Service service;
        Client client(service);
        QCOMPARE(client.messages(2, subscribeRequest("a", fanPath) + subscribeRequest("b", "/state/fans")).size(), 2);
        Control control(service);
        QCOMPARE(control.run("clients"), QString("0 1\t2\t0"));
        QCOMPARE(control.run("subscriptions"), QString("0 1\ta\t%1\n1\tb\t/state/fans").arg(fanPath));
        for (int i = 0; i < 20; ++i) {
            QCOMPARE(control.run(QString("set %1 %2").arg(fanPath).arg(i)), QString("0"));
            QCOMPARE(service.server.owed(), qint64{0}); // the client's socket has everything
        }
        QCOMPARE(client.messages(40).size(), 40);
        QCOMPARE(control.run("clients drop"), QString("0"));
        QTRY_COMPARE(client.socket.state(), QLocalSocket::UnconnectedState);
        QTRY_COMPARE(control.run("clients"), QString("0"));
    }
};

const TestEntry entry("tst_talservice", runTest<TestTalService>);
#include "tst_talservice.moc"
