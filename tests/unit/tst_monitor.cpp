// The simulator's amplifier monitor and its commands.
#include "support/messagebus.h"
#include "support/testprogram.h"

#include "simulator/commandrunner.h"
#include "simulator/monitor.h"
#include "simulator/talserver.h"
#include "simulator/treefiles.h"
#include "simulator/words.h"

#include <QDBusConnection>
#include <QDBusMessage>

using namespace simulator;

namespace {
struct Bench {
    DataTree tree;
    TalServer server{nullptr, tree};
    Device device{tree, server, nullptr, nullptr, {}};

    QString run(const QString &line)
    {
        QString error;
        const Reply reply = runCommand(device, splitWords(line, error).value());
        return QString("%1 %2").arg(reply.code).arg(reply.text).trimmed();
    }
};

/// Commands of talctl monitor, one after the other, their replies and the signals that they send.
// clang-format off
constexpr struct { const char *command, *reply, *signal; } announcements[] = {
    {"status", "0 up", nullptr},
    {"gpo 5 ok_set", "0", "onGpoUpdate uss 5 ok_set ok_set"},
    {"gpi 13 ''", "0", "onGpiUpdate us 13 "},
    {"amp 1 3", "0", "onAmpChannelStatusUpdate uu 1 3"},
    {"amp -1 2", "2 not a number: -1", nullptr},
    {"amp 2 2", "1 no such amplifier channel: 2 (possible: 0 1; --any sends any other)", nullptr},
    {"let 0 10 1", "0", "onLetPrecenseUpdate uuu 0 10 1"},
    {"let 9 0 1 --any", "0", "onLetPrecenseUpdate uuu 9 0 1"},
    {"let 1 0 2",
     "1 no such line end transponder: 0 (possible: 1 2 3 4 5 6 7 8 9 10; --any sends any other)", nullptr},
    {"power 7 8", "0", "onPowerConsumptionUpdate uu 7 8"},
};
// clang-format on

const QString busName = "com.orvane.pamon";
} // namespace

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

class TestMonitor : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void monitor()
    {
        MessageBus bus;
        qputenv("DBUS_SESSION_BUS_ADDRESS", bus.address().toUtf8());
        Bench b;
        QVERIFY(!loadModel(KVSNMP_TREES, "6420", b.tree));
        Monitor monitor(nullptr, Monitor::Bus::Session);
        monitor.setChannels(ampChannelsOf(b.tree));
        monitor.start();
        b.device.monitor = &monitor;
        QCOMPARE(b.run("monitor status"), QString("0 down"));
        bus.start();
        QTRY_VERIFY(monitor.isUp());

        Listener listener;
        QDBusConnection listening = QDBusConnection::connectToBus(bus.address(), "listener");
        QVERIFY(listening.connect(busName, "/monitor", busName, QString(), &listener, SLOT(onSignal(QDBusMessage))));
        const QString channel = "onAmpChannelStatusUpdate uu ";
        QStringList expected{channel + "0 2", channel + "1 2"}; // the bus has come
        QTRY_COMPARE(listener.heard, expected);
        for (const auto &[command, reply, signal] : announcements) {
            const AtRow at(command);
            QCOMPARE(b.run(QString("monitor ") + command), QString(reply));
            if (signal != nullptr)
                expected += signal;
        }
        QTRY_COMPARE(listener.heard, expected);

        for (int subscription = 0; subscription < 2; ++subscription)
            monitor.announceChannelsSoon();
        expected += {channel + "0 2", channel + "1 3"}; // once, with the last statuses
        QTRY_COMPARE(listener.heard, expected);
        monitor.announceChannelsSoon();
        QCOMPARE(b.run("monitor gpi 0 ok_open"), QString("0")); // does not overtake them
        expected += {channel + "0 2", channel + "1 3", "onGpiUpdate us 0 ok_open"};
        QTRY_COMPARE(listener.heard, expected);

        QDBusConnection::disconnectFromBus("listener");

        bus.stop();
        QTRY_VERIFY(!monitor.isUp());
        QCOMPARE(b.run("monitor amp 1 2"), QString("1 the amplifier monitor is on no message bus"));
        bus.start();
        QTRY_VERIFY(monitor.isUp());
        QCOMPARE(b.run("monitor amp 1 2"), QString("0"));
        DataTree station;
        QVERIFY(!loadModel(KVSNMP_TREES, "6214", station));
        monitor.setChannels(ampChannelsOf(station));
        QCOMPARE(b.run("monitor amp 0 1"), QString("1 this model has no amplifier channel (--any sends any)"));
    }
};

const TestEntry entry("tst_monitor", runTest<TestMonitor>);
#include "tst_monitor.moc"
