// The application object: construction, connections, start-up sequence, end.
#include "app/kvsnmp.h"

#include "support/agentbench.h"
#include "support/catalogue.h"
#include "support/childprocess.h"
#include "support/files.h"
#include "support/kvsnmpbench.h"
#include "support/testprogram.h"

#include "device/boundedtext.h"
#include "faults/faulthandler.h"
#include "gpio/gpiocontrol.h"

#include <xrcommon/TalInterface.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <sys/resource.h>

class TestKvSnmp : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { sentTraps.clear(); }

    void constructionInOrder()
    {
        const Bench bench(6420);
        QCOMPARE(bench.log.lines().mid(0, 9).join(QLatin1Char('\n')),
                 qs("KvSnmp Creating Object\n"
                    "readModelNumber modelNumber: 6420 len: 4\n"
                    "readAmpType amplfierTypeString: VQ9C len: 4\n"
                    "readPackageVersion pvStr: 1.2.3\n"
                    "readPackageVersion packageVersion: 1.2.3 len: 5\n"
                    "readModelType modelType: Some Device len: 11\n"
                    "readKernelVersion kvStr: 5.10\n"
                    "readKernelVersion kernelVersion: 5.10 len: 4\n"
                    "readDeviceTreeVersion deviceTreeVersion: 7 len: 1"));
    }

    void partsOfEachModel()
    {
        for (const catalogue::Row &model : catalogue::rows("models")) {
            const AtRow at(model.latin1("model"));
            const bool hasAmpType = !model.text("file").isEmpty();
            const bool hasGpio = !model.text("gpio").isEmpty();
            Bench bench(model.text("model").toInt());
            QCOMPARE(bench.log.takeLines().filter(qs("readAmpType")).size(), hasAmpType ? 1 : 0);
            QStringList parts;
            for (const QObject *child : bench.kvSnmp->children())
                parts += qs(child->metaObject()->className());
            parts = parts.filter(QRegularExpression(qs("^(?!Q|DescriptorWatch)")));
            QCOMPARE(parts.join(QLatin1Char(' ')), qs("TalInterface TalHandler FaultHandler SnmpdConfHandler") +
                                                       (hasGpio ? qs(" GpioControl") : QString()));
            QVERIFY(bench.child<QSocketNotifier>() != nullptr);
            QVERIFY(!bench.subscribeTimer()->isActive());
            QVERIFY(!bench.processTimer()->isActive());

            if (hasGpio)
                QVERIFY(!bench.child<GpioControl>()->findChild<QTimer *>()->isActive());
            QSignalSpy subscribed(bench.kvSnmp.get(), SIGNAL(kvSnmpStartSubscribe()));
            QSignalSpy verified(bench.kvSnmp.get(), SIGNAL(signalGpioVerifyStart()));
            QMetaObject::invokeMethod(bench.kvSnmp.get(), "dbgTimeout");
            QCOMPARE(bench.log.lines().first(), qs("dbgTimeout"));
            QCOMPARE(subscribed.count(), 1);
            QCOMPARE(verified.count(), hasGpio ? 1 : 0);
            if (hasGpio)
                QVERIFY(bench.child<GpioControl>()->findChild<QTimer *>()->isActive());
        }
    }

    void processEndsWithoutModelNumberOrSignalSockets()
    {
        const Device device(6420);
        const auto construct = [&device](rlim_t descriptors) {
            return inChild([&device, descriptors] {
                qInstallMessageHandler(nullptr);
                const rlimit limit{descriptors, descriptors};
                setrlimit(RLIMIT_NOFILE, &limit);
                const KvSnmp kvSnmp(QCoreApplication::instance(), device.surroundings());
                return 0;
            });
        };
        const ChildResult noSockets = construct(3);
        QVERIFY(noSockets.endedBy(SIGABRT));
        QVERIFY2(noSockets.err.contains("Couldn't create TERM socketpair"), noSockets.err.constData());

        QVERIFY(QFile::remove(device.folder.filePath(qs("etc/xr-modelnumber"))));
        const ChildResult noModel = construct(1024);
        QVERIFY(noModel.exitedWith(255));
        QCOMPARE(noModel.err, "KvSnmp Creating Object\n"
                              "readModelNumber /etc/xr-modelnumber EMPTY !   Cannot continue\n"
                              "KvSnmp Failed to read modelNumber, cannot continue\n");
    }

    void destructionInOrderLeavesNoDescriptor()
    {
        const auto descriptors = [] { return QDir(qs("/proc/self/fd")).entryList(QDir::System | QDir::Files).size(); };
        int before = 0;
        for (int time = 0; time < 2; ++time) { // the second one: the libraries open some things only once
            before = descriptors();
            Bench bench(6214);
            QVERIFY(descriptors() > before);
            const QObjectList expected = {bench.talHandler(),         bench.child<TalInterface>(),
                                          bench.snmpdConfHandler(),   bench.subscribeTimer(),
                                          bench.child<GpioControl>(), bench.child<FaultHandler>()};
            QObjectList gone;
            for (QObject *child : expected)
                connect(child, &QObject::destroyed, [&gone, child] { gone.append(child); });
            bench.kvSnmp.reset();
            QCOMPARE(gone, expected);
        }
        QCOMPARE(descriptors(), before);
    }

    void signalsAndSlotsInOrder()
    {
        QCOMPARE(ownMethods(KvSnmp::staticMetaObject, QMetaMethod::Signal),
                 qs("appExit() signalTalReady() kvSnmpStartSubscribe() signalGpioVerifyStart()"));
        QCOMPARE(ownMethods(KvSnmp::staticMetaObject, QMetaMethod::Slot),
                 qs("handleSigTerm() slotSnmpdConfFinish() kvSnmpSetTalReady() watchdogTimerSlot() dbgTimeout() "
                    "processSnmpTimeout()"));
    }

    void connectionStartsTheSequence()
    {
        Bench bench(6420, TalPeer::Start::Listening);
        QElapsedTimer sinceConstruction;
        sinceConstruction.start();
        QSignalSpy ready(bench.kvSnmp.get(), SIGNAL(signalTalReady()));
        QSignalSpy subscribed(bench.kvSnmp.get(), SIGNAL(kvSnmpStartSubscribe()));
        QTRY_COMPARE(bench.peer.messages().size(), 5); // the settings paths
        QTRY_VERIFY(bench.subscribeTimer()->remainingTime() < 2600);
        QElapsedTimer sinceConnection;
        sinceConnection.start();
        Q_EMIT bench.child<TalInterface>()->talLocalUnixSocketConnectedSignal(); // once more: the delay starts anew
        QCOMPARE(ready.count(), 2);
        QTRY_COMPARE_WITH_TIMEOUT(subscribed.count(), 1, 10000);
        QVERIFY2(sinceConnection.elapsed() >= 2800, "3 s after the connection"); // a coarse timer may be 5 % early
        QTRY_VERIFY(bench.peer.messages().size() > 2 * 5);                       // the data paths
        QVERIFY(!QFile::exists(QFile::decodeName(bench.device.watchdogFile)));
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(QFile::decodeName(bench.device.watchdogFile)), 10000);
        QVERIFY2(sinceConstruction.elapsed() >= 4700, "5 s after the construction");
        QCOMPARE(subscribed.count(), 1);
    }

    void notificationsReachTheTalHandler()
    {
        const Bench bench(6420);
        Q_EMIT bench.child<TalInterface>()->talNotifySignal(
            qs("kvsnmp_fan"), qs("replace"), qs("/state/fans/fan[kid='amp_power']"), qs("/state/fans"),
            qs("<fan><kid>amp_power</kid><speed_sensor_rpm>1234</speed_sensor_rpm></fan>"));
        QCOMPARE(bench.talHandler()->tableRecords().fan.values[0].value, 1234U);
    }

    void faultsReachTheFaultHandler()
    {
        const Bench bench(6420);
        AgentRecord agent;
        agent.record.sendTrap = noteTrap;
        raiseFault(bench, qs("before it is enabled"));
        QCOMPARE(sentTraps, QStringList());
        enableTrap(bench, "Cooling Fan Fault");
        raiseFault(bench, qs("after"));
        QCOMPARE(sentTraps.size(), 2);
        QVERIFY(sentTraps[0].startsWith(qs("1 ")) && sentTraps[0].endsWith(qs("before it is enabled")));
        QVERIFY(sentTraps[1].endsWith(qs("after")));
    }

    void programAndMakerHaveNames()
    {
        const ChildResult child = inChild([] {
            KvSnmp::nameApplication();
            for (const QString &name : {QCoreApplication::organizationName(), QCoreApplication::organizationDomain(),
                                        QCoreApplication::applicationName(), QCoreApplication::applicationVersion()})
                std::puts(qPrintable(name));
            return 0;
        });
        QCOMPARE(child.out, "Orvane\norvane.com\nkvsnmp\n" KVSNMP_VERSION "\n");
    }

    void eachSignalIsHandled()
    {
        const ChildResult child = inChild([] {
            KvSnmp::installSignalHandlers();
            int handled = 0;
            for (const int signalNumber : {SIGINT, SIGTERM, SIGHUP}) {
                struct sigaction action {};
                sigaction(signalNumber, nullptr, &action);
                const unsigned flags = SA_RESTART | SA_SIGINFO | SA_NODEFER | SA_RESETHAND | SA_ONSTACK;
                if (action.sa_handler == KvSnmp::handOverSignal && sigisemptyset(&action.sa_mask) == 1 &&
                    (static_cast<unsigned>(action.sa_flags) & flags) == SA_RESTART)
                    ++handled;
            }
            return handled;
        });
        QVERIFY(child.exitedWith(3));
        QCOMPARE(child.err, QByteArray());
    }

    void eachSignalEndsTheEventLoop()
    {
        for (const int signalNumber : {SIGINT, SIGTERM, SIGHUP}) {
            const AtRow at(strsignal(signalNumber));
            const Bench bench(6420);
            QSignalSpy exits(bench.kvSnmp.get(), SIGNAL(appExit()));
            QTimer limit;
            connect(&limit, &QTimer::timeout, [] { QCoreApplication::exit(1); });
            limit.start(10000);
            const auto previous = std::signal(signalNumber, KvSnmp::handOverSignal);
            QTimer::singleShot(0, bench.kvSnmp.get(), [signalNumber] { std::raise(signalNumber); });
            QCOMPARE(QCoreApplication::exec(), 0);
            std::signal(signalNumber, previous);
            QCOMPARE(exits.count(), 1);
            QVERIFY(bench.child<QSocketNotifier>()->isEnabled());
        }
    }

    void signalsNeitherBlockNorFail()
    {
        errno = 4711;
        KvSnmp::handOverSignal(SIGTERM); // without an application object
        QCOMPARE(errno, 4711);
        const Bench bench(6420);
        errno = 4711;
        for (int i = 0; i < 100000; ++i) // far more than the socket holds
            KvSnmp::handOverSignal(SIGTERM);
        QCOMPARE(errno, 4711);
        QSignalSpy exits(bench.kvSnmp.get(), SIGNAL(appExit()));
        QTRY_VERIFY(exits.count() >= 1);
    }

    void watchdogSlotWritesTheFileOrPrintsThatItCannot()
    {
        const Bench bench(6420);
        const QByteArray &file = bench.device.watchdogFile;
        QMetaObject::invokeMethod(bench.kvSnmp.get(), "watchdogTimerSlot");
        QCOMPARE(readFile(file), "update\n");
        QVERIFY(QFile::remove(QFile::decodeName(file)));
        QVERIFY(QDir(bench.device.folder.path()).mkdir(qs("watchdog")));
        QCOMPARE(printed([&bench] { QMetaObject::invokeMethod(bench.kvSnmp.get(), "watchdogTimerSlot"); }),
                 QStringList{qs("Couldn't open file: " + file)});
    }

    void finishHandsTheDataToTheAgent()
    {
        Bench bench(6420);
        AgentRecord agent;
        bench.log.takeLines();
        bench.finishSnmpdConf();
        QCOMPARE(bench.log.lines().first(), qs("slotSnmpdConfFinish Start checkAndProcessTimer"));

        const TableRecords &records = bench.talHandler()->tableRecords();
        QCOMPARE(agent.record.talVoltageTableData, &records.voltage); // the agent spreads the records
        QVERIFY(agent.record.infoData != nullptr);
        QCOMPARE(agent.record.infoData->modelNumber.value, 6420);
        QCOMPARE(agent.record.infoData->amplifierType.text, "VQ9C");
        QVERIFY(bench.processTimer()->isActive());
        QCOMPARE(bench.processTimer()->interval(), 100);

        bench.processTimer()->stop();
        bench.log.takeLines();
        bench.finishSnmpdConf(); // once more: nothing happens
        QCOMPARE(bench.log.lines(), QStringList());
        QVERIFY(!bench.processTimer()->isActive());
    }

    void finishHandsTheSystemName()
    {
        const auto handed = [](const QString &sysName, bool customFile) {
            const Bench bench(6420);
            Q_EMIT bench.talHandler()->signalSnmpdConfMib2Settings({sysName, qs("cellar"), qs("ops")});
            Q_EMIT bench.talHandler()->signalSnmpdConfUseCustomConfFile(customFile);
            AgentRecord agent;
            copyBounded(agent.record.systemName, "before");
            bench.finishSnmpdConf();
            return QByteArray(agent.record.systemName);
        };
        QCOMPARE(handed(qs("amp-1"), false), "amp-1");
        QCOMPARE(handed(qs("amp-1"), true), "");
        QCOMPARE(handed({}, false), "");
        QCOMPARE(handed(QString(3, QChar(0xfc)), false), "\xfc\xfc\xfc");
    }
};

const TestEntry entry("tst_kvsnmp", runTest<TestKvSnmp>);
#include "tst_kvsnmp.moc"
