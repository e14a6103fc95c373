// The application object: construction, connections, start-up sequence, end.
#include "app/kvsnmp.h"

#include "support/agentbench.h"
#include "support/childprocess.h"
#include "support/kvsnmpbench.h"
#include "support/testprogram.h"

#include "device/boundedtext.h"
#include "device/models.h"
#include "faults/faulthandler.h"
#include "gpio/gpiocontrol.h"

#include <xrcommon/TalInterface.h>

#include <QElapsedTimer>
#include <QSignalSpy>
#include <QSocketNotifier>
#include <QtTest>

#include <cerrno>
#include <csignal>
#include <sys/resource.h>

namespace {

void addModels()
{
    QTest::addColumn<int>("model");
    for (const std::uint32_t model : knownModels)
        QTest::newRow(QByteArray::number(model).constData()) << static_cast<int>(model);
}

} // namespace

class TestKvSnmp : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void cleanup() { sentTraps.clear(); }

    void constructionInOrder()
    {
        const Bench bench(6420);
        const QStringList expected{
            qs("KvSnmp Creating Object"),
            qs("readModelNumber modelNumber: 6420 len: 4"),
            qs("readAmpType amplfierTypeString: VQ9C len: 4"),
            qs("readPackageVersion pvStr: 1.2.3"),
            qs("readPackageVersion packageVersion: 1.2.3 len: 5"),
            qs("readModelType modelType: Some Device len: 11"),
            qs("readKernelVersion kvStr: 5.10"),
            qs("readKernelVersion kernelVersion: 5.10 len: 4"),
            qs("readDeviceTreeVersion deviceTreeVersion: 7 len: 1"),
        };
        QCOMPARE(bench.log.lines().mid(0, expected.size()), expected);
    }

    void childrenAreCreatedInOrder_data()
    {
        QTest::addColumn<int>("model");
        QTest::addColumn<QStringList>("parts");

        const QStringList common{qs("TalInterface"), qs("TalHandler"), qs("FaultHandler"), qs("SnmpdConfHandler")};
        for (const std::uint32_t model : knownModels) {
            const QStringList parts = gpioModels.contains(model) ? common + QStringList{qs("GpioControl")} : common;
            QTest::newRow(QByteArray::number(model).constData()) << static_cast<int>(model) << parts;
        }
    }

    void childrenAreCreatedInOrder()
    {
        QFETCH(int, model);
        QFETCH(QStringList, parts);

        const Bench bench(model);
        QStringList children;
        for (const QObject *child : bench.kvSnmp->children()) {
            const QString name = qs(child->metaObject()->className());
            if (!name.startsWith(QLatin1Char('Q')) && name != qs("DescriptorWatch"))
                children.append(name);
        }
        QCOMPARE(children, parts);
        QVERIFY(bench.child<QSocketNotifier>() != nullptr);
        QVERIFY(!bench.subscribeTimer()->isActive());
        QVERIFY(!bench.processTimer()->isActive());
    }

    void ampTypeIsReadOnItsModelsOnly_data() { addModels(); }
    void ampTypeIsReadOnItsModelsOnly()
    {
        QFETCH(int, model);

        const Bench bench(model);
        const bool isRead = model == 6425 || model == 6764 || model == 6720 || model == 6420;
        QCOMPARE(bench.log.lines().filter(qs("readAmpType")).size(), isRead ? 1 : 0);
    }

    void withoutModelNumberTheProcessEnds()
    {
        const Device device(6420);
        QVERIFY(QFile::remove(device.folder.filePath(qs("etc/xr-modelnumber"))));
        const ChildResult child = inChild([&device] {
            qInstallMessageHandler(nullptr);
            const KvSnmp kvSnmp(QCoreApplication::instance(), device.surroundings());
            return 0;
        });
        QVERIFY(child.exitedWith(255));
        QCOMPARE(child.err, QByteArray("KvSnmp Creating Object\n"
                                       "readModelNumber /etc/xr-modelnumber EMPTY !   Cannot continue\n"
                                       "KvSnmp Failed to read modelNumber, cannot continue\n"));
    }

    void withoutSignalSocketsTheProcessAborts()
    {
        const Device device(6420);
        const ChildResult child = inChild([&device] {
            qInstallMessageHandler(nullptr);
            const rlimit none{3, 3};
            setrlimit(RLIMIT_NOFILE, &none);
            const KvSnmp kvSnmp(QCoreApplication::instance(), device.surroundings());
            return 0;
        });
        QVERIFY(child.endedBy(SIGABRT));
        QVERIFY2(child.err.contains("Couldn't create TERM socketpair"), child.err.constData());
    }

    void destructionInOrder()
    {
        Bench bench(6214);
        QStringList gone;
        const auto note = [&gone](QObject *child, const char *name) {
            QVERIFY(child != nullptr);
            connect(child, &QObject::destroyed, [&gone, name] { gone.append(qs(name)); });
        };
        note(bench.child<FaultHandler>(), "FaultHandler");
        note(bench.child<GpioControl>(), "GpioControl");
        note(bench.subscribeTimer(), "subscribe timer");
        note(bench.snmpdConfHandler(), "SnmpdConfHandler");
        note(bench.child<TalInterface>(), "TalInterface");
        note(bench.talHandler(), "TalHandler");
        bench.kvSnmp.reset();
        QCOMPARE(gone, QStringList({qs("TalHandler"), qs("TalInterface"), qs("SnmpdConfHandler"), qs("subscribe timer"),
                                    qs("GpioControl"), qs("FaultHandler")}));
    }

    void destructionLeavesNoDescriptor()
    {
        const auto descriptors = [] { return QDir(qs("/proc/self/fd")).entryList(QDir::System | QDir::Files).size(); };
        {
            const Bench first(6214); // what the libraries open once for all
        }
        const int before = descriptors();
        {
            const Bench second(6214);
            QVERIFY(descriptors() > before);
        }
        QCOMPARE(descriptors(), before);
    }

    void signalsAndSlotsInOrder()
    {
        const QMetaObject &meta = KvSnmp::staticMetaObject;
        QStringList methods;
        for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
            methods.append(QString::fromLatin1(meta.method(i).methodSignature()));
        QCOMPARE(methods, QStringList({qs("appExit()"), qs("signalTalReady()"), qs("kvSnmpStartSubscribe()"),
                                       qs("signalGpioVerifyStart()"), qs("handleSigTerm()"),
                                       qs("slotSnmpdConfFinish()"), qs("kvSnmpSetTalReady()"),
                                       qs("watchdogTimerSlot()"), qs("dbgTimeout()"), qs("processSnmpTimeout()")}));
    }

    void connectionToTheDataServiceStartsTheSequence()
    {
        Bench bench(6420, TalPeer::Start::Listening);
        QSignalSpy ready(bench.kvSnmp.get(), SIGNAL(signalTalReady()));
        QTRY_COMPARE(ready.count(), 1);
        QTRY_COMPARE(bench.peer.messages().size(), 5); // the settings paths
        QVERIFY(bench.subscribeTimer()->isActive());
        QCOMPARE(bench.subscribeTimer()->interval(), 3000);

        bench.peer.takeMessages();
        QMetaObject::invokeMethod(bench.kvSnmp.get(), "dbgTimeout");
        QTRY_VERIFY(bench.peer.messages().size() > 5); // the data paths
    }

    void timersRunOutAsTold()
    {
        const Bench bench(6410);
        QElapsedTimer clock;
        QSignalSpy subscribed(bench.kvSnmp.get(), SIGNAL(kvSnmpStartSubscribe()));
        clock.start();
        Q_EMIT bench.child<TalInterface>()->talLocalUnixSocketConnectedSignal();
        QTRY_COMPARE_WITH_TIMEOUT(subscribed.count(), 1, 10000);
        QVERIFY2(clock.elapsed() >= 2800, "3 s after the connection"); // a coarse timer may be 5 % early
        QVERIFY(!QFile::exists(QFile::decodeName(bench.device.watchdogFile)));
        QTRY_VERIFY_WITH_TIMEOUT(QFile::exists(QFile::decodeName(bench.device.watchdogFile)), 10000);
        QVERIFY2(clock.elapsed() >= 4700, "5 s after the construction");
        QCOMPARE(subscribed.count(), 1);
    }

    void secondConnectionStartsTheSequenceAgain()
    {
        const Bench bench(6410);
        QSignalSpy ready(bench.kvSnmp.get(), SIGNAL(signalTalReady()));
        Q_EMIT bench.child<TalInterface>()->talLocalUnixSocketConnectedSignal();
        QTest::qWait(600);
        QVERIFY(bench.subscribeTimer()->remainingTime() < 2600);
        Q_EMIT bench.child<TalInterface>()->talLocalUnixSocketConnectedSignal();
        QCOMPARE(ready.count(), 2);
        QVERIFY(bench.subscribeTimer()->remainingTime() > 2700);
    }

    void dbgTimeoutStartsGpioVerificationOnItsModelsOnly_data() { addModels(); }
    void dbgTimeoutStartsGpioVerificationOnItsModelsOnly()
    {
        QFETCH(int, model);

        Bench bench(model);
        bench.log.takeLines();
        QSignalSpy subscribed(bench.kvSnmp.get(), SIGNAL(kvSnmpStartSubscribe()));
        QSignalSpy verified(bench.kvSnmp.get(), SIGNAL(signalGpioVerifyStart()));
        QMetaObject::invokeMethod(bench.kvSnmp.get(), "dbgTimeout");
        QCOMPARE(bench.log.lines().first(), qs("dbgTimeout"));
        QCOMPARE(subscribed.count(), 1);
        const bool hasGpio = model == 6891 || model == 6259 || model == 6214 || model == 6211;
        QCOMPARE(verified.count(), hasGpio ? 1 : 0);
        QCOMPARE(bench.child<GpioControl>() != nullptr, hasGpio);
    }

    void gpioVerificationIsConnected()
    {
        const Bench bench(6214);
        const auto *checkTimer = bench.child<GpioControl>()->findChild<QTimer *>();
        QVERIFY(!checkTimer->isActive());
        Q_EMIT bench.kvSnmp->signalGpioVerifyStart();
        QVERIFY(checkTimer->isActive());
    }

    void notificationsReachTheTalHandler()
    {
        const Bench bench(6420);
        Q_EMIT bench.child<TalInterface>()->talNotifySignal(
            qs("kvsnmp_fan"), qs("replace"), qs("/state/fans/fan[kid='amp_power']"), qs("/state/fans"),
            qs("<fan><kid>amp_power</kid><speed_sensor_rpm>1234</speed_sensor_rpm></fan>"));
        QCOMPARE(bench.talHandler()->tableRecords().fan.values[0], 1234U);
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

    void theProgramAndItsMakerAreNamed()
    {
        const ChildResult child = inChild([] {
            KvSnmp::nameApplication();
            for (const QString &name : {QCoreApplication::organizationName(), QCoreApplication::organizationDomain(),
                                        QCoreApplication::applicationName(), QCoreApplication::applicationVersion()})
                std::puts(qPrintable(name));
            return 0;
        });
        QCOMPARE(child.out, QByteArray("Orvane\norvane.com\nkvsnmp\n" KVSNMP_VERSION "\n"));
    }

    void theSignalsAreHandledAlike_data() { signalEndsTheEventLoop_data(); }
    void theSignalsAreHandledAlike()
    {
        QFETCH(int, signalNumber);

        const ChildResult child = inChild([signalNumber] {
            KvSnmp::installSignalHandlers();
            struct sigaction action {};
            sigaction(signalNumber, nullptr, &action);
            const unsigned unwanted = SA_SIGINFO | SA_NODEFER | SA_RESETHAND | SA_ONSTACK;
            const bool asTold = action.sa_handler == KvSnmp::handOverSignal && sigisemptyset(&action.sa_mask) == 1 &&
                                (static_cast<unsigned>(action.sa_flags) & (SA_RESTART | unwanted)) == SA_RESTART;
            return asTold ? 0 : 1;
        });
        QVERIFY(child.exitedWith(0));
        QCOMPARE(child.err, QByteArray());
    }

    void signalEndsTheEventLoop_data()
    {
        QTest::addColumn<int>("signalNumber");

        QTest::newRow("SIGINT") << SIGINT;
        QTest::newRow("SIGTERM") << SIGTERM;
        QTest::newRow("SIGHUP") << SIGHUP;
    }

    void signalEndsTheEventLoop()
    {
        QFETCH(int, signalNumber);

        const Bench bench(6420);
        QSignalSpy exits(bench.kvSnmp.get(), SIGNAL(appExit()));
        QTimer::singleShot(10000, QCoreApplication::instance(), [] { QCoreApplication::exit(1); });
        const auto previous = std::signal(signalNumber, KvSnmp::handOverSignal);
        QTimer::singleShot(0, bench.kvSnmp.get(), [signalNumber] { std::raise(signalNumber); });
        QCOMPARE(QCoreApplication::exec(), 0);
        std::signal(signalNumber, previous);
        QCOMPARE(exits.count(), 1);
        QVERIFY(bench.child<QSocketNotifier>()->isEnabled());
    }

    void manySignalsNeitherBlockNorFail()
    {
        const Bench bench(6420);
        errno = 4711;
        for (int i = 0; i < 100000; ++i) // far more than the socket holds
            KvSnmp::handOverSignal(SIGTERM);
        QCOMPARE(errno, 4711);
        QSignalSpy exits(bench.kvSnmp.get(), SIGNAL(appExit()));
        QTRY_VERIFY(exits.count() >= 1);
    }

    void signalWithoutApplicationObjectIsDropped()
    {
        errno = 4711;
        KvSnmp::handOverSignal(SIGTERM);
        QCOMPARE(errno, 4711);
    }

    void watchdogSlotWritesTheFile()
    {
        const Bench bench(6420);
        QMetaObject::invokeMethod(bench.kvSnmp.get(), "watchdogTimerSlot");
        QFile file(QFile::decodeName(bench.device.watchdogFile));
        QVERIFY(file.open(QIODevice::ReadOnly));
        QCOMPARE(file.readAll(), QByteArray("update\n"));
    }

    void watchdogSlotSaysWhenItCannot()
    {
        const Bench bench(6420);
        QVERIFY(QDir(bench.device.folder.path()).mkdir(qs("watchdog")));
        QByteArray text;
        {
            StandardOutput output;
            QMetaObject::invokeMethod(bench.kvSnmp.get(), "watchdogTimerSlot");
            text = output.takeText();
        }
        QCOMPARE(text, "Couldn't open file: " + bench.device.watchdogFile + '\n');
    }

    void finishHandsTheDataToTheAgent()
    {
        Bench bench(6420);
        AgentRecord agent;
        bench.log.takeLines();
        bench.finishSnmpdConf();
        QCOMPARE(bench.log.lines().first(), qs("slotSnmpdConfFinish Start checkAndProcessTimer"));

        const TableRecords &records = bench.talHandler()->tableRecords();
        QCOMPARE(agent.record.talVoltageTableData, &records.voltage);
        QCOMPARE(agent.record.talTempTableData, &records.temp);
        QCOMPARE(agent.record.talFanTableData, &records.fan);
        QCOMPARE(agent.record.talAmpChannelTableData, &records.ampChannel);
        QCOMPARE(agent.record.talControlOutputTableData, &records.controlOutput);
        QCOMPARE(agent.record.talControlInputTableData, &records.controlInput);
        QCOMPARE(static_cast<const LetRecord *>(agent.record.talLetChannelTableData), &records.let);
        QCOMPARE(agent.record.talLineInTableData, &records.lineIn);
        QCOMPARE(agent.record.talEthMonitoringTableData, &records.ethMonitoring);
        QCOMPARE(agent.record.talPowerTableData, &records.power);
        QCOMPARE(agent.record.talRelayTableData, &records.relay);
        QVERIFY(agent.record.infoData != nullptr);
        QCOMPARE(agent.record.infoData->modelNumber.value, 6420);
        QCOMPARE(agent.record.infoData->amplifierType.text, "VQ9C");
        QVERIFY(bench.processTimer()->isActive());
        QCOMPARE(bench.processTimer()->interval(), 100);
    }

    void finishHandsTheSystemName_data()
    {
        QTest::addColumn<QString>("sysName");
        QTest::addColumn<bool>("customFile");
        QTest::addColumn<QByteArray>("told");

        const QString longName(300, QLatin1Char('n'));
        QTest::newRow("generated file") << qs("amp-1") << false << QByteArray("amp-1");
        QTest::newRow("custom file") << qs("amp-1") << true << QByteArray();
        QTest::newRow("no name") << QString() << false << QByteArray();
        QTest::newRow("Latin-1") << qs("K\xc3\xbc"
                                       "che")
                                 << false
                                 << QByteArray("K\xfc"
                                               "che");
        QTest::newRow("cut to 256") << longName << false << QByteArray(256, 'n');
    }

    void finishHandsTheSystemName()
    {
        QFETCH(QString, sysName);
        QFETCH(bool, customFile);
        QFETCH(QByteArray, told);

        const Bench bench(6420);
        Q_EMIT bench.talHandler()->signalSnmpdConfMib2Settings({sysName, qs("cellar"), qs("ops")});
        Q_EMIT bench.talHandler()->signalSnmpdConfUseCustomConfFile(customFile);
        AgentRecord agent;
        copyBounded(agent.record.systemName, "before");
        bench.finishSnmpdConf();
        QCOMPARE(QByteArray(agent.record.systemName), told);
    }

    void finishTwiceStartsPollingOnce()
    {
        Bench bench(6420);
        const AgentRecord agent;
        bench.finishSnmpdConf();
        bench.processTimer()->stop();
        bench.log.takeLines();
        bench.finishSnmpdConf();
        QCOMPARE(bench.log.lines(), QStringList());
        QVERIFY(!bench.processTimer()->isActive());
    }
};

const TestEntry entry("tst_kvsnmp", runTest<TestKvSnmp>);
#include "tst_kvsnmp.moc"
