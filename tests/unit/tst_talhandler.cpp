// The data-service client: construction, routing, the order of its signals and slots, the requests of each model.
#include "support/catalogue.h"
#include "support/recordfields.h"
#include "support/talbench.h"
#include "support/talpeer.h"
#include "support/testprogram.h"

#include "app/trace/trace.h"

#include <xrcommon/TalInterface.h>

#include <algorithm>
#include <memory>
#include <new>
#include <optional>

namespace {
using catalogue::Row;

QByteArrayList requestsOf(uint model, const char *block)
{
    QByteArrayList requests;
    for (const Row &subscription : catalogue::rows("subscriptions", "block", qs(block)))
        if (subscription.has(model))
            requests << "<request><ref>" + subscription.latin1("reference") + "</ref><subscribe><path>" +
                            subscription.latin1("path") +
                            "</path><operation>change</operation><single_level>true</single_level><target>0</target>"
                            "</subscribe></request>";
    return requests;
}

/// The debug lines of the data block: the same on every model.
QStringList requestNames()
{
    QStringList names{qs("slotStartSubscribe")};
    for (const Row &subscription : catalogue::rows("subscriptions"))
        if (!subscription.text("request").isEmpty())
            names << subscription.text("request");
    return names;
}

struct RequestBench {
    TalPeer peer;
    MessageLog log;
    TalInterface client{nullptr};
    std::optional<TalHandler> handler;

    explicit RequestBench(uint model)
    {
        QSignalSpy connected(&client, SIGNAL(talLocalUnixSocketConnectedSignal()));
        [&] { QTRY_COMPARE(connected.size(), 1); }();
        handler.emplace(nullptr, model, ordinaryDescription);
        log.takeLines();
    }

    QByteArrayList sent()
    {
        const QByteArray lastWord = "<request><ref>last_word</ref></request>";
        TalInterface::requestData(qs(lastWord), TALTARGET_DEFAULT);
        [&] { QTRY_COMPARE(peer.messages().value(peer.messages().size() - 1), lastWord); }();
        QByteArrayList all = peer.takeMessages();
        all.removeLast();
        return all;
    }
};
} // namespace

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

    /// The same comparison finds the parser of each reference.
    void referencesAreComparedExactly()
    {
        TalBench bench(6420);
        const QSignalSpy reported(&bench.handler, &TalHandler::signalReportFault);
        const QString path = qs("/state/sys_messages/sys_message[reporter='a'][rep_ref='1']");
        const QByteArray ref = "kvsnmp_sys_messages";
        for (const QByteArray &other :
             {ref.toUpper(), "K" + ref.mid(1), ref + ' ', ' ' + ref, ref.chopped(1), ref + "s", QByteArray()})
            bench.notify(other, "delete", path, {});
        QCOMPARE(reported.size(), 0);
        bench.notify(ref, "delete", path, {});
        QCOMPARE(reported.size(), 1);
        QCOMPARE(bench.log.lines(), QStringList());
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

    void subscriptionsOfEachModel()
    {
        for (const uint model : catalogue::models() + QVector<uint>{0, 9999}) {
            const AtRow at(QByteArray::number(model));
            RequestBench bench(model);
            const QByteArrayList settings = requestsOf(model, "settings");
            const QByteArrayList data = requestsOf(model, "data");
            bench.handler->slotTalReady();
            QCOMPARE(bench.sent(), settings);
            QCOMPARE(bench.log.takeLines(), QStringList());
            bench.handler->slotStartSubscribe();
            QCOMPARE(bench.log.takeLines(), requestNames());
            QCOMPARE(bench.sent(), data);
            bench.handler->slotStartSubscribe(); // each call subscribes again
            bench.handler->slotTalReady();
            QCOMPARE(bench.sent(), data + settings);
            QCOMPARE(bench.log.lines(), requestNames());
        }
    }

    void publishSoftwareVersion()
    {
        QCoreApplication::setApplicationName(qs("some-name"));
        QCoreApplication::setApplicationVersion(qs("4.5.6"));
        RequestBench bench(6913);
        bench.handler->publishSoftwareVersion();
        QCOMPARE(
            bench.sent(),
            QByteArrayList({"<request><ref>KvSnmpSWVersion</ref><edit><path>/state/version</path>"
                            "<operation>patch</operation><data><version><software><kid>some-name</kid>"
                            "<version>4.5.6</version></software></version></data></edit></request>",
                            "<request><ref>debug_info-kvsnmp</ref><rpc><session_info><debug_info>kvsnmp</debug_info>"
                            "</session_info></rpc></request>"}));
    }
};

const TestEntry entry("tst_talhandler", runTest<TestTalHandler>);
#include "tst_talhandler.moc"
