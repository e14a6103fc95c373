// The class frame of the data-service client: construction, routing, the order
// of its signals and slots.
#include "support/catalogue.h"
#include "support/recordfields.h"
#include "support/talbench.h"
#include "support/testprogram.h"

#include "app/trace/trace.h"
#include "device/models.h"

#include <QMetaMethod>
#include <QSignalSpy>

#include <algorithm>
#include <memory>
#include <new>

namespace {

/// Signatures of a class's own methods of one kind, in the order of their
/// declaration.
QStringList ownMethods(const QMetaObject &meta, QMetaMethod::MethodType type)
{
    QStringList all;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        if (meta.method(i).methodType() == type)
            all << QString::fromLatin1(meta.method(i).methodSignature());
    return all;
}

} // namespace

// What each reference does is in the tests of its parser.
// The references that end in a signal: the settings, the GPIO types, the
// messages.

class TestTalHandler : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { registerSnmpSettingsTypes(); }
    void recordsAreClearedWhateverTheMemoryHeld()
    {
        for (const uint model : knownModels) {
            const std::unique_ptr<unsigned char[]> memory(new unsigned char[sizeof(TalHandler)]);
            std::fill(memory.get(), memory.get() + sizeof(TalHandler), static_cast<unsigned char>(0xa5));
            auto *handler = new (memory.get()) TalHandler(nullptr, model, "");
            QCOMPARE(recordfields::changes(TalBench(model).records(), handler->tableRecords()), QStringList());
            handler->~TalHandler();
        }
    }

    void descriptionMayBeMissing_data()
    {
        QTest::addColumn<QByteArray>("description");
        QTest::newRow("null") << QByteArray();
        QTest::newRow("empty") << QByteArray("");
    }

    void descriptionMayBeMissing()
    {
        QFETCH(QByteArray, description);

        TalBench bench(6214, description.isNull() ? nullptr : description.constData());
        bench.leaf("kvsnmp_relay_delay", "replace", qs("/state/config/gpos/gpo[kid='e_relay1']/delay"), qs("9"));
        QCOMPARE(bench.records().relay.rows[2].delay, 9U);
        QCOMPARE(bench.records().relay.rows[4].delay, 0U);
    }

    void constructionWithoutABusSaysNothing()
    {
        for (const uint model : knownModels) {
            TalBench bench(model);
            QCOMPARE(bench.log.lines(), QStringList());
        }
    }

    void constructionIsTracedWhereTracingIsOn()
    {
        Trace trace(nullptr);
        QSignalSpy traced(&trace, SIGNAL(LogMessage(QString)));
        TalBench bench(6420);
        QCOMPARE(traced.size(), 1);
        const QString line = traced[0][0].toString();
        QCOMPARE(line.count(qs("TalHandler")), 2); // class and function
        QVERIFY2(line.contains(qs("Creating Object")), qPrintable(line));
    }

    void ownsTheMonitorLink()
    {
        QObject parent;
        MessageLog log;
        auto handler = std::make_unique<TalHandler>(&parent, 6420, ordinaryDescription);
        QCOMPARE(handler->parent(), &parent);
        QStringList gone;
        connect(handler.get(), &QObject::destroyed, [&gone] { gone.append(qs("TalHandler")); });
        for (const QObject *child : handler->children())
            if (child->inherits("DbusInterface"))
                connect(child, &QObject::destroyed, [&gone] { gone.append(qs("DbusInterface")); });
        handler.reset();
        QCOMPARE(gone, QStringList({qs("TalHandler"), qs("DbusInterface")})); // its own part first, then its children
        QCOMPARE(log.lines(), QStringList());
    }

    void referencesAreComparedExactly()
    {
        for (const catalogue::Row &parser : catalogue::rows("parsers"))
            for (const catalogue::Row &key : catalogue::rows("keys")) {
                const QByteArray ref = parser.latin1("reference");
                if (!key.list("parser").contains(parser.text("parser")) || key.text("expanders") == qs("yes"))
                    continue;
                const uint model = key.has(6420) ? 6420 : key.list("models").first().toUInt();
                TalBench bench(model);
                const TableRecords before = bench.records();
                QString path = parser.text("path").replace(qs("%1"), key.text("key").section(QLatin1Char(' '), 0, 0));
                path.replace(qs("%2"), key.text("key").section(QLatin1Char(' '), 1));
                const QString text = parser.list("words").value(0, qs("12")).section(QLatin1Char('='), 0, 0);
                for (const QByteArray &other :
                     {ref.toUpper(), "K" + ref.mid(1), ref + ' ', ' ' + ref, ref.chopped(1), ref + "s", QByteArray()})
                    for (const char *op : {"create", "delete", "patch"})
                        bench.leaf(other, op, path, text);
                QCOMPARE(recordfields::changes(before, bench.records()), QStringList());
                QCOMPARE(bench.log.lines(), QStringList());
                break; // the first key is enough
            }
    }

    void signalReferencesAreComparedExactly()
    {
        TalBench bench(6420);
        int emitted = 0;
        connect(&bench.handler, &TalHandler::signalSnmpdConfMib2Settings, [&] { ++emitted; });
        connect(&bench.handler, &TalHandler::signalSnmpdConfAccessSettings, [&] { ++emitted; });
        connect(&bench.handler, &TalHandler::signalSnmpdConfTrapSettings, [&] { ++emitted; });
        connect(&bench.handler, &TalHandler::signalSnmpdConfVersionSettings, [&] { ++emitted; });
        connect(&bench.handler, &TalHandler::signalSnmpdConfUseCustomConfFile, [&] { ++emitted; });
        connect(&bench.handler, &TalHandler::signalSetGpioType, [&] { ++emitted; });
        connect(&bench.handler, &TalHandler::signalReportFault, [&] { ++emitted; });
        const QString messages = qs("/state/sys_messages/sys_message[reporter='a'][rep_ref='1']");
        for (const char *ref : {"mib2_settings", "access_control", "trap_settings", "version_control", "custom_config",
                                "kvsnmp_gpio_type", "kvsnmp_sys_messages"}) {
            const QString path =
                qstrcmp(ref, "custom_config") == 0 ? qs("/state/config/snmp_settings/custom_config") : messages;
            for (const QByteArray &other :
                 {QByteArray(ref).toUpper(), ref + QByteArray(" "), QByteArray(ref).chopped(1)})
                bench.notify(other, "delete", path, qs("<custom_config>true</custom_config>"));
            QCOMPARE(emitted, 0);
            bench.notify(ref, "delete", path, qs("<custom_config>true</custom_config>"));
            QCOMPARE(emitted, qstrcmp(ref, "kvsnmp_gpio_type") == 0 ? 8 : 1); // its eight lines that are always inputs
            emitted = 0;
        }
    }

    void voltageOf6211IsRoutedButHasNoKeys()
    {
        // Routing does not look at the model, subscribing does: a parser without a
        // model test of its own works anywhere.
        TalBench bench(6211);
        const TableRecords before = bench.records();
        for (const char *op : {"create", "delete", "patch"})
            bench.leaf("kvsnmp_voltage", op, qs("/state/power_lines/power_line[kid='24v0']/voltage"), qs("24.0"));
        QCOMPARE(recordfields::changes(before, bench.records()), QStringList());
        QCOMPARE(bench.log.lines(), QStringList());

        bench.leaf("kvsnmp_let_voltage", "create", qs("/state/lines/line[kid='ch1']/lets/let[kid='1']/let_vcc"),
                   qs("24.0"));
        QCOMPARE(bench.records().let.lets[0][0].letVoltage, 24000U);
    }

    void signalsInOrder()
    {
        QCOMPARE(ownMethods(TalHandler::staticMetaObject, QMetaMethod::Signal),
                 QStringList({qs("signalSnmpdConfMib2Settings(SnmpMib2Settings)"),
                              qs("signalSnmpdConfAccessSettings(SnmpAccessSettings)"),
                              qs("signalSnmpdConfTrapSettings(SnmpTrapSettings)"),
                              qs("signalSnmpdConfVersionSettings(SnmpVersionSettings)"),
                              qs("signalSnmpdConfUseCustomConfFile(bool)"), qs("signalSetGpioType(uint,uint)"),
                              qs("signalReportFault(QString,QString,QString,QString,"
                                 "QString,QString,bool)"),
                              qs("signalUpdateEnabledSnmpTraps(QMap<QString,bool>&)")}));
    }

    void slotsInOrder()
    {
        QCOMPARE(ownMethods(TalHandler::staticMetaObject, QMetaMethod::Slot),
                 QStringList({qs("slotTalReady()"), qs("talHandlerNotifySlot(QString,QString,QString,QString,QString)"),
                              qs("slotStartSubscribe()"), qs("slotGpoUpdate(uint,QString,QString)"),
                              qs("slotGpiUpdate(uint,QString)"), qs("slotAmpChannelStatusUpdate(uint,uint)"),
                              qs("slotSetControlInputStatus(uint,uint)"), qs("slotSetControlOutputStatus(uint,uint)"),
                              qs("slotLetPrecenseUpdate(uint,uint,uint)"), qs("slotSetRelayStatus(uint,uint)")}));
    }
};

const TestEntry entry("tst_talhandler", runTest<TestTalHandler>);
#include "tst_talhandler.moc"
