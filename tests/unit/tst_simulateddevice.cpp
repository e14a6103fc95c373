// The simulator's amplifier monitor and GPIO tree, and their commands.
#include "support/messagebus.h"
#include "support/testprogram.h"

#include "simulator/commandrunner.h"
#include "simulator/gpiotree.h"
#include "simulator/monitor.h"
#include "simulator/talserver.h"
#include "simulator/treefiles.h"
#include "simulator/words.h"

#include <QDBusConnection>
#include <QDBusMessage>
#include <QDBusPendingReply>

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

/// A GPIO tree, and its folder as a program sees it that does not know the simulator.
struct GpioBench : Bench {
    QTemporaryDir folder;
    QString root = folder.filePath("gpio");
    GpioTree gpio;

    GpioBench(uint model, bool exportAll) : gpio(nullptr, root, model)
    {
        device.gpio = &gpio;
        gpio.setOutput("gpio2");
        QString error;
        if (!gpio.start(exportAll, error))
            qFatal("%s", qPrintable(error));
    }

    QString content(const QString &name) const
    {
        QFile file(root + '/' + name);
        return file.open(QIODevice::ReadOnly) ? QString(file.readAll()).remove('\n')
               : file.exists()                ? "(folder)"
                                              : "(missing)";
    }

    bool write(const QString &name, const QByteArray &text) const
    {
        QFile file(root + '/' + name);
        return file.open(QIODevice::ReadWrite | QIODevice::ExistingOnly | QIODevice::Unbuffered) &&
               file.write(text) == text.size();
    }
};

/// Steps on a GPIO tree: "FILE: TEXT" in the end, "FILE < TEXT" writes, "COMMAND -> REPLY" of talctl gpio.
// clang-format off
constexpr struct { const char *name; uint model; bool exportAll; const char *steps; } gpioScripts[] = {
    {"chips and lines", 6891, true,
     "gpiochip616/label: 1-0022; gpiochip616/base: 616; gpiochip616/ngpio: 16; gpio504/direction: in; gpio505/direction: out; "
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

class TestSimulatedDevice : public QObject {
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

    void gpioTreeOnDisk()
    {
        for (const auto &[name, model, exportAll, steps] : gpioScripts) {
            const AtRow at(name);
            GpioBench b(model, exportAll);
            for (const QString &step : QString(steps).split("; ")) {
                const AtRow atStep(step.toUtf8());
                if (step.contains(" < "))
                    QVERIFY(b.write(step.section(" < ", 0, 0), step.section(" < ", 1).toLatin1()));
                else if (step.contains(" -> "))
                    QCOMPARE(b.run("gpio " + step.section(" -> ", 0, 0)), step.section(" -> ", 1));
                else
                    QTRY_COMPARE(b.content(step.section(": ", 0, 0)), step.section(": ", 1));
            }
        }
    }
};

const TestEntry entry("tst_simulateddevice", runTest<TestSimulatedDevice>);
#include "tst_simulateddevice.moc"
