// The simulator's service: clients of the data service, the control socket, the amplifier monitor, the GPIO tree.
#include "support/testprogram.h"

#include "simulator/controlserver.h"
#include "simulator/gpiotree.h"
#include "simulator/monitor.h"
#include "simulator/talserver.h"
#include "simulator/treefiles.h"
#include "simulator/treexml.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingReply>
#include <QDir>
#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>
#include <QTest>
#include <fcntl.h>
#include <unistd.h>
#include <xrcommon/Gpio.h>
#include <xrcommon/TalInterface.h>

using namespace simulator;

namespace {

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

/// A data service of one model on sockets of its own, in this process.
struct Service {
    QTemporaryDir folder;
    DataTree tree;
    TalServer server;
    Device device;
    ControlServer control;

    explicit Service(qint64 maxQueue = TalServer::defaultMaxQueue)
        : server(nullptr, tree, maxQueue), device{tree, server, nullptr, nullptr}, control(nullptr, device)
    {
        QString error;
        const Refusal refusal = loadModel(QStringLiteral(KVSNMP_TREES), QStringLiteral("6420"), tree);
        if (refusal || !server.listen(talPath(), error) || !control.listen(controlPath(), error))
            qFatal("%s", refusal ? refusal->c_str() : qPrintable(error));
    }

    QString talPath() const { return folder.filePath(QStringLiteral("tal.sock")); }
    QString controlPath() const { return folder.filePath(QStringLiteral("ctl.sock")); }
};

/// A client of the data service.
struct Client {
    QLocalSocket socket;
    QByteArray received;
    bool reads = true;

    explicit Client(const Service &service)
    {
        QObject::connect(&socket, &QLocalSocket::readyRead, &socket, [this] {
            if (reads)
                received += socket.readAll();
        });
        socket.connectToServer(service.talPath());
        if (!socket.waitForConnected())
            qFatal("no connection");
    }

    /// The messages so far as "ref op rpath data"; an unfinished one is not among them.
    QStringList messages() const
    {
        QStringList list;
        const QByteArrayList parts = received.split('\0');
        for (const QByteArray &message : parts.mid(0, parts.size() - 1)) {
            pugi::xml_document document;
            std::string error;
            document.load_buffer(message.constData(), static_cast<std::size_t>(message.size()), pugi::parse_full);
            const pugi::xml_node notify = document.child("notify");
            list +=
                QString::fromStdString(std::string(notify.child_value("ref")) + ' ' + notify.child_value("op") + ' ' +
                                       notify.child_value("rpath") + ' ' + nodeXml(notify.child("data").first_child()));
        }
        return list;
    }
};

/// A connection to the control socket that sends lines and collects replies as "code text".
struct Control {
    QLocalSocket socket;

    explicit Control(const Service &service)
    {
        socket.connectToServer(service.controlPath());
        if (!socket.waitForConnected())
            qFatal("no connection");
    }

    static QByteArray line(const QStringList &words)
    {
        return QJsonDocument(QJsonArray::fromStringList(words)).toJson(QJsonDocument::Compact) + '\n';
    }

    QString reply()
    {
        if (!QTest::qWaitFor([this] { return socket.canReadLine(); }, 20000))
            return QStringLiteral("(no reply)");
        const QJsonObject object = QJsonDocument::fromJson(socket.readLine()).object();
        return QStringLiteral("%1 %2")
            .arg(object[QStringLiteral("code")].toInt(-1))
            .arg(object[QStringLiteral("text")].toString())
            .trimmed();
    }

    QString run(const QStringList &words)
    {
        socket.write(line(words));
        return reply();
    }
};

constexpr char fanPath[] = "/state/fans/fan[kid='amp_power']/speed_sensor_rpm";
constexpr char trapPath[] = "/state/config/snmp_settings/trap_settings/traps/trap[name='LET Fault']";

/// A message bus of the test's own.
struct Bus {
    QTemporaryDir folder;
    QProcess daemon;

    QString address() const { return QStringLiteral("unix:path=") + folder.filePath(QStringLiteral("bus")); }

    void start()
    {
        daemon.start(QStringLiteral("dbus-daemon"),
                     {QStringLiteral("--session"), QStringLiteral("--nofork"), QStringLiteral("--print-address"),
                      QStringLiteral("--address=") + address()});
        if (!daemon.waitForStarted() || !daemon.waitForReadyRead())
            qFatal("dbus-daemon does not start");
    }

    void stop()
    {
        daemon.kill();
        daemon.waitForFinished();
        QFile::remove(folder.filePath(QStringLiteral("bus")));
    }

    ~Bus() { stop(); }
};

QByteArray content(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(missing)");
}

/// Writes as a program does that knows nothing of the simulator: open, write, close.
bool writeTo(const QString &path, const char *text)
{
    const int descriptor = ::open(QFile::encodeName(path).constData(), O_WRONLY | O_CLOEXEC);
    const bool written =
        descriptor >= 0 && ::write(descriptor, text, qstrlen(text)) == static_cast<ssize_t>(qstrlen(text));
    ::close(descriptor);
    return written;
}

} // namespace

/// Collects the monitor's signals from the bus.
class Listener : public QObject {
    Q_OBJECT

public:
    QStringList heard;

public Q_SLOTS:
    void onAmp(uint channel, uint status) { heard += QStringLiteral("amp %1 %2").arg(channel).arg(status); }
    void onGpi(uint index, const QString &state) { heard += QStringLiteral("gpi %1 %2").arg(index).arg(state); }
    void onGpo(uint index, const QString &state, const QString &system)
    {
        heard += QStringLiteral("gpo %1 %2 %3").arg(QString::number(index), state, system);
    }
    void onLet(uint a, uint b, uint c) { heard += QStringLiteral("let %1 %2 %3").arg(a).arg(b).arg(c); }
    void onPower(uint a, uint b) { heard += QStringLiteral("power %1 %2").arg(a).arg(b); }
};

class TestTalService : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { qputenv("DBUS_SESSION_BUS_ADDRESS", m_bus.address().toUtf8()); }

    void subscriptionSendsWhatIsThereThenChanges()
    {
        Service service;
        Client client(service);
        client.socket.write(subscribeRequest("kvsnmp_fan", "/state/fans"));
        QTRY_COMPARE(client.messages().size(), 1);
        QCOMPARE(client.received,
                 QByteArray(
                     "<notify><ref>kvsnmp_fan</ref><op>create</op><rpath>/state/fans</rpath><spath>/state/fans</spath>"
                     "<data><fans><fan><kid>amp_power</kid><speed_sensor_rpm>1450</speed_sensor_rpm></fan><fan><kid>"
                     "amp_class_d</kid><speed_sensor_rpm>1600</speed_sensor_rpm></fan></fans></data></notify>") +
                     '\0');
        client.received.clear();
        QVERIFY(!service.tree.set(fanPath, "900"));
        QTRY_COMPARE(client.messages(),
                     (QStringList{"kvsnmp_fan replace /state/fans/fan[kid='amp_power']/speed_sensor_rpm "
                                  "<speed_sensor_rpm>900</speed_sensor_rpm>"}));
    }

    void requestsAreServedInOrder()
    {
        Service service;
        Client client(service);
        client.socket.write(
            subscribeRequest("a", "/state/power_sources/power_source/live") +
            editRequest("replace", "/state/power_sources/power_source[kid='ac_power']/live", "<live>false</live>") +
            subscribeRequest("b", "/state/config/gpis/gpi[kid='gpi1']/monitored"));
        QTRY_COMPARE(
            client.messages(),
            (QStringList{"a create /state/power_sources/power_source[kid='ac_power']/live <live>true</live>",
                         "a create /state/power_sources/power_source[kid='dc_power']/live <live>true</live>",
                         "a replace /state/power_sources/power_source[kid='ac_power']/live <live>false</live>",
                         "b create /state/config/gpis/gpi[kid='gpi1']/monitored <monitored>true</monitored>"}));
    }

    void sameSubscriptionReplacesTheOld()
    {
        Service service;
        Client client(service);
        client.socket.write(subscribeRequest("a", fanPath) + subscribeRequest("a", fanPath) +
                            subscribeRequest("b", fanPath));
        QTRY_COMPARE(client.messages().size(), 3); // its creates anew, and another reference is another subscription
        client.received.clear();
        QVERIFY(!service.tree.set(fanPath, "1"));
        QTRY_COMPARE(client.messages().size(), 2);
        QVERIFY(client.messages()[0].startsWith("a replace"));
        QVERIFY(client.messages()[1].startsWith("b replace"));
    }

    void requestsInAnyChunking()
    {
        Service service;
        Client client(service);
        const QByteArray request = subscribeRequest("a", fanPath);
        for (const char byte : request) {
            client.socket.write(&byte, 1);
            client.socket.flush();
            QCoreApplication::processEvents();
        }
        QTRY_COMPARE(client.messages().size(), 1);
    }

    void subscriptionEndsWithItsConnection()
    {
        Service service;
        {
            Client client(service);
            client.socket.write(subscribeRequest("a", fanPath));
            QTRY_COMPARE(client.messages().size(), 1);
        }
        QTRY_VERIFY(service.server.sessions().empty());
        Client again(service);
        QTRY_COMPARE(service.server.sessions().size(), std::size_t{1});
        QVERIFY(service.server.sessions().front()->subscriptions().empty());
        QVERIFY(!service.tree.set(fanPath, "2"));
        again.socket.write(subscribeRequest("b", fanPath));
        QTRY_COMPARE(again.messages().size(), 1); // the create alone: the change came before
        QVERIFY(again.messages()[0].startsWith("b create"));
    }

    void severalClients()
    {
        Service service;
        Client one(service);
        Client two(service);
        one.socket.write(subscribeRequest("one", fanPath));
        two.socket.write(subscribeRequest("two", "/state/fans"));
        QTRY_COMPARE(one.messages().size() + two.messages().size(), 2);
        QVERIFY(!service.tree.remove("/state/fans/fan[kid='amp_power']"));
        QTRY_COMPARE(one.messages().size(), 2);
        QTRY_COMPARE(two.messages().size(), 2);
        QCOMPARE(one.messages()[1], QString("one delete %1 <speed_sensor_rpm>1450</speed_sensor_rpm>").arg(fanPath));
        QCOMPARE(two.messages()[1], QString("two delete /state/fans/fan[kid='amp_power'] <fan><kid>amp_power</kid>"
                                            "<speed_sensor_rpm>1450</speed_sensor_rpm></fan>"));
    }

    void clientEdits()
    {
        Service service;
        Client client(service);
        client.socket.write(
            subscribeRequest("v", "/state/version/software") +
            editRequest("patch", "/state/version",
                        "<version><software><kid>me</kid><version>1</version></software></version>") +
            editRequest("create", "/state/version/software[kid='me']", "<software/>") + // refused: it is there
            editRequest("delete", "/state/version/software[kid='me']", nullptr) +
            editRequest("create", "/state/version/software[kid='x']", "<software><version>2</version></software>") +
            editRequest("rename", "/state/version", "<version/>") +
            editRequest("create", "/state/version/software[kid='y']", "<software/><software><kid>z</kid></software>") +
            editRequest("create", "/state/version/software[kid='y']", "a text") +
            editRequest("create", "/state/version/software[kid='y']", nullptr) +
            editRequest("patch", trapPath, "<trap><enabled>false</enabled></trap>") + // its key stands in the path
            subscribeRequest("t", trapPath));
        QTRY_COMPARE(
            client.messages(),
            (QStringList{
                ("v create /state/version/software[kid='firmware'] <software><kid>firmware</kid>"
                 "<version>4.2.1</version></software>"),
                "v create /state/version/software[kid='me'] <software><kid>me</kid><version>1</version></software>",
                "v delete /state/version/software[kid='me'] <software><kid>me</kid><version>1</version></software>",
                "v create /state/version/software[kid='x'] <software><kid>x</kid><version>2</version></software>",
                QString("t create %1 <trap><name>LET Fault</name><enabled>false</enabled></trap>").arg(trapPath)}));
    }

    void messagesThatAreNotRequests()
    {
        Service service;
        Client client(service);
        for (const char *message : {"", "garbage", "<a><b></a>", "<request/>", "<notify><ref>x</ref></notify>",
                                    "<request><ref>x</ref><rpc><session_info/></rpc></request>",
                                    "<request><ref>x</ref><subscribe><path>no path</path></subscribe></request>",
                                    "<request><ref>x</ref><edit><path>/state/fans</path></edit></request>"})
            client.socket.write(message, static_cast<qint64>(qstrlen(message)) + 1);
        client.socket.write(QByteArray("\xFF\xFE\0\x80", 4) + '\0');
        client.socket.write(subscribeRequest("a", fanPath));
        QTRY_COMPARE(client.messages().size(), 1); // and the connection is as good as before
        QVERIFY(client.messages()[0].startsWith("a create"));
    }

    void overLongMessageClosesTheConnection()
    {
        Service service;
        Client client(service);
        Client other(service);
        client.socket.write(QByteArray(5 * 1024 * 1024, 'x'));
        QTRY_COMPARE(client.socket.state(), QLocalSocket::UnconnectedState);
        other.socket.write(subscribeRequest("a", fanPath));
        QTRY_COMPARE(other.messages().size(), 1);
        QTRY_COMPARE(service.server.sessions().size(), std::size_t{1});
    }

    void overLongNotificationIsNotSent()
    {
        Service service;
        Client client(service);
        client.socket.write(subscribeRequest("a", "/state/config/snmp_settings/mib_2_settings/sys_name") +
                            subscribeRequest("b", fanPath));
        QTRY_COMPARE(client.messages().size(), 2);
        client.received.clear();
        // every character is sent as five
        QVERIFY(!service.tree.set("/state/config/snmp_settings/mib_2_settings/sys_name",
                                  std::string(maxMessageSize / 4, '&')));
        QVERIFY(!service.tree.set(fanPath, "7"));
        QTRY_VERIFY(!client.messages().isEmpty());
        QCOMPARE(client.messages().size(), 1);
        QVERIFY(client.messages()[0].startsWith("b replace"));
    }

    void slowClientIsDroppedAndHarmsNobody()
    {
        constexpr int maxQueue = 200 * 1000;
        Service service(maxQueue);
        Client slow(service);
        Client quick(service);
        slow.socket.setReadBufferSize(1);
        slow.reads = false;
        slow.socket.write(subscribeRequest("a", fanPath));
        quick.socket.write(subscribeRequest("a", fanPath));
        QTRY_COMPARE(service.server.sessions().size(), std::size_t{2});
        QTRY_COMPARE(quick.messages().size(), 1);

        int sent = 0;
        for (; service.server.sessions().size() == 2 && sent < 100000; ++sent) {
            QVERIFY(!service.tree.set(fanPath, std::to_string(sent)));
            service.server.flush();
            if (sent % 100 == 0)
                QCoreApplication::processEvents();
        }
        QCOMPARE(service.server.sessions().size(), std::size_t{1});
        QTRY_COMPARE(quick.received.count('\0'), sent + 1); // the other one got every change
    }

    void stuckClientDoesNotHoldUpCommands()
    {
        Service service;
        Client stuck(service);
        stuck.socket.setReadBufferSize(1);
        stuck.reads = false;
        stuck.socket.write(subscribeRequest("a", "/state/config/snmp_settings/mib_2_settings/sys_contact"));
        QTRY_COMPARE(service.server.sessions().size(), std::size_t{1});

        Control control(service);
        const QString text(300 * 1000, 'x'); // more than the sockets hold between them
        const QStringList command{"set", "/state/config/snmp_settings/mib_2_settings/sys_contact"};
        QElapsedTimer timer;
        timer.start();
        for (int i = 0; i < 4; ++i)
            QCOMPARE(control.run(command + QStringList{text + QString::number(i)}), QString("0"));
        QVERIFY(service.server.sessions().front()->queued() > 0);
        QVERIFY2(timer.elapsed() < 4000,
                 qPrintable(QString::number(timer.elapsed()))); // it is waited for once, not each time
    }

    void vanishedClient()
    {
        Service service;
        auto client = std::make_unique<Client>(service);
        client->socket.write(subscribeRequest("a", "/state"));
        QTRY_COMPARE(client->messages().size(), 1);
        client->socket.abort();
        client.reset();
        Control control(service);
        for (int i = 0; i < 10; ++i)
            QCOMPARE(control.run({"set", fanPath, QString::number(i)}), QString("0"));
        QTRY_VERIFY(service.server.sessions().empty());
    }

    void socketInUse()
    {
        Service service;
        DataTree tree;
        TalServer second(nullptr, tree);
        QString error;
        QVERIFY(!second.listen(service.talPath(), error));
        QVERIFY(error.endsWith("is served by another program"));

        // what a service that was killed left behind is taken over, another file is not
        const QString stale = service.folder.filePath("stale.sock");
        QProcess::execute("/usr/bin/python3",
                          {"-c", "import socket,sys; socket.socket(socket.AF_UNIX).bind(sys.argv[1])", stale});
        QVERIFY(QFile::exists(stale));
        QVERIFY2(second.listen(stale, error), qPrintable(error));
        const QString file = service.folder.filePath("file");
        QVERIFY(QFile(file).open(QIODevice::WriteOnly));
        TalServer third(nullptr, tree);
        QVERIFY(!third.listen(file, error));
        QVERIFY(error.endsWith("is there and is no socket"));
        QVERIFY(QFile::exists(file));
    }

    void controlCommands_data()
    {
        QTest::addColumn<QString>("lines"); // the last of them has the reply, the others "0"; FAN is a fan, LET a trap
        QTest::addColumn<QString>("reply");
        // clang-format off
        const struct { const char *name; const char *lines; const char *reply; } rows[] = {
            {"get a leaf",            "get FAN/speed_sensor_rpm",                           "0 1450"},
            {"get a node",            "get FAN",                                            "0 <fan><kid>amp_power</kid><speed_sensor_rpm>1450</speed_sensor_rpm></fan>"},
            {"get several",           "get /state/fans/fan/speed_sensor_rpm",               "0 FAN/speed_sensor_rpm\t1450\n/state/fans/fan[kid='amp_class_d']/speed_sensor_rpm\t1600"},
            {"get nothing",           "get /state/x",                                       "1 no such node: /state/x"},
            {"set",                   "set FAN/speed_sensor_rpm 12\nget FAN/speed_sensor_rpm", "0 12"},
            {"set with any text",     R"(["set","/state/version/software/version"," \n<'\"> "])" "\nget /state/version",
             "0 <version><software><kid>firmware</kid><version> \n&lt;'\"&gt; </version></software></version>"},
            {"set refused",           "set /state/x 1",                                     "1 no such node: /state/x"},
            {"create",                "create /state/x '<x><y>1</y></x>'\nget /state/x",    "0 <x><y>1</y></x>"},
            {"replace",               "create /state/x '<x><y>1</y></x>'\nreplace /state/x <x/>\nget /state/x", "0"},
            {"patch",                 "create /state/x '<x><y>1</y></x>'\npatch /state/x <x><z>2</z></x>\nget /state/x", "0 <x><y>1</y><z>2</z></x>"},
            {"delete",                "delete FAN\nget /state/fans",                        "0 <fans><fan><kid>amp_class_d</kid><speed_sensor_rpm>1600</speed_sensor_rpm></fan></fans>"},
            {"fault list",            "fault raise amp 7 fan_not_running crit 'no fan' --timestamp 0x10\nfault raise psu 8 \"\" err t --timestamp \"\"\nfault list",
             "0 amp\t7\tfan_not_running\tcrit\t0x10\tno fan\npsu\t8\t\terr\t\tt"},
            {"fault raised twice",    "fault raise amp 7 x crit t\nfault raise amp 7 x crit t", "1 is there already: /state/sys_messages/sys_message[reporter='amp'][rep_ref='7']"},
            {"fault replaced",        "fault raise amp 7 x crit t --timestamp 1\nfault raise amp 7 y err u --replace --timestamp 2\nfault list", "0 amp\t7\ty\terr\t2\tu"},
            {"fault cleared",         "fault raise amp 7 x crit t\nfault clear amp 7\nfault list", "0"},
            {"fault cleared that is not there", "fault clear amp 7",                        "1 no such node: /state/sys_messages/sys_message[reporter='amp'][rep_ref='7']"},
            {"trap disabled",         "trap disable 'LET Fault'\nget LET",                  "0 <trap><name>LET Fault</name><enabled>false</enabled></trap>"},
            {"trap enabled",          "trap disable 'LET Fault'\ntrap enable 'LET Fault'\nget LET/enabled", "0 true"},
            {"trap unknown",          "trap enable x",                                      "1 no such trap: x"},
            {"unknown command",       "frob",                                               "2 no such command: frob (talctl --help shows all)"},
            {"no command",            "[]",                                                 "2 no such command:  (talctl --help shows all)"},
            {"too few words",         "set x",                                              "2 usage: talctl set PATH VALUE"},
            {"too many words",        "get x y",                                            "2 usage: talctl get PATH"},
            {"fault with a word too many", "fault raise a 1 x crit t u",                    "2 usage: talctl fault raise REPORTER REF ID LEVEL TEXT [--timestamp TIME] [--replace]"},
            {"talctl's own command",  "replay x",                                           "2 replay is carried out by talctl itself"},
            {"no GPIO tree",          "gpio list",                                          "1 no GPIO tree: talservice was started without --gpio-root"},
            {"monitor without a bus", "monitor status",                                     "0 down"},
            {"monitor signal without a bus", "monitor gpi 1 ok_open",                       "1 the amplifier monitor is on no message bus"},
        };
        // clang-format on
        const auto writtenOut = [](const char *text) {
            return QString(text)
                .replace("FAN", "/state/fans/fan[kid='amp_power']")
                .replace(QRegularExpression("get LET"), QString("get \"%1\"").arg(trapPath));
        };
        for (const auto &row : rows)
            QTest::newRow(row.name) << writtenOut(row.lines).replace("\"/enabled", "/enabled\"")
                                    << writtenOut(row.reply);
    }

    void controlCommands()
    {
        QFETCH(const QString, lines);
        QFETCH(const QString, reply);
        Service service;
        Control control(service);
        const QStringList all = lines.split('\n');
        for (const QString &line : all) {
            control.socket.write(line.toUtf8() + '\n');
            QCOMPARE(control.reply(), &line == &all.last() ? reply : QString("0"));
        }
    }

    void controlRepliesInOrder()
    {
        Service service;
        Control control(service);
        Control other(service);
        QByteArray lines;
        for (int i = 0; i < 3000; ++i)
            lines += Control::line({"set", i % 3 == 0 ? "/state/none" : fanPath, QString::number(i)});
        control.socket.write(lines + "[\"get\",\n" + Control::line({"get", fanPath}));
        QCOMPARE(other.run({"get", "/state/power_sources/power_source[kid='ac_power']/live"}), QString("0 true"));
        for (int i = 0; i < 3000; ++i)
            QCOMPARE(control.reply(), QString(i % 3 == 0 ? "1 no such node: /state/none" : "0"));
        QCOMPARE(control.reply(), QString("2 malformed JSON list"));
        QCOMPARE(control.reply(), QString("0 2999"));
    }

    void replyComesAfterTheChangeWasSent()
    {
        Service service;
        Client client(service);
        client.socket.write(subscribeRequest("a", fanPath));
        QTRY_COMPARE(client.messages().size(), 1);
        Control control(service);
        for (int i = 0; i < 20; ++i) {
            QCOMPARE(control.run({"set", fanPath, QString::number(i)}), QString("0"));
            QCOMPARE(service.server.owed(), qint64{0}); // all is with the client's socket
        }
        QTRY_COMPARE(client.messages().size(), 21);
    }

    void clientsAndSubscriptionsAreListed()
    {
        Service service;
        Client one(service);
        one.socket.write(subscribeRequest("a", fanPath) + subscribeRequest("b", "/state/fans"));
        QTRY_COMPARE(one.messages().size(), 2);
        Control control(service);
        QCOMPARE(control.run({"clients"}), QString("0 1\t2\t0"));
        QCOMPARE(control.run({"subscriptions"}), QString("0 1\ta\t%1\n1\tb\t/state/fans").arg(fanPath));
        QCOMPARE(control.run({"clients", "drop"}), QString("0"));
        QTRY_COMPARE(one.socket.state(), QLocalSocket::UnconnectedState);
        QTRY_COMPARE(control.run({"clients"}), QString("0"));
    }

    void overLongControlLine()
    {
        Service service;
        Control control(service);
        control.socket.write(QByteArray(20 * 1024 * 1024, 'x'));
        QTRY_COMPARE_WITH_TIMEOUT(control.socket.state(), QLocalSocket::UnconnectedState, 30000);
        Control again(service);
        QCOMPARE(again.run({"get", fanPath}), QString("0 1450"));
    }

    void monitorAnnounces()
    {
        m_bus.start();
        Service service;
        Monitor monitor(nullptr, Monitor::Bus::Session);
        monitor.start();
        QVERIFY(monitor.isUp());
        service.device.monitor = &monitor;

        Listener listener;
        QDBusConnection listening = QDBusConnection::connectToBus(m_bus.address(), "listener");
        const QString name = "com.orvane.pamon";
        QVERIFY(
            listening.connect(name, "/monitor", name, "onAmpChannelStatusUpdate", &listener, SLOT(onAmp(uint, uint))));
        QVERIFY(listening.connect(name, "/monitor", name, "onGpiUpdate", &listener, SLOT(onGpi(uint, QString))));
        QVERIFY(
            listening.connect(name, "/monitor", name, "onGpoUpdate", &listener, SLOT(onGpo(uint, QString, QString))));
        QVERIFY(
            listening.connect(name, "/monitor", name, "onLetPrecenseUpdate", &listener, SLOT(onLet(uint, uint, uint))));
        QVERIFY(listening.connect(name, "/monitor", name, "onPowerConsumptionUpdate", &listener,
                                  SLOT(onPower(uint, uint))));

        Control control(service);
        QCOMPARE(control.run({"monitor", "status"}), QString("0 up"));
        QCOMPARE(control.run({"monitor", "gpo", "5", "ok_set"}), QString("0"));
        QCOMPARE(control.run({"monitor", "gpo", "4294967295", "a b", "c"}), QString("0"));
        QCOMPARE(control.run({"monitor", "gpi", "13", ""}), QString("0"));
        QCOMPARE(control.run({"monitor", "amp", "1", "2"}), QString("0"));
        QCOMPARE(control.run({"monitor", "let", "0", "10", "1"}), QString("0"));
        QCOMPARE(control.run({"monitor", "power", "7", "8"}), QString("0"));
        QCOMPARE(control.run({"monitor", "amp", "-1", "2"}), QString("2 not a number: -1"));
        QTRY_COMPARE(listener.heard, (QStringList{"gpo 5 ok_set ok_set", "gpo 4294967295 a b c", "gpi 13 ", "amp 1 2",
                                                  "let 0 10 1", "power 7 8"}));

        const QDBusPendingCall call =
            listening.asyncCall(QDBusMessage::createMethodCall(name, "/monitor", name, "doPaUiDbusConnected"));
        QTRY_VERIFY(call.isFinished());
        QVERIFY2(!call.isError(), qPrintable(call.error().message()));
        QDBusMessage get = QDBusMessage::createMethodCall(name, "/monitor", "org.freedesktop.DBus.Properties", "Get");
        get.setArguments({name, "pamonInterfacUp"});
        const QDBusPendingReply<QDBusVariant> property = listening.asyncCall(get);
        QTRY_VERIFY(property.isFinished());
        QCOMPARE(property.value().variant(), QVariant(true));
        QDBusConnection::disconnectFromBus("listener");
        m_bus.stop();
    }

    void monitorSurvivesItsBus()
    {
        Service service;
        Monitor monitor(nullptr, Monitor::Bus::Session);
        monitor.start();
        service.device.monitor = &monitor;
        QVERIFY(!monitor.isUp());
        Control control(service);
        QCOMPARE(control.run({"monitor", "status"}), QString("0 down"));
        m_bus.start();
        QTRY_VERIFY(monitor.isUp());
        QCOMPARE(control.run({"monitor", "amp", "1", "2"}), QString("0"));
        m_bus.stop();
        QTRY_VERIFY(!monitor.isUp());
        QCOMPARE(control.run({"monitor", "amp", "1", "2"}), QString("1 the amplifier monitor is on no message bus"));
        m_bus.start();
        QTRY_VERIFY(monitor.isUp());
        QCOMPARE(control.run({"monitor", "amp", "1", "2"}), QString("0"));
    }

    void gpioLines_data()
    {
        QTest::addColumn<uint>("model");
        QTest::addColumn<QString>("lines"); // name=number:file
        const QString expanders =
            " gpio7=192:616 gpio8=193:617 gpio9=194:618 gpio10=195:619 gpio11=196:620 gpio12=197:621 "
            "gpio13=198:622 gpio14=199:623";
        const QString relays = " e_relay1=176:600 e_relay2=177:601 e_relay3=178:602 e_relay4=179:603 e_relay5=180:604 "
                               "e_relay6=181:605 e_relay7=182:606 e_relay8=183:607";
        const QString low = "gpio1=168:168 gpio2=169:169 gpio3=170:170 gpio4=171:171 gpio5=172:172 gpio6=173:173";
        const QString high = "gpio1=504:504 gpio2=505:505 gpio3=506:506 gpio4=507:507 gpio5=508:508 gpio6=509:509";
        QTest::newRow("6211") << 6211U << low + expanders + " relay1=174:174" + relays;
        QTest::newRow("6891") << 6891U << high + expanders + " relay1=510:510" + relays;
        QTest::newRow("6214") << 6214U
                              << low + expanders + " relay1=175:175 relay2=174:174 relay3=84:84 relay4=85:85" + relays;
        QTest::newRow("6259") << 6259U
                              << low + expanders + " relay1=175:175 relay2=174:174 relay3=84:84 relay4=85:85" + relays;
        QTest::newRow("a model without lines") << 6420U << "";
    }

    void gpioLines()
    {
        QFETCH(const uint, model);
        QFETCH(const QString, lines);
        const GpioTree tree(nullptr, "/nowhere", model);
        QStringList found;
        for (const GpioTree::Line &line : tree.lines())
            found += QString("%1=%2:%3").arg(line.name).arg(line.number).arg(line.file);
        QCOMPARE(found.join(' '), lines);
    }

    void gpioTreeOnDisk()
    {
        const QTemporaryDir folder;
        const QString root = folder.filePath("gpio");
        GpioTree tree(nullptr, root, 6891);
        tree.setOutput("gpio2");
        QString error;
        QVERIFY2(tree.start(true, error), qPrintable(error));
        QCOMPARE(content(root + "/gpiochip336/label"), QByteArray("controller\n"));
        QCOMPARE(content(root + "/gpiochip336/base"), QByteArray("336\n"));
        QCOMPARE(content(root + "/gpiochip336/ngpio"), QByteArray("176\n"));
        QVERIFY(content(root + "/gpiochip600/label").trimmed().endsWith("-0021"));
        QVERIFY(content(root + "/gpiochip616/label").trimmed().endsWith("-0022"));
        QCOMPARE(content(root + "/gpiochip616/base"), QByteArray("616\n"));
        QCOMPARE(content(root + "/gpio504/direction"), QByteArray("in\n"));
        QCOMPARE(content(root + "/gpio505/direction"), QByteArray("out\n"));
        QCOMPARE(content(root + "/gpio510/direction"), QByteArray("out\n"));
        QCOMPARE(content(root + "/gpio504/edge"), QByteArray("none\n"));
        QCOMPARE(content(root + "/gpio504/value"), QByteArray("0\n"));

        QCOMPARE(tree.setLevel("gpio1", GpioTree::Level::High), QString());
        QCOMPARE(content(root + "/gpio504/value"), QByteArray("1\n"));
        QCOMPARE(tree.setLevel("504", GpioTree::Level::Unreadable), QString());
        QVERIFY(content(root + "/gpio504/value").trimmed() != "0");
        QVERIFY(content(root + "/gpio504/value").trimmed() != "1");
        QCOMPARE(tree.setLevel("gpio1", GpioTree::Level::Low), QString());
        QCOMPARE(content(root + "/gpio504/value"), QByteArray("0\n"));
        QCOMPARE(tree.setLevel("e_relay8", GpioTree::Level::High), QString());
        QCOMPARE(content(root + "/gpio607/value"), QByteArray("1\n"));
        QCOMPARE(tree.setLevel("gpio15", GpioTree::Level::High), QString("no such line: gpio15"));
    }

    void gpioExport()
    {
        const QTemporaryDir folder;
        GpioTree tree(nullptr, folder.path(), 6214);
        QString error;
        QVERIFY2(tree.start(false, error), qPrintable(error));
        const auto has = [&](const char *name) { return QFile::exists(folder.filePath(name)); };
        QVERIFY(!has("gpio84"));
        QVERIFY(writeTo(folder.filePath("export"), "84")); // without a line end, and the next one shorter or longer
        QTRY_VERIFY(has("gpio84/value"));
        QTRY_COMPARE(content(folder.filePath("export")), QByteArray());
        QVERIFY(writeTo(folder.filePath("export"), "168\n"));
        QTRY_VERIFY(has("gpio168/value"));
        QTRY_COMPARE(content(folder.filePath("export")), QByteArray());
        QVERIFY(writeTo(folder.filePath("export"), "600\n")); // of an expander, by its number in the tree
        QTRY_VERIFY(has("gpio600/value"));
        for (const char *wrong : {"5000", "x", "176"}) {
            QTRY_COMPARE(content(folder.filePath("export")), QByteArray());
            QVERIFY(writeTo(folder.filePath("export"), wrong));
        }
        QTRY_COMPARE(content(folder.filePath("export")), QByteArray());
        QCOMPARE(QDir(folder.path()).entryList({"gpio[0-9]*"}).size(), 3);

        QVERIFY(writeTo(folder.filePath("unexport"), "84"));
        QTRY_VERIFY(!has("gpio84"));
        QCOMPARE(tree.exportLine("relay3"), QString());
        QVERIFY(has("gpio84/value"));
        QCOMPARE(tree.exportLine("relay3"), QString("relay3 is exported already"));
        QCOMPARE(tree.unexportLine("84"), QString());
        QCOMPARE(tree.unexportLine("84"), QString("relay3 is not exported"));
        QCOMPARE(tree.setLevel("relay3", GpioTree::Level::High), QString()); // known for when it comes
        QVERIFY(!has("gpio84"));
        QCOMPARE(tree.exportLine("relay3"), QString());
        QCOMPARE(content(folder.filePath("gpio84/value")), QByteArray("1\n"));
    }

    void gpioTreeGoesAndComesBack()
    {
        const QTemporaryDir folder;
        const QString root = folder.filePath("gpio");
        GpioTree tree(nullptr, root, 6211);
        QString error;
        QVERIFY2(tree.start(true, error), qPrintable(error));
        QCOMPARE(tree.unexportLine("gpio2"), QString());
        QCOMPARE(tree.restore(), QString("the GPIO tree is in place"));
        QCOMPARE(tree.remove(), QString());
        QVERIFY(!QFile::exists(root));
        QCOMPARE(tree.remove(), QString("the GPIO tree is removed already"));
        QCOMPARE(tree.setLevel("gpio1", GpioTree::Level::High), QString());
        QVERIFY(!QFile::exists(root));
        QCOMPARE(tree.restore(), QString());
        QCOMPARE(content(root + "/gpio168/value"), QByteArray("1\n"));
        QVERIFY(!QFile::exists(root + "/gpio169"));
        QVERIFY(writeTo(root + "/export", "169")); // the new file is watched
        QTRY_VERIFY(QFile::exists(root + "/gpio169/value"));

        // a folder that must stay, as a mount point must, is emptied of the tree and of nothing else
        QVERIFY(QDir(root).mkdir("other"));
        QCOMPARE(tree.remove(), QString());
        QCOMPARE(QDir(root).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList{"other"});
        QCOMPARE(tree.restore(), QString());
        QVERIFY(QFile::exists(root + "/gpio168/value"));
    }

    void gpioCommands()
    {
        Service service;
        const QString root = service.folder.filePath("gpio");
        GpioTree tree(nullptr, root, 6211);
        QString error;
        QVERIFY2(tree.start(true, error), qPrintable(error));
        service.device.gpio = &tree;
        Control control(service);
        QCOMPARE(control.run({"gpio", "gpio1", "1"}), QString("0"));
        QCOMPARE(control.run({"gpio", "169", "unreadable"}), QString("0"));
        QCOMPARE(control.run({"gpio", "unexport", "gpio3"}), QString("0"));
        const QStringList lines = control.run({"gpio", "list"}).split('\n');
        QCOMPARE(lines.size(), 6 + 8 + 1 + 8);
        QCOMPARE(lines[0], QString("0 gpio1\t168\tgpio168\tin\t1"));
        QCOMPARE(lines[1], QString("gpio2\t169\tgpio169\tin\tunreadable"));
        QCOMPARE(lines[2], QString("gpio3\t170\tgpio170\tmissing\tmissing"));
        QCOMPARE(lines[22], QString("e_relay8\t183\tgpio607\tout\t0"));
        QCOMPARE(control.run({"gpio", "gpio1", "2"}), QString("2 usage: talctl gpio LINE 0|1|unreadable"));
        QCOMPARE(control.run({"gpio", "nine", "1"}), QString("1 no such line: nine"));
        QCOMPARE(control.run({"gpio", "remove"}), QString("0"));
        QCOMPARE(control.run({"gpio", "remove"}), QString("1 the GPIO tree is removed already"));
        QCOMPARE(control.run({"gpio", "restore"}), QString("0"));
        QCOMPARE(control.run({"gpio", "export", "gpio3"}), QString("0"));
        QVERIFY(QFile::exists(root + "/gpio170/value"));
    }

    void platformLibraryReadsTheGpioTree()
    {
        const QTemporaryDir folder;
        qputenv("XR_GPIO_ROOT", QFile::encodeName(folder.path()));
        GpioTree tree(nullptr, folder.path(), 6214);
        QString error;
        QVERIFY2(tree.start(false, error), qPrintable(error));

        Gpio controller(nullptr, static_cast<Gpios>(84), GPIO_DIRECTION_AS_IS, GPIO_EDGE_NONE);
        Gpio input(nullptr, static_cast<Gpios>(199), GPIO_DIRECTION_AS_IS, GPIO_EDGE_NONE);
        input.setI2c0022();
        Gpio relay(nullptr, static_cast<Gpios>(176), GPIO_DIRECTION_AS_IS, GPIO_EDGE_NONE);
        relay.setI2c0021();
        QVERIFY(tree.setLevel("gpio14", GpioTree::Level::High).isEmpty());
        QTRY_COMPARE(controller.getGpioInOutValue(), 0U); // each exports its line first
        QTRY_COMPARE(input.getGpioInOutValue(), 1U);
        QTRY_COMPARE(relay.getGpioInOutValue(), 0U);
        QVERIFY(tree.setLevel("e_relay1", GpioTree::Level::High).isEmpty());
        QVERIFY(tree.setLevel("relay3", GpioTree::Level::Unreadable).isEmpty());
        QCOMPARE(relay.getGpioInOutValue(), 1U);
        QCOMPARE(controller.getGpioInOutValue(), 255U);
        QVERIFY(tree.remove().isEmpty());
        QCOMPARE(input.getGpioInOutValue(), 255U);
        QVERIFY(tree.restore().isEmpty());
        QCOMPARE(input.getGpioInOutValue(), 1U);
        QVERIFY(tree.unexportLine("gpio14").isEmpty());
        QTRY_COMPARE(input.getGpioInOutValue(), 1U); // exported again, once it was missed
    }

    void platformLibraryIsServed()
    {
        Service service;
        qputenv("TAL_SOCKET", QFile::encodeName(service.talPath()));
        TalInterface client(nullptr);
        QStringList notified;
        connect(&client, &TalInterface::talLocalUnixSocketConnectedSignal, this, [] {
            TalInterface::requestDataSubscribeSingleLevel("a", "/state/sys_messages/sys_message", "change", "true",
                                                          TALTARGET_DEFAULT);
            TalInterface::requestDataEdit(
                "e", "/state/sys_messages/sys_message", "create",
                "<sys_message><level>err</level><rep_ref>7</rep_ref><reporter>amp 1/]</reporter>"
                "</sys_message>");
        });
        connect(&client, &TalInterface::talNotifySignal, this,
                [&](const QString &ref, const QString &op, const QString &rPath, const QString &sPath,
                    const QString &data) {
                    QString level;
                    const bool found = TalInterface::xpathGetTextNode(level, rPath + "/level", sPath, rPath, data);
                    notified += QStringList{ref, op, rPath, found ? level : "(none)"}.join(' ');
                });
        const QString rPath = "/state/sys_messages/sys_message[reporter='amp 1/]'][rep_ref='7']";
        QTRY_COMPARE(notified, QStringList{"a create " + rPath + " err"});
        QVERIFY(!service.tree.remove(rPath.toStdString()));
        QTRY_COMPARE(notified.size(), 2);
        QCOMPARE(notified[1], "a delete " + rPath + " err");
    }

private:
    Bus m_bus; // not running at first; one for all tests, because its address is read once
};

const TestEntry entry("tst_talservice", runTest<TestTalService>);
#include "tst_talservice.moc"
