// The voltage table through the whole library: registration, requests, cache, refill. Model 6720, whose indices have
// gaps.
#include "support/agentbench.h"
#include "support/testprogram.h"

#include "agent/modules.h"

#include <QtTest>

namespace {
const QString table = QStringLiteral("3.4.2");
} // namespace

class TestVoltageTable : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        printed([] { kaAgentStart(6412, 1, "no model of ours"); }); // registers nothing: the module is started below
        kvAgent->modelNumber = 6720;
        m_initLines = printed(init_voltageTable);
    }

    void init() { expireCache(table); }
    void theInitPrintsAndBuildsTheRows()
    {
        QCOMPARE(m_initLines, lines({"init_voltageTable() 6720 ", "voltageTable: initialize_table_voltageTable()",
                                     "initVoltageTableModel() VQ9BAC"}));
        const netsnmp_cache *cache = cacheOf(table);
        QVERIFY(cache != nullptr);
        QCOMPARE(cache->timeout, 60);
        const netsnmp_subtree *tree =
            netsnmp_subtree_find(cache->rootoid, static_cast<std::size_t>(cache->rootoid_len), nullptr, "");
        if (tree == nullptr || tree->reginfo == nullptr)
            QFAIL("the table is not registered");
        QCOMPARE(QByteArray(tree->reginfo->handlerName), QByteArray("voltageTable"));
        QCOMPARE(tree->reginfo->rootoid_len, std::size_t{10});
        QCOMPARE(tree->reginfo->modes & HANDLER_CAN_RWRITE, int{HANDLER_CAN_RONLY});
        QStringList chain;
        for (const netsnmp_mib_handler *handler = tree->reginfo->handler; handler != nullptr; handler = handler->next)
            chain.append(QString::fromLatin1(handler->handler_name));
        const int iterator = chain.indexOf(QStringLiteral("table_iterator"));
        QVERIFY(iterator > 0);
        QCOMPARE(chain[iterator - 1], QStringLiteral("cache_handler"));
        QCOMPARE(chain.last(), QStringLiteral("voltageTable"));
    }

    void beforeARecordIsSetTheRowsAnswerZero()
    {
        QStringList answer;
        const QStringList output = printed([&] { answer = snmpGet({QStringLiteral("3.4.2.1.3.4")}); });
        QCOMPARE(answer, lines({"3.4.2.1.3.4 Gauge32 0"}));
        QCOMPARE(output.mid(0, 2),
                 lines({"voltageTable_load()", "voltageTable_load() kvAgent->talVoltageTableData == NULL"}));
        QCOMPARE(voltageTable.hooks.load(nullptr, nullptr), -1);
    }

    void theSetterCopiesAtOnce()
    {
        m_record.values[4] = 5012;
        QCOMPARE(printed([&] { setTalVoltageTableData(&m_record); }),
                 lines({"copyTalVoltageTableData()", "refillVoltageTableEntries()"}));
        m_record.values[4] = 0;
        QCOMPARE(voltageTable.hooks.load(nullptr, nullptr), 0);
        m_record.values[4] = 5012;
        setTalVoltageTableData(&m_record);
        m_record.values[4] = 0;
        kvAgent->talVoltageTableData = nullptr; // the load that the request brings about copies nothing
        QCOMPARE(snmpGet({QStringLiteral("3.4.2.1.3.4")}), lines({"3.4.2.1.3.4 Gauge32 5012"}));
        kvAgent->talVoltageTableData = &m_record;
    }

    void aLoadCopiesAndIsKeptForSixtySeconds()
    {
        m_record.values[4] = 5100;
        QStringList answer;
        const QStringList first = printed([&] { answer = snmpGet({QStringLiteral("3.4.2.1.3.4")}); });
        QCOMPARE(answer, lines({"3.4.2.1.3.4 Gauge32 5100"}));
        QCOMPARE(first.mid(0, 3),
                 lines({"voltageTable_load()", "copyTalVoltageTableData()", "refillVoltageTableEntries()"}));

        m_record.values[4] = 5200;
        const QStringList second = printed([&] { answer = snmpGet({QStringLiteral("3.4.2.1.3.4")}); });
        QCOMPARE(answer, lines({"3.4.2.1.3.4 Gauge32 5100"}));
        QVERIFY(!second.contains(QStringLiteral("voltageTable_load()")));

        expireCache(table);
        QCOMPARE(snmpGet({QStringLiteral("3.4.2.1.3.4")}), lines({"3.4.2.1.3.4 Gauge32 5200"}));
    }

    void theFreeHookOnlyPrints()
    {
        m_record.values[4] = 5300;
        setTalVoltageTableData(&m_record);
        QCOMPARE(printed([] { voltageTable.hooks.free(nullptr, nullptr); }), lines({"voltageTable_free()"}));
        QCOMPARE(snmpGet({QStringLiteral("3.4.2.1.3.4")}), lines({"3.4.2.1.3.4 Gauge32 5300"}));
    }

    void absentIndexIsNoSuchInstance()
    {
        QCOMPARE(snmpGet({QStringLiteral("3.4.2.1.3.2")}), lines({"3.4.2.1.3.2 noSuchInstance"}));
        QCOMPARE(snmpGet({QStringLiteral("3.4.2.1.1.15")}), lines({"3.4.2.1.1.15 noSuchInstance"}));
        QCOMPARE(snmpGet({QStringLiteral("3.4.1.1")}), lines({"3.4.1.1 noSuchInstance"}));
    }

    void columnBeyondTheLastIsNoSuchObject()
    {
        QCOMPARE(snmpGet({QStringLiteral("3.4.2.1.4.1")}), lines({"3.4.2.1.4.1 noSuchObject"}));
        QCOMPARE(snmpGet({QStringLiteral("3.4.2.1.0.1")}), lines({"3.4.2.1.0.1 noSuchObject"}));
    }

    void absentIndexWithAColumnBeyondTheLastFailsAsAWhole()
    {
        const QStringList answer = snmpGet({QStringLiteral("3.4.2.1.3.2"), QStringLiteral("3.4.2.1.4.1")});
        QCOMPARE(answer.size(), 1);
        QVERIFY2(answer.first().startsWith(QStringLiteral("error ")), qPrintable(answer.first()));
    }

    void setIsRefused()
    {
        QCOMPARE(snmpSet(QStringLiteral("3.4.2.1.3.1")), lines({"error 17 at 1"})); // notWritable
        QCOMPARE(snmpSet(QStringLiteral("3.4.1.0")), lines({"error 17 at 1"}));
    }

    void getNextStepsOverTheGaps()
    {
        QStringList indices;
        const QStringList walk = snmpWalk(QStringLiteral("3.4.2.1.1"));
        for (const QString &answer : walk)
            indices.append(answer.section(QLatin1Char(' '), -1));
        QCOMPARE(indices, lines({"1", "3", "4", "5", "7", "9", "12", "14"}));
        QCOMPARE(snmpGetNext({QStringLiteral("3.4.2.1.1.14")}).first().section(QLatin1Char(' '), 0, 0),
                 QStringLiteral("3.4.2.1.2.1"));
        QCOMPARE(snmpGetNext({QStringLiteral("3.4.2.1.2.9")}), lines({"3.4.2.1.2.12 STRING Amplifier Supply 15.0V"}));
    }

    void getNextEndsItsSearchAtTheFirstRowThatFits()
    {
        snmpGet({QStringLiteral("3.4.2.1.1.1")}); // loads
        const auto stepsAfter = [](const QString &object) {
            return printed([&] { snmpGetNext({object}); }).count(QStringLiteral("voltageTable_get_next_data_point()"));
        };
        QCOMPARE(stepsAfter(QStringLiteral("3.4.2.1.2")), 1);
        QCOMPARE(stepsAfter(QStringLiteral("3.4.2.1.2.1")), 2);
        QCOMPARE(stepsAfter(QStringLiteral("3.4.2.1.2.12")), 8);
        QCOMPARE(stepsAfter(QStringLiteral("3.4.2.1.2.14")), 10); // all eight, their end, and the next column's first
    }

    void getNextOfTwoObjectsAnswersEachAsAlone()
    {
        QStringList objects = lines({"3", "3.4.1", "3.4.1.0", "3.4.2", "3.4.2.0", "3.4.2.1", "3.4.2.1.0", "3.4.2.1.3",
                                     "3.4.2.1.3.13", "3.4.2.1.3.14.1", "3.4.2.1.4", "3.4.2.1.9.1", "3.4.2.2", "3.4.3"});
        for (const QString &answer : snmpWalk(QStringLiteral("3.4.2")))
            objects.append(answer.section(QLatin1Char(' '), 0, 0));
        for (const QString &one : objects) {
            for (const QString &other : objects)
                QCOMPARE(snmpGetNext({one, other}), snmpGetNext({one}) + snmpGetNext({other}));
        }
    }

    void aStartThatCountsAsAMatchIsOneBesideAnyOther()
    {
        const QString cell = QStringLiteral("3.4.2.1.1.3");
        const QStringList answer = lines({"3.4.2.1.1.3 INTEGER 3"});
        QCOMPARE(snmpGetNextFrom({cell}), answer);
        for (const QString &other : lines({"3.4.2.2", "3.4.2.1.9", "3.4.2.1.1.2", "3.4.1.0"})) {
            const QStringList alone = snmpGetNextFrom({other});
            QCOMPARE(snmpGetNextFrom({other, cell}), alone + answer);
            QCOMPARE(snmpGetNextFrom({cell, other}), answer + alone);
        }
    }

    void everyStepOfTheIteratorPrints()
    {
        void *loop = nullptr;
        void *row = nullptr;
        netsnmp_variable_list index = {};
        const auto first = [&] { voltageTable.hooks.getFirst(&loop, &row, &index, nullptr); };
        const auto next = [&] { voltageTable.hooks.getNext(&loop, &row, &index, nullptr); };
        QCOMPARE(printed(first), lines({"voltageTable_get_next_data_point()"}));
        QCOMPARE(*index.val.integer, 1L);
        QCOMPARE(printed(next), lines({"voltageTable_get_next_data_point()"}));
        QCOMPARE(*index.val.integer, 3L);
    }

private:
    QStringList m_initLines;
    VoltageRecord m_record = {};
};

const TestEntry entry("tst_voltagetable", runTest<TestVoltageTable>);
#include "tst_voltagetable.moc"
