// The class frame of the data-service client: construction, routing, the order of its signals and slots.
#include "support/catalogue.h"
#include "support/recordfields.h"
#include "support/talbench.h"
#include "support/testprogram.h"

#include "app/trace/trace.h"

#include <algorithm>
#include <memory>
#include <new>

class TestTalHandler : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { registerSnmpSettingsTypes(); }

    void construction()
    {
        for (const uint model : catalogue::models()) {
            TalBench bench(model);
            QCOMPARE(bench.log.lines(), QStringList()); // although there is no bus
            const std::unique_ptr<unsigned char[]> memory(new unsigned char[sizeof(TalHandler)]);
            std::fill(memory.get(), memory.get() + sizeof(TalHandler), static_cast<unsigned char>(0xa5));
            auto *handler = new (memory.get()) TalHandler(nullptr, model, "");
            QCOMPARE(recordfields::changes(bench.records(), handler->tableRecords()), QStringList());
            handler->~TalHandler();
        }
        TalBench bench(6214, nullptr);
        bench.leaf("kvsnmp_relay_delay", "replace", qs("/state/config/gpos/gpo[kid='e_relay1']/delay"), qs("9"));
        QCOMPARE(bench.records().relay.rows[2].delay, 9U);
        QCOMPARE(bench.records().relay.rows[4].delay, 0U);
    }

    void constructionIsTracedWhereTracingIsOn()
    {
        Trace trace(nullptr);
        QSignalSpy traced(&trace, SIGNAL(LogMessage(QString)));
        const TalBench bench(6420);
        QCOMPARE(traced.size(), 1);
        const QString line = traced[0][0].toString();
        QCOMPARE(line.count(qs("TalHandler")), 2); // class and function
        QVERIFY2(line.contains(qs("Creating Object")), qPrintable(line));
    }

    void ownsTheMonitorLink()
    {
        QObject parent;
        const MessageLog log;
        auto handler = std::make_unique<TalHandler>(&parent, 6420, ordinaryDescription);
        QCOMPARE(handler->parent(), &parent);
        QStringList gone;
        connect(handler.get(), &QObject::destroyed, [&gone] { gone.append(qs("TalHandler")); });
        for (const QObject *child : handler->children())
            if (child->inherits("DbusInterface"))
                connect(child, &QObject::destroyed, [&gone] { gone.append(qs("DbusInterface")); });
        handler.reset();
        QCOMPARE(gone, QStringList({qs("TalHandler"), qs("DbusInterface")})); // itself first, then its children
        QCOMPARE(log.lines(), QStringList());
    }

    void referencesAreComparedExactly()
    {
        for (const catalogue::Row &parser : catalogue::rows("parsers"))
            for (const catalogue::Row &key : catalogue::rows("keys")) {
                const QByteArray ref = parser.latin1("reference");
                if (!key.list("parser").contains(parser.text("parser")) || key.text("expanders") == qs("yes"))
                    continue;
                TalBench bench(key.has(6420) ? 6420 : key.list("models").first().toUInt());
                const TableRecords before = bench.records();
                const QString path = parser.pathOf(key.text("key"));
                const QString text = parser.list("words").value(0, qs("12")).section(QLatin1Char('='), 0, 0);
                for (const QByteArray &other :
                     {ref.toUpper(), "K" + ref.mid(1), ref + ' ', ' ' + ref, ref.chopped(1), ref + "s", QByteArray()})
                    for (const char *op : {"create", "delete", "patch"})
                        bench.leaf(other, op, path, text);
                QCOMPARE(recordfields::changes(before, bench.records()), QStringList());
                QCOMPARE(bench.log.lines(), QStringList());
                break; // the first key is enough
            }

        TalBench bench(6420); // references that end in a signal
        int emitted = 0;
        connect(&bench.handler, &TalHandler::signalSnmpdConfMib2Settings, [&] { ++emitted; });
        connect(&bench.handler, &TalHandler::signalSnmpdConfAccessSettings, [&] { ++emitted; });
        connect(&bench.handler, &TalHandler::signalSnmpdConfTrapSettings, [&] { ++emitted; });
        connect(&bench.handler, &TalHandler::signalSnmpdConfVersionSettings, [&] { ++emitted; });
        connect(&bench.handler, &TalHandler::signalSnmpdConfUseCustomConfFile, [&] { ++emitted; });
        connect(&bench.handler, &TalHandler::signalSetGpioType, [&] { ++emitted; });
        connect(&bench.handler, &TalHandler::signalReportFault, [&] { ++emitted; });
        for (const QByteArray ref : {"mib2_settings", "access_control", "trap_settings", "version_control",
                                     "custom_config", "kvsnmp_gpio_type", "kvsnmp_sys_messages"}) {
            const QString path = ref == "custom_config"
                                     ? qs("/state/config/snmp_settings/custom_config")
                                     : qs("/state/sys_messages/sys_message[reporter='a'][rep_ref='1']");
            for (const QByteArray &other : {ref.toUpper(), ref + ' ', ref.chopped(1)})
                bench.notify(other, "delete", path, qs("<custom_config>true</custom_config>"));
            QCOMPARE(emitted, 0);
            bench.notify(ref, "delete", path, qs("<custom_config>true</custom_config>"));
            QCOMPARE(std::exchange(emitted, 0), ref == "kvsnmp_gpio_type" ? 8 : 1); // 8 lines that are always inputs
        }
    }

    void signalsAndSlotsInOrder()
    {
        QCOMPARE(ownMethods(TalHandler::staticMetaObject, QMetaMethod::Signal),
                 qs("signalSnmpdConfMib2Settings(SnmpMib2Settings) "
                    "signalSnmpdConfAccessSettings(SnmpAccessSettings) "
                    "signalSnmpdConfTrapSettings(SnmpTrapSettings) "
                    "signalSnmpdConfVersionSettings(SnmpVersionSettings) "
                    "signalSnmpdConfUseCustomConfFile(bool) "
                    "signalSetGpioType(uint,uint) "
                    "signalReportFault(QString,QString,QString,QString,QString,QString,bool) "
                    "signalUpdateEnabledSnmpTraps(QMap<QString,bool>&)"));
        QCOMPARE(ownMethods(TalHandler::staticMetaObject, QMetaMethod::Slot),
                 qs("slotTalReady() "
                    "talHandlerNotifySlot(QString,QString,QString,QString,QString) "
                    "slotStartSubscribe() "
                    "slotGpoUpdate(uint,QString,QString) "
                    "slotGpiUpdate(uint,QString) "
                    "slotAmpChannelStatusUpdate(uint,uint) "
                    "slotSetControlInputStatus(uint,uint) "
                    "slotSetControlOutputStatus(uint,uint) "
                    "slotLetPrecenseUpdate(uint,uint,uint) "
                    "slotSetRelayStatus(uint,uint)"));
    }
};

const TestEntry entry("tst_talhandler", runTest<TestTalHandler>);
#include "tst_talhandler.moc"
