// Requests through the whole library: to a table, its cache and its refill, to the LET tables, which copy only changes,
// and to the information scalars, which are copied once. Model 6720, whose voltages have gaps in their indices.
#include "support/agentbench.h"
#include "support/testprogram.h"

#include "agent/modules.h"
#include "device/boundedtext.h"

namespace {
LetRecord letRecord = {};
VoltageRecord voltageRecord = {};

int flagsOf(const LetChanges &changed)
{
    return changed.status + changed.description + changed.softwareVersion + changed.hardwareVersion + changed.voltage;
}
} // namespace

class TestRequests : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        startAgent(6720);
        printed([] {
            setTalLetChannelTableData(&letRecord);
            setTalVoltageTableData(&voltageRecord);
        });
    }

    void init()
    {
        for (const char *table : {"3.4.2", "3.8.1.2", "3.8.2.2"})
            expireCache(table);
    }

    // first: the copy is made once per process
    void withoutARecordNoInformationIsCopied()
    {
        QCOMPARE(printed(initInfoScalars), lines({"copyInfoData()  kvAgent->infoData == NULL, cannot continue !"}));
        QCOMPARE(snmpWalk("3.1"), lines({"3.1.1.0 STRING ", "3.1.2.0 STRING ", "3.1.3.0 INTEGER 0", "3.1.4.0 STRING ",
                                         "3.1.5.0 STRING ", "3.1.6.0 STRING ", "3.1.7.0 INTEGER 0"}));
    }

    void theInformationIsServedAndDisablementIsAlwaysTwo()
    {
        fill(m_info.packageVersion, "V1.2");
        m_info.modelNumber = {6420, 4};
        m_info.disablement = {1, 4};
        kvAgent->infoData = &m_info;
        QCOMPARE(printed(initInfoScalars), QStringList());
        QCOMPARE(m_info.disablement.value, 1); // the application's record stays as it is

        m_info.modelNumber.value = 1; // later changes are not served
        fill(m_info.packageVersion, "V2");
        QCOMPARE(snmpGet("3.1.1.0 3.1.3.0 3.1.7.0"),
                 lines({"3.1.1.0 STRING V1.2", "3.1.3.0 INTEGER 6420", "3.1.7.0 INTEGER 2"}));
    }

    void informationTextsHaveTheirStoredLength()
    {
        std::fill(std::begin(m_info.modelType.text), std::end(m_info.modelType.text), 'm'); // no terminator
        for (const auto &[length, served] : {std::pair{0U, 0}, {3U, 3}, {128U, 128}, {129U, 128}}) {
            m_info.modelType.length = length;
            initInfoScalars();
            QCOMPARE(snmpGet("3.1.2.0"),
                     QStringList{QLatin1String("3.1.2.0 STRING ") + QString(served, QLatin1Char('m'))});
        }
    }

    void onlyChangedValuesAreCopied()
    {
        LetEntry &let = letRecord.lets[1][2]; // LET 3 of channel 2
        let.letStatus = 4;
        let.letVoltage = 23900;
        copyBounded(let.softwareVersion, "1.2.3");
        copyBounded(let.hardwareVersion, "B4");
        QStringList answers = lines({"3.8.2.2.1.3.3 INTEGER 1", "3.8.2.2.1.4.3 STRING Unknown",
                                     "3.8.2.2.1.5.3 STRING Unknown", "3.8.2.2.1.6.3 Gauge32 0"});
        const QStringList objects = objectsOf(answers);
        QCOMPARE(snmpGet(objects), answers);
        const std::pair<std::uint8_t &, const char *> changes[] = {
            {let.changed.status, "3.8.2.2.1.3.3 INTEGER 4"},
            {let.changed.softwareVersion, "3.8.2.2.1.4.3 STRING 1.2.3"},
            {let.changed.hardwareVersion, "3.8.2.2.1.5.3 STRING B4"},
            {let.changed.voltage, "3.8.2.2.1.6.3 Gauge32 23900"},
        };
        int place = 0;
        for (const auto &[changed, answer] : changes) {
            changed = 1;
            init();
            answers[place++] = QString::fromLatin1(answer); // and nothing else
            QCOMPARE(snmpGet(objects), answers);
            QCOMPARE(int{changed}, 0);
        }
    }

    void aRefillClearsTheFlagsOfItsChannelOnly()
    {
        letRecord.lets[0][9].changed = letRecord.lets[1][9].changed = {1, 1, 1, 1, 1};
        refillLetChannelTableEntries(1);
        QCOMPARE(flagsOf(letRecord.lets[0][9].changed), 0);
        QCOMPARE(flagsOf(letRecord.lets[1][9].changed), 5);
    }

    void versionsAreServedToTheirBufferEnd()
    {
        LetEntry &let = letRecord.lets[0][0];
        copyBounded(let.softwareVersion, "0123456789012345678");
        std::fill(std::begin(let.hardwareVersion), std::end(let.hardwareVersion), 'x'); // no terminator
        let.changed = {0, 0, 1, 1, 0};
        QCOMPARE(snmpGet("3.8.1.2.1.4.1 3.8.1.2.1.5.1"),
                 lines({"3.8.1.2.1.4.1 STRING 0123456789012345678", "3.8.1.2.1.5.1 STRING xxxxxxxxxxxxxxxxxxx"}));
    }

    void theHandlerPrintsTheMode()
    {
        for (const int mode : {int{MODE_GET}, int{MODE_GETNEXT}}) {
            netsnmp_agent_request_info info = {};
            info.mode = mode;
            QCOMPARE(printed([&] { letChannel1Table.hooks.handler(nullptr, nullptr, &info, nullptr); }),
                     QStringList{QStringLiteral("letChannelTable_handler()   Processing request (%1)").arg(mode)});
        }
    }

    void requestsPassTheGateTheCacheAndTheIterator()
    {
        const netsnmp_cache *cache = cacheOf("3.4.2");
        QVERIFY(cache != nullptr);
        const netsnmp_subtree *tree =
            netsnmp_subtree_find(cache->rootoid, static_cast<std::size_t>(cache->rootoid_len), nullptr, "");
        QStringList chain;
        for (const auto *handler = tree->reginfo->handler; handler != nullptr; handler = handler->next)
            chain.append(QString::fromLatin1(handler->handler_name));
        QCOMPARE(chain,
                 lines({"bulk_to_next", "request_gate", "table", "cache_handler", "table_iterator", "voltageTable"}));
    }

    void aLoadCopiesAndIsKeptUntilItExpires()
    {
        voltageRecord.values[4].value = 5100;
        QStringList answer;
        const QStringList first = printed([&] { answer = snmpGet("3.4.2.1.3.4"); });
        QCOMPARE(answer, lines({"3.4.2.1.3.4 Gauge32 5100"}));
        QCOMPARE(first.mid(0, 3),
                 lines({"voltageTable_load()", "copyTalVoltageTableData()", "refillVoltageTableEntries()"}));

        voltageRecord.values[4].value = 5200;
        const QStringList second = printed([&] { answer = snmpGet("3.4.2.1.3.4"); });
        QCOMPARE(answer, lines({"3.4.2.1.3.4 Gauge32 5100"}));
        QVERIFY(!second.contains(QStringLiteral("voltageTable_load()")));
        voltageTable.hooks.free(nullptr, nullptr); // keeps the values
        QCOMPARE(snmpGet("3.4.2.1.3.4"), lines({"3.4.2.1.3.4 Gauge32 5100"}));

        init();
        QCOMPARE(snmpGet("3.4.2.1.3.4"), lines({"3.4.2.1.3.4 Gauge32 5200"}));
    }

    void aLoadIsFreshForAMinute_data()
    {
        QTest::addColumn<int>("age"); // milliseconds
        QTest::addColumn<bool>("asksTheHandler");
        QTest::addColumn<bool>("loads");
        QTest::newRow("new") << 0 << false << false;
        QTest::newRow("before the last second") << 58500 << false << false;
        QTest::newRow("in the last second") << 59500 << true << false;
        QTest::newRow("expired") << 60500 << true << true;
    }

    void aLoadIsFreshForAMinute()
    {
        QFETCH(const int, age);
        snmpGet("3.4.2.1.1.1"); // loads
        netsnmp_cache *cache = cacheOf("3.4.2");
        timeval *const loaded = static_cast<timeval *>(cache->timestampM);
        loaded->tv_sec -= age / 1000;
        loaded->tv_usec -= age % 1000 * 1000;
        const QStringList later = printed([] { snmpGet("3.4.2.1.1.1"); });
        QTEST(cache->enabled != 0, "asksTheHandler");
        QTEST(later.contains(QStringLiteral("voltageTable_load()")), "loads");
    }

    void whatIsNotThereAndWhatIsReadOnly()
    {
        QCOMPARE(snmpGet("3.4.2.1.3.2"), lines({"3.4.2.1.3.2 noSuchInstance"})); // a gap
        QCOMPARE(snmpGet("3.4.2.1.1.15"), lines({"3.4.2.1.1.15 noSuchInstance"}));
        QCOMPARE(snmpGet("3.4.1.1"), lines({"3.4.1.1 noSuchInstance"}));
        QCOMPARE(snmpGet("3.4.2.1.4.1"), lines({"3.4.2.1.4.1 noSuchObject"}));
        QCOMPARE(snmpGet("3.4.2.1.0.1"), lines({"3.4.2.1.0.1 noSuchObject"}));
        QCOMPARE(snmpSet("3.4.2.1.3.1"), lines({"error 17 at 1"})); // notWritable
        QCOMPARE(snmpSet("3.4.1.0"), lines({"error 17 at 1"}));
        // An absent index and a column beyond the last fail as a whole.
        const QStringList both = snmpGet("3.4.2.1.3.2 3.4.2.1.4.1");
        QCOMPARE(both.size(), 1);
        QVERIFY2(both[0].startsWith(QLatin1String("error ")), qPrintable(both[0]));
    }

    void getNextEndsItsSearchAtTheFirstRowThatFits()
    {
        snmpGet("3.4.2.1.1.1"); // loads
        const auto stepsAfter = [](const char *object) {
            return printed([&] { snmpGetNext(object); }).count(QStringLiteral("voltageTable_get_next_data_point()"));
        };
        QCOMPARE(stepsAfter("3.4.2.1.2"), 1);
        QCOMPARE(stepsAfter("3.4.2.1.2.1"), 2);
        QCOMPARE(stepsAfter("3.4.2.1.2.12"), 8);
        QCOMPARE(stepsAfter("3.4.2.1.2.14"), 10); // all eight, their end, and the next column's first
    }

    void getNextOfTwoObjectsAnswersEachAsAlone()
    {
        const QStringList objects =
            lines({"3", "3.4.1", "3.4.1.0", "3.4.2", "3.4.2.0", "3.4.2.1", "3.4.2.1.0", "3.4.2.1.3", "3.4.2.1.3.13",
                   "3.4.2.1.3.14.1", "3.4.2.1.4", "3.4.2.1.9.1", "3.4.2.2", "3.4.3"}) +
            objectsOf(snmpWalk("3.4.2"));
        for (const QString &one : objects)
            for (const QString &other : objects)
                QCOMPARE(snmpGetNext(QStringList{one, other}), snmpGetNext(one) + snmpGetNext(other));
    }

    void aStartThatCountsAsAMatchIsOneBesideAnyOther()
    {
        const QStringList answer = lines({"3.4.2.1.1.3 INTEGER 3"});
        QCOMPARE(snmpGetNextFrom("3.4.2.1.1.3"), answer);
        for (const QString &other : lines({"3.4.2.2", "3.4.2.1.9", "3.4.2.1.1.2", "3.4.1.0"})) {
            const QStringList alone = snmpGetNextFrom(other);
            QCOMPARE(snmpGetNextFrom(other + QLatin1String(" 3.4.2.1.1.3")), alone + answer);
            QCOMPARE(snmpGetNextFrom(QLatin1String("3.4.2.1.1.3 ") + other), answer + alone);
        }
    }

private:
    InfoData m_info = {};
};

const TestEntry entry("tst_requests", runTest<TestRequests>);
#include "tst_requests.moc"
