// The requests to the data service: the subscriptions of each model, in order, and the version.
#include "support/catalogue.h"
#include "support/talbench.h"
#include "support/talpeer.h"
#include "support/testprogram.h"

#include <xrcommon/TalInterface.h>

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

struct Bench {
    TalPeer peer;
    MessageLog log;
    TalInterface client{nullptr};
    std::optional<TalHandler> handler;

    explicit Bench(uint model)
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

class TestSubscriptions : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void subscriptionsOfEachModel()
    {
        static constexpr struct {
            uint model;
            int count; // of the data block; counted by hand
        } rows[] = {{6211, 4},  {6214, 8},  {6259, 8}, {6410, 10}, {6420, 18}, {6425, 11}, {6601, 5}, {6602, 5},
                    {6720, 15}, {6764, 15}, {6891, 4}, {6913, 2},  {6914, 2},  {0, 1},     {9999, 1}};
        for (const auto &[model, count] : rows) {
            const AtRow at(QByteArray::number(model));
            Bench bench(model);
            const QByteArrayList settings = requestsOf(model, "settings");
            const QByteArrayList data = requestsOf(model, "data");
            bench.handler->slotTalReady();
            QCOMPARE(bench.sent(), settings);
            QCOMPARE(bench.log.takeLines(), QStringList());
            bench.handler->slotStartSubscribe();
            QCOMPARE(bench.log.takeLines(), requestNames());
            QCOMPARE(bench.sent(), data);
            QCOMPARE(data.size(), count);
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
        Bench bench(6913);
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

const TestEntry entry("tst_subscriptions", runTest<TestSubscriptions>);
#include "tst_subscriptions.moc"
