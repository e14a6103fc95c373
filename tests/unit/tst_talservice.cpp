// The simulator's service: clients of the data service, the control socket, the amplifier monitor, the GPIO tree.
#include "support/messagebus.h"
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
#include <fcntl.h>
#include <unistd.h>

using namespace simulator;

namespace {

constexpr char fanPath[] = "/state/fans/fan[kid='amp_power']/speed_sensor_rpm";
constexpr char fanLeaf[] = "<speed_sensor_rpm>1450</speed_sensor_rpm>";
constexpr char trapPath[] = "/state/config/snmp_settings/trap_settings/traps/trap[name='LET Fault']";
constexpr char namePath[] = "/state/config/snmp_settings/mib_2_settings/sys_name";

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

struct Service {
    QTemporaryDir folder;
    QString talPath = folder.filePath("tal.sock");
    DataTree tree;
    TalServer server;
    Device device;
    ControlServer control;

    explicit Service(qint64 maxQueue = TalServer::defaultMaxQueue)
        : server(nullptr, tree, maxQueue), device{tree, server, nullptr, nullptr, "6420"}, control(nullptr, device)
    {
        QString error;
        const Refusal refusal = loadModel(KVSNMP_TREES, "6420", tree);
        if (refusal || !server.listen(talPath, error) || !control.listen(folder.filePath("ctl.sock"), error))
            qFatal("%s", refusal ? refusal->c_str() : qPrintable(error));
    }
};

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
        socket.connectToServer(service.talPath);
        if (!socket.waitForConnected())
            qFatal("no connection");
    }

    void stopReading()
    {
        socket.setReadBufferSize(1);
        reads = false;
    }

    /// Sends requests and waits for this many messages: all messages since the last call, as "ref op rpath data".
    QStringList messages(int count, const QByteArray &requests = {})
    {
        socket.write(requests);
        static_cast<void>(QTest::qWaitFor([&] { return received.count('\0') >= count; }, 10000));
        QStringList list;
        for (QByteArrayList parts = received.split('\0'); parts.size() > 1; parts.removeFirst()) {
            pugi::xml_document document;
            document.load_buffer(parts[0].constData(), static_cast<std::size_t>(parts[0].size()), pugi::parse_full);
            const pugi::xml_node notify = document.child("notify");
            list +=
                QString::fromStdString(std::string(notify.child_value("ref")) + ' ' + notify.child_value("op") + ' ' +
                                       notify.child_value("rpath") + ' ' + nodeXml(notify.child("data").first_child()));
        }
        received = received.mid(received.lastIndexOf('\0') + 1);
        return list;
    }
};

/// A connection to the control socket that sends lines and reads replies as "code text".
struct Control {
    QLocalSocket socket;

    explicit Control(const Service &service)
    {
        socket.connectToServer(service.folder.filePath("ctl.sock"));
        if (!socket.waitForConnected())
            qFatal("no connection");
    }

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

/// A service with a GPIO tree, and the tree's folder as a program sees it that does not know the simulator.
struct GpioBench {
    Service service;
    Control control{service};
    QString root = service.folder.filePath("gpio");
    GpioTree tree;

    GpioBench(uint model, bool exportAll) : tree(nullptr, root, model)
    {
        service.device.gpio = &tree;
        tree.setOutput("gpio2");
        QString error;
        if (!tree.start(exportAll, error))
            qFatal("%s", qPrintable(error));
    }

    QString path(const QString &name) const { return root + '/' + name; }
    bool has(const QString &name) const { return QFile::exists(path(name)); }

    /// Without its line end.
    QString content(const QString &name) const
    {
        QFile file(path(name));
        return file.open(QIODevice::ReadOnly) ? QString(file.readAll()).remove('\n')
               : has(name)                    ? "(folder)"
                                              : "(missing)";
    }

    /// In place, as the kernel's files are written.
    bool write(const QString &name, const QByteArray &text) const
    {
        const int descriptor = ::open(QFile::encodeName(path(name)).constData(), O_WRONLY | O_CLOEXEC);
        const bool written = ::write(descriptor, text.constData(), size_t(text.size())) == text.size();
        ::close(descriptor);
        return written;
    }
};

// clang-format off
/// Lines for the control socket of one service, one after the other, and their replies.
constexpr struct { const char *line, *reply; } commands[] = {
    {"get FAN/speed_sensor_rpm", "0 1450"},
    {"get FAN", "0 <fan>\n  <kid>amp_power</kid>\n  <speed_sensor_rpm>1450</speed_sensor_rpm>\n</fan>"},
    {"get /state/fans/fan", "0 FAN\t<fan><kid>amp_power</kid><speed_sensor_rpm>1450</speed_sensor_rpm></fan>\n"
                            "/state/fans/fan[kid='amp_class_d']\t"
                            "<fan><kid>amp_class_d</kid><speed_sensor_rpm>1600</speed_sensor_rpm></fan>"},
    {"get /state/fans/fan/speed_sensor_rpm",
     "0 FAN/speed_sensor_rpm\t1450\n/state/fans/fan[kid='amp_class_d']/speed_sensor_rpm\t1600"},
    {"get /state/x", "1 no such node: /state/x"}, {"get x y", "2 usage: talctl get PATH"},
    {"set FAN/speed_sensor_rpm 12", "0"}, {"get FAN/speed_sensor_rpm", "0 12"},
    {R"(["set","/state/version/software/version"," \n<'\"> "])", "0"},
    {"get /state/version",
     "0 <version>\n  <software>\n    <kid>firmware</kid>\n    <version> \n&lt;'\"&gt; </version>\n  </software>\n"
     "</version>"},
    {"set /state/x 1", "1 no such node: /state/x"}, {"set x", "2 usage: talctl set PATH VALUE"},
    {"create /state/x '<x><y>1</y></x>'", "0"}, {"get /state/x", "0 <x>\n  <y>1</y>\n</x>"},
    {"patch /state/x <x><z>2</z></x>", "0"}, {"get /state/x", "0 <x>\n  <y>1</y>\n  <z>2</z>\n</x>"},
    {"replace /state/x <x/>", "0"}, {"get /state/x", "0"},
    {"delete FAN", "0"}, {"get /state/fans/fan/kid", "0 amp_class_d"},
    {"fault raise amp 7 fan_not_running crit 'no fan' --timestamp 0x10", "0"},
    {"fault raise amp 7 x crit t", "1 is there already: FAULT"},
    {"get FAULT", "0 <sys_message>\n  <reporter>amp</reporter>\n  <rep_ref>7</rep_ref>\n  <msgdata>\n"
     "    <fan_not_running/>\n  </msgdata>\n  <text>no fan</text>\n  <timestamp>0x10</timestamp>\n"
     "  <level>crit</level>\n</sys_message>"},
    {"fault raise 'psu 1/]' 8 \"\" err <t> --timestamp \"\" --replace", "0"}, // nothing to replace
    {"fault list", "0 amp\t7\tfan_not_running\tcrit\t0x10\tno fan\npsu 1/]\t8\t\terr\t\t<t>"},
    {"fault raise \"it's\" 7 x crit t", "1 reporter and reference may hold no apostrophe"},
    {"fault raise a 7 <x> crit t", "1 not a message identifier: <x>"},
    {R"(["fault","raise","a","7","x","crit","\u0002"])", "1 XML cannot carry a control character of this value"},
    {"fault raise amp 7 y err u --replace --timestamp 2", "0"}, {"fault clear 'psu 1/]' 8", "0"},
    {"fault list", "0 amp\t7\ty\terr\t2\tu"},
    {"fault clear amp 7", "0"}, {"fault list", "0"}, {"fault clear amp 7", "1 no such node: FAULT"},
    {"fault raise a 1 x crit t u",
     "2 usage: talctl fault raise REPORTER REF ID LEVEL TEXT [--timestamp TIME] [--replace] [--any]"},
    {"trap disable 'LET Fault'", "0"},
    {"get \"TRAP\"", "0 <trap>\n  <name>LET Fault</name>\n  <enabled>false</enabled>\n</trap>"},
    {"trap enable 'LET Fault'", "0"}, {"get \"TRAP/enabled\"", "0 true"}, {"trap enable x", "1 no such trap: x"},
    {"frob", "2 no such command: frob (talctl --help shows all)"},
    {"[]", "2 no such command:  (talctl --help shows all)"},
    {"replay x", "2 replay is carried out by talctl itself"},
    {"gpio list", "1 no GPIO tree: talservice was started without --gpio-root"},
    {"monitor status", "0 down"}, {"monitor gpi 1 ok_open", "1 the amplifier monitor is on no message bus"},
};
// clang-format on

/// Steps on a GPIO tree: "FILE: TEXT" in the end, "FILE < TEXT" writes, "COMMAND -> REPLY" of talctl gpio.
// clang-format off
constexpr struct { const char *name; uint model; bool exportAll; const char *steps; } gpioScripts[] = {
    {"chips and lines", 6891, true,
     "gpiochip336/label: controller; gpiochip336/base: 336; gpiochip336/ngpio: 176; gpiochip600/label: 1-0021; "
     "gpiochip616/label: 1-0022; gpiochip616/base: 616; gpio504/direction: in; gpio505/direction: out; "
     "gpio510/direction: out; gpio504/edge: none; gpio504/value: 0"},
    {"levels", 6891, true,
     "gpio1 1 -> 0; gpio504/value: 1; 504 unreadable -> 0; gpio504/value: unreadable; gpio1 0 -> 0; gpio504/value: 0; "
     "e_relay8 1 -> 0; gpio607/value: 1; gpio15 1 -> 1 no such line: gpio15; "
     "gpio1 2 -> 2 usage: talctl gpio LINE 0|1|unreadable"},
    {"exports by file: the number in the tree, with and without a line end, longer and shorter than before", 6214, false,
     "gpio84: (missing); export < 84; gpio84/value: 0; export: ; export < 168\n; gpio168/value: 0; export: ; "
     "export < 600\n; gpio600/value: 0; export: ; export < 5000; export: ; export < x; export: ; export < 176; export: ; "
     "gpio176: (missing); unexport < 84; gpio84: (missing)"},
    {"exports by command, and a level that is kept for the next export", 6214, false,
     "export relay3 -> 0; gpio84/value: 0; export relay3 -> 1 relay3 is exported already; unexport 84 -> 0; "
     "unexport 84 -> 1 relay3 is not exported; relay3 1 -> 0; gpio84: (missing); export relay3 -> 0; gpio84/value: 1"},
    {"the tree is removed and restored", 6211, true,
     "unexport gpio2 -> 0; restore -> 1 the GPIO tree is in place; remove -> 0; : (missing); "
     "remove -> 1 the GPIO tree is removed already; gpio1 1 -> 0; : (missing); restore -> 0; gpio168/value: 1; "
     "gpio169: (missing); export < 169; gpio169/value: 0"}, // the new file is watched
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

/// Collects the monitor's signals from the bus: name, types, values.
class Listener : public QObject {
    Q_OBJECT

public:
    QStringList heard;

public Q_SLOTS:
    void onSignal(const QDBusMessage &message)
    {
        QStringList words{message.member(), message.signature()};
        for (const QVariant &argument : message.arguments())
            words += argument.toString();
        heard += words.join(' ');
    }
};

class TestTalService : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { qputenv("DBUS_SESSION_BUS_ADDRESS", m_bus.address().toUtf8()); }

    void subscriptions()
    {
        Service service;
        Client client(service);
        for (const char byte : subscribeRequest("kvsnmp_fan", "/state/fans")) { // in chunks of one byte
            client.socket.write(&byte, 1);
            client.socket.flush();
            QCoreApplication::processEvents();
        }
        QTRY_COMPARE(client.received,
                     QByteArray("<notify><ref>kvsnmp_fan</ref><op>create</op><rpath>/state/fans</rpath>"
                                "<spath>/state/fans</spath><data><fans><fan><kid>amp_power</kid>"
                                "<speed_sensor_rpm>1450</speed_sensor_rpm></fan><fan><kid>amp_class_d</kid>"
                                "<speed_sensor_rpm>1600</speed_sensor_rpm></fan></fans></data></notify>") +
                         '\0');
        client.received.clear();
        // requests are served in order
        QCOMPARE(client.messages(4, subscribeRequest("a", "/state/power_sources/power_source/live") +
                                        editRequest("replace", "/state/power_sources/power_source[kid='ac_power']/live",
                                                    "<live>false</live>") +
                                        subscribeRequest("b", fanPath)),
                 (QStringList{"a create /state/power_sources/power_source[kid='ac_power']/live <live>true</live>",
                              "a create /state/power_sources/power_source[kid='dc_power']/live <live>true</live>",
                              "a replace /state/power_sources/power_source[kid='ac_power']/live <live>false</live>",
                              QString("b create %1 %2").arg(fanPath, fanLeaf)}));
        // the same subscription replaces the old one and sends its creates anew; another reference is another one
        QCOMPARE(client.messages(2, subscribeRequest("b", fanPath) + subscribeRequest("c", fanPath)).size(), 2);
        QVERIFY(!service.tree.set(fanPath, "9"));
        const QString replaced = QString("replace %1 <speed_sensor_rpm>9</speed_sensor_rpm>").arg(fanPath);
        QCOMPARE(client.messages(3), (QStringList{"kvsnmp_fan " + replaced, "b " + replaced, "c " + replaced}));
    }

    void severalClients()
    {
        Service service;
        Client two(service);
        QCOMPARE(two.messages(1, subscribeRequest("two", "/state/fans")).size(), 1);
        {
            Client one(service);
            QCOMPARE(one.messages(2, subscribeRequest("one", fanPath) + subscribeRequest("one", namePath)).size(), 2);
            QVERIFY(!service.tree.remove("/state/fans/fan[kid='amp_power']"));
            QCOMPARE(one.messages(1), QStringList(QString("one delete %1 %2").arg(fanPath, fanLeaf)));
            QCOMPARE(two.messages(1), QStringList(QString("two delete /state/fans/fan[kid='amp_power'] "
                                                          "<fan><kid>amp_power</kid>%1</fan>")
                                                      .arg(fanLeaf)));
            one.socket.abort();
        }
        Control control(service);
        for (int i = 0; i < 10; ++i) // one is gone and its session may be there still
            QCOMPARE(control.run(QString("set %1 %2").arg(namePath).arg(i)), QString("0"));
        QTRY_COMPARE(service.server.sessions().size(), std::size_t{1});
        Client again(service);
        QTRY_COMPARE(service.server.sessions().size(), std::size_t{2});
        QVERIFY(service.server.sessions().back()->subscriptions().empty()); // they ended with their connection
        QVERIFY(!service.tree.set(namePath, "2"));
        QCOMPARE(again.messages(1, subscribeRequest("b", namePath)),
                 QStringList(QString("b create %1 <sys_name>2</sys_name>").arg(namePath)));
    }

    void clientEdits()
    {
        Service service;
        Client client(service);
        QByteArray requests;
        for (const char *message : {"", "garbage", "<a><b></a>", "<request/>", "<notify><ref>x</ref></notify>",
                                    "<request><ref>x</ref><rpc><session_info/></rpc></request>",
                                    "<request><ref>x</ref><subscribe><path>no path</path></subscribe></request>",
                                    "<request><ref>x</ref><edit><path>/state/fans</path></edit></request>"})
            requests += QByteArray(message) + '\0';
        requests += QByteArray("\xFF\xFE\0\x80", 4) + '\0'; // the connection outlives all these
        requests += subscribeRequest("v", "/state/version/software") +
                    editRequest("patch", "/state/version",
                                "<version><software><kid>me</kid><version>1</version></software></version>");
        const char *me = "/state/version/software[kid='me']";
        const char *y = "/state/version/software[kid='y']";
        requests +=
            editRequest("create", me, "<software/>") + // refused: it exists
            editRequest("delete", me, nullptr) +
            editRequest("create", "/state/version/software[kid='x']", "<software><version>2</version></software>") +
            editRequest("rename", "/state/version", "<version/>") +
            editRequest("create", y, "<software/><software><kid>z</kid></software>") +
            editRequest("create", y, "a text") + editRequest("create", y, nullptr) +
            editRequest("patch", trapPath, "<trap><enabled>false</enabled></trap>") + // its key is in the path
            subscribeRequest("t", trapPath);
        QCOMPARE(
            client.messages(5, requests),
            (QStringList{
                ("v create /state/version/software[kid='firmware'] <software><kid>firmware</kid>"
                 "<version>4.2.1</version></software>"),
                "v create /state/version/software[kid='me'] <software><kid>me</kid><version>1</version></software>",
                "v delete /state/version/software[kid='me'] <software><kid>me</kid><version>1</version></software>",
                "v create /state/version/software[kid='x'] <software><kid>x</kid><version>2</version></software>",
                QString("t create %1 <trap><name>LET Fault</name><enabled>false</enabled></trap>").arg(trapPath)}));
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
        QCOMPARE(other.messages(1),
                 QStringList(QString("b replace %1 <speed_sensor_rpm>7</speed_sensor_rpm>").arg(fanPath)));
    }

    void slowClientIsDroppedAndHarmsNobody()
    {
        Service service(200 * 1000);
        Client slow(service);
        Client quick(service);
        slow.stopReading();
        slow.socket.write(subscribeRequest("a", fanPath));
        QCOMPARE(quick.messages(1, subscribeRequest("a", fanPath)).size(), 1);
        QTRY_COMPARE(service.server.sessions().size(), std::size_t{2});

        int sent = 0;
        for (; service.server.sessions().size() == 2 && sent < 100000; ++sent) {
            QVERIFY(!service.tree.set(fanPath, std::to_string(sent)));
            service.server.flush();
            if (sent % 100 == 0)
                QCoreApplication::processEvents();
        }
        QCOMPARE(service.server.sessions().size(), std::size_t{1});
        QTRY_COMPARE(quick.received.count('\0'), sent); // the other one gets every change
    }

    void stuckClientDoesNotHoldUpCommands()
    {
        Service service;
        Client stuck(service);
        stuck.stopReading();
        stuck.socket.write(subscribeRequest("a", namePath));
        QTRY_COMPARE(service.server.sessions().size(), std::size_t{1});

        Control control(service);
        const QString text(300 * 1000, 'x'); // more than the sockets hold between them
        QElapsedTimer timer;
        timer.start();
        for (int i = 0; i < 4; ++i)
            QCOMPARE(control.run(QString("set %1 %2%3").arg(namePath, text).arg(i)), QString("0"));
        QVERIFY(service.server.sessions().front()->queued() > 0);
        QVERIFY2(timer.elapsed() < 4000, qPrintable(QString::number(timer.elapsed()))); // waits once, not each time
    }

    void socketInUse()
    {
        Service service;
        DataTree tree;
        TalServer second(nullptr, tree);
        QString error;
        QVERIFY(!second.listen(service.talPath, error));
        QVERIFY(error.endsWith("is served by another program"));

        // the socket of a killed service is replaced, another file is not
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

    void controlCommands()
    {
        const Service service;
        Control control(service);
        for (const auto &[line, reply] : commands) {
            const AtRow at(line);
            QCOMPARE(control.run(withPaths(line)), withPaths(reply));
        }
    }

    void controlRepliesInOrder()
    {
        const Service service;
        Control control(service);
        Control other(service);
        QByteArray lines;
        for (int i = 0; i < 3000; ++i)
            lines += QByteArray("set ") + (i % 3 == 0 ? "/state/none" : fanPath) + ' ' + QByteArray::number(i) + '\n';
        control.socket.write(lines + "[\"get\",\nget " + fanPath + '\n');
        QCOMPARE(other.run("get /state/power_sources/power_source[kid='ac_power']/live"), QString("0 true"));
        for (int i = 0; i < 3000; ++i)
            QCOMPARE(control.reply(), QString(i % 3 == 0 ? "1 no such node: /state/none" : "0"));
        QCOMPARE(control.reply(), QString("2 malformed JSON list"));
        QCOMPARE(control.reply(), QString("0 2999"));

        control.socket.write(QByteArray(20 * 1024 * 1024, 'x')); // an over-long line
        QTRY_COMPARE_WITH_TIMEOUT(control.socket.state(), QLocalSocket::UnconnectedState, 30000);
        QCOMPARE(other.run(QString("get ") + fanPath), QString("0 2999"));
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

    void channelsOfATree()
    {
        const Service service; // a 6420
        const std::vector<AmpChannel> channels = ampChannelsOf(service.tree);
        QCOMPARE(channels.size(), std::size_t{2});
        for (uint number = 0; number < 2; ++number) {
            QCOMPARE(channels[number].number, number);
            QCOMPARE(channels[number].lets, (std::vector<uint>{1, 2, 3, 4, 5, 6, 7, 8, 9, 10}));
        }
        DataTree station;
        QVERIFY(!loadModel(KVSNMP_TREES, "6214", station));
        QVERIFY(ampChannelsOf(station).empty());
    }

    void monitorAnnouncesItsChannels()
    {
        Service service;
        Monitor monitor(nullptr, Monitor::Bus::Session);
        monitor.setChannels(ampChannelsOf(service.tree));
        service.device.monitor = &monitor;
        connect(&service.server, &TalServer::subscribed, &monitor, &Monitor::announceChannelsSoon);
        monitor.start();
        m_bus.start();
        QTRY_VERIFY(monitor.isUp());
        Listener listener;
        QDBusConnection listening = QDBusConnection::connectToBus(m_bus.address(), "channels");
        const QString name = "com.orvane.pamon";
        const QString status = "onAmpChannelStatusUpdate uu ";
        QVERIFY(listening.connect(name, "/monitor", name, QString(), &listener, SLOT(onSignal(QDBusMessage))));
        QTRY_COMPARE(listener.heard, (QStringList{status + "0 2", status + "1 2"})); // the bus has come

        Control control(service);
        QCOMPARE(control.run("monitor amp 1 1"), QString("0"));
        Client client(service);
        client.messages(2, subscribeRequest("a", fanPath) + subscribeRequest("b", fanPath));
        QTRY_COMPARE(listener.heard.mid(2), (QStringList{status + "1 1", status + "0 2", status + "1 1"}));
        client.messages(1, subscribeRequest("c", fanPath));
        QCOMPARE(control.run("monitor gpi 0 ok_open"), QString("0")); // does not overtake them
        QTRY_COMPARE(listener.heard.mid(5), (QStringList{status + "0 2", status + "1 1", "onGpiUpdate us 0 ok_open"}));
        QDBusConnection::disconnectFromBus("channels");
        m_bus.stop();
    }

    void monitor()
    {
        Service service;
        Monitor monitor(nullptr, Monitor::Bus::Session);
        monitor.setChannels({{.number = 0, .lets = {1, 10}}, {.number = 1, .lets = {}}});
        monitor.start();
        service.device.monitor = &monitor;
        Control control(service);
        QCOMPARE(control.run("monitor status"), QString("0 down"));
        m_bus.start();
        QTRY_VERIFY(monitor.isUp());
        monitor.announcePending();
        QVERIFY(monitor.flush()); // before anybody listens

        Listener listener;
        QDBusConnection listening = QDBusConnection::connectToBus(m_bus.address(), "listener");
        const QString name = "com.orvane.pamon";
        QVERIFY(listening.connect(name, "/monitor", name, QString(), &listener, SLOT(onSignal(QDBusMessage))));
        for (const char *line : {"status", "gpo 5 ok_set", "gpo 4294967295 'a b' c", "gpi 13 ''", "amp 1 2",
                                 "amp 4294967295 3 --any", "let 0 10 1", "let 9 0 1 --any", "power 7 8"})
            QCOMPARE(control.run(QString("monitor ") + line), QString(qstrcmp(line, "status") == 0 ? "0 up" : "0"));
        QCOMPARE(control.run("monitor amp -1 2"), QString("2 not a number: -1"));
        QCOMPARE(control.run("monitor amp 2 2"),
                 QString("1 no such amplifier channel: 2 (possible: 0 1; --any sends any other)"));
        QCOMPARE(control.run("monitor let 2 1 2"),
                 QString("1 no such amplifier channel: 2 (possible: 0 1; --any sends any other)"));
        QCOMPARE(control.run("monitor let 0 0 2"),
                 QString("1 no such line end transponder: 0 (possible: 1 10; --any sends any other)"));
        QCOMPARE(control.run("monitor let 1 1 2"),
                 QString("1 this model has no line end transponder (--any sends any)"));
        QTRY_COMPARE(listener.heard,
                     (QStringList{"onGpoUpdate uss 5 ok_set ok_set", "onGpoUpdate uss 4294967295 a b c",
                                  "onGpiUpdate us 13 ", "onAmpChannelStatusUpdate uu 1 2",
                                  "onAmpChannelStatusUpdate uu 4294967295 3", "onLetPrecenseUpdate uuu 0 10 1",
                                  "onLetPrecenseUpdate uuu 9 0 1", "onPowerConsumptionUpdate uu 7 8"}));

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
        QTRY_VERIFY(!monitor.isUp());
        QCOMPARE(control.run("monitor amp 1 2"), QString("1 the amplifier monitor is on no message bus"));
        m_bus.start();
        QTRY_VERIFY(monitor.isUp());
        QCOMPARE(control.run("monitor amp 1 2"), QString("0"));
    }

    void gpioLines()
    {
        const QString expanders =
            " gpio7=192:616 gpio8=193:617 gpio9=194:618 gpio10=195:619 gpio11=196:620 gpio12=197:621 "
            "gpio13=198:622 gpio14=199:623";
        const QString relays = " e_relay1=176:600 e_relay2=177:601 e_relay3=178:602 e_relay4=179:603 e_relay5=180:604 "
                               "e_relay6=181:605 e_relay7=182:606 e_relay8=183:607";
        const QString low = "gpio1=168:168 gpio2=169:169 gpio3=170:170 gpio4=171:171 gpio5=172:172 gpio6=173:173";
        const QString high = "gpio1=504:504 gpio2=505:505 gpio3=506:506 gpio4=507:507 gpio5=508:508 gpio6=509:509";
        const QString own = " relay1=175:175 relay2=174:174 relay3=84:84 relay4=85:85";
        const QMap<uint, QString> lines{{6211, low + expanders + " relay1=174:174" + relays},
                                        {6891, high + expanders + " relay1=510:510" + relays},
                                        {6214, low + expanders + own + relays},
                                        {6259, low + expanders + own + relays},
                                        {6420, ""}};
        for (auto model = lines.begin(); model != lines.end(); ++model) {
            QStringList found;
            const GpioTree tree(nullptr, "/nowhere", model.key());
            for (const GpioTree::Line &line : tree.lines())
                found += QString("%1=%2:%3").arg(line.name).arg(line.number).arg(line.file);
            QCOMPARE(found.join(' '), model.value());
        }
    }

    void gpioTreeOnDisk()
    {
        for (const auto &[name, model, exportAll, steps] : gpioScripts) {
            const AtRow at(name);
            GpioBench b(model, exportAll);
            for (const QString &step : QString(steps).split("; ")) {
                const AtRow atStep(step.toUtf8());
                if (step.contains(" < ")) {
                    QVERIFY(b.write(step.section(" < ", 0, 0), step.section(" < ", 1).toLatin1()));
                } else if (step.contains(" -> ")) {
                    QCOMPARE(b.control.run("gpio " + step.section(" -> ", 0, 0)), step.section(" -> ", 1));
                } else {
                    QTRY_COMPARE(b.content(step.section(": ", 0, 0)), step.section(": ", 1));
                }
            }
        }
    }

    void gpioFolders()
    {
        GpioBench b(6214, false);
        for (const char *line : {"84", "168", "e_relay1"})
            QCOMPARE(b.control.run(QString("gpio export ") + line), QString("0"));
        QCOMPARE(QDir(b.root).entryList({"gpio[0-9]*"}).size(), 3);
        QVERIFY(QDir(b.root).mkdir("other")); // a folder that stays, like a mount point, loses only the tree's files
        QCOMPARE(b.control.run("gpio remove"), QString("0"));
        QCOMPARE(QDir(b.root).entryList(QDir::AllEntries | QDir::NoDotAndDotDot), QStringList{"other"});
        QCOMPARE(b.control.run("gpio restore"), QString("0"));
        QVERIFY(b.has("gpio168/value"));
        QCOMPARE(b.control.run("gpio 168 unreadable"), QString("0"));
        const QStringList lines = b.control.run("gpio list").split('\n');
        QCOMPARE(lines.size(), 6 + 8 + 4 + 8);
        QCOMPARE(lines.mid(0, 2),
                 (QStringList{"0 gpio1\t168\tgpio168\tin\tunreadable", "gpio2\t169\tgpio169\tmissing\tmissing"}));
        QCOMPARE(lines[25], QString("e_relay8\t183\tgpio607\tmissing\tmissing"));
    }

private:
    MessageBus m_bus; // one for all tests, because its address is read once
};

const TestEntry entry("tst_talservice", runTest<TestTalService>);
#include "tst_talservice.moc"
