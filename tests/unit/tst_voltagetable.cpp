// A table through the whole library: requests, cache, refill. Voltages of model 6720, whose indices have gaps.
#include "support/agentbench.h"
#include "support/testprogram.h"

#include "agent/modules.h"

namespace {
VoltageRecord record = {};
} // namespace

class TestVoltageTable : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        startAgent(6412); // an unknown model: registers nothing but the table below
        kvAgent->modelNumber = 6720;
        printed([] {
            init_voltageTable();
            setTalVoltageTableData(&record);
        });
    }

    void init() { expireCache("3.4.2"); }

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
        record.values[4].value = 5100;
        QStringList answer;
        const QStringList first = printed([&] { answer = snmpGet("3.4.2.1.3.4"); });
        QCOMPARE(answer, lines({"3.4.2.1.3.4 Gauge32 5100"}));
        QCOMPARE(first.mid(0, 3),
                 lines({"voltageTable_load()", "copyTalVoltageTableData()", "refillVoltageTableEntries()"}));

        record.values[4].value = 5200;
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
};

const TestEntry entry("tst_voltagetable", runTest<TestVoltageTable>);
#include "tst_voltagetable.moc"
