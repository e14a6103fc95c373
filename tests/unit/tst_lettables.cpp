// The LET tables: two tables, one handler, and a refill that takes only what has changed. Model 6420.
#include "support/agentbench.h"
#include "support/testprogram.h"

#include "agent/modules.h"
#include "device/boundedtext.h"

#include <QtTest>

namespace {
LetRecord record = {};
} // namespace

class TestLetTables : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        m_startLines = printed([] { kaAgentStart(6420, 1, ""); });
        printed([] { setTalLetChannelTableData(&record); });
    }

    void init()
    {
        expireCache(QStringLiteral("3.8.1.2"));
        expireCache(QStringLiteral("3.8.2.2"));
    }

    void registrationNamesBothTables()
    {
        const int first = m_startLines.indexOf(QStringLiteral("letChannel1Table: initialize_table_letChannel1Table()"));
        QVERIFY(first > 0);
        QCOMPARE(m_startLines[first + 1], QStringLiteral("letChannel2Table: initialize_table_letChannel2Table()"));
    }

    void theSetterRefillsBothChannels()
    {
        QCOMPARE(printed([] { setTalLetChannelTableData(&record); }),
                 lines({"copyTalLetChannelTableData() for letChannel: 1",
                        "copyTalLetChannelTableData() for letChannel: 2"}));
    }

    void onlyChangedValuesAreCopied()
    {
        LetEntry &let = record.lets[1][2]; // LET 3 of channel 2
        let.letStatus = 4;
        let.letVoltage = 23900;
        copyBounded(let.softwareVersion, "1.2.3");
        copyBounded(let.hardwareVersion, "B4");
        const QStringList objects{QStringLiteral("3.8.2.2.1.3.3"), QStringLiteral("3.8.2.2.1.4.3"),
                                  QStringLiteral("3.8.2.2.1.5.3"), QStringLiteral("3.8.2.2.1.6.3")};
        QCOMPARE(snmpGet(objects), lines({"3.8.2.2.1.3.3 INTEGER 1", "3.8.2.2.1.4.3 STRING Unknown",
                                          "3.8.2.2.1.5.3 STRING Unknown", "3.8.2.2.1.6.3 Gauge32 0"}));

        const auto expectAfter = [&](std::uint8_t &flag, std::initializer_list<const char *> answers) {
            flag = 1;
            init();
            QCOMPARE(snmpGet(objects), lines(answers));
            QCOMPARE(int{flag}, 0);
        };
        expectAfter(let.changed.status, {"3.8.2.2.1.3.3 INTEGER 4", "3.8.2.2.1.4.3 STRING Unknown",
                                         "3.8.2.2.1.5.3 STRING Unknown", "3.8.2.2.1.6.3 Gauge32 0"});
        expectAfter(let.changed.softwareVersion, {"3.8.2.2.1.3.3 INTEGER 4", "3.8.2.2.1.4.3 STRING 1.2.3",
                                                  "3.8.2.2.1.5.3 STRING Unknown", "3.8.2.2.1.6.3 Gauge32 0"});
        expectAfter(let.changed.hardwareVersion, {"3.8.2.2.1.3.3 INTEGER 4", "3.8.2.2.1.4.3 STRING 1.2.3",
                                                  "3.8.2.2.1.5.3 STRING B4", "3.8.2.2.1.6.3 Gauge32 0"});
        expectAfter(let.changed.voltage, {"3.8.2.2.1.3.3 INTEGER 4", "3.8.2.2.1.4.3 STRING 1.2.3",
                                          "3.8.2.2.1.5.3 STRING B4", "3.8.2.2.1.6.3 Gauge32 23900"});
    }

    void aRefillClearsTheFlagsOfItsChannelOnly()
    {
        record.lets[0][9].changed = {1, 1, 1, 1, 1};
        record.lets[1][9].changed = {1, 1, 1, 1, 1};
        refillLetChannelTableEntries(1);
        const LetChanges &copied = record.lets[0][9].changed;
        const LetChanges &waiting = record.lets[1][9].changed;
        QCOMPARE(copied.status + copied.description + copied.softwareVersion + copied.hardwareVersion + copied.voltage,
                 0);
        QCOMPARE(waiting.status + waiting.description + waiting.softwareVersion + waiting.hardwareVersion +
                     waiting.voltage,
                 5);
        refillLetChannelTableEntries(2);
    }

    void theStoredDescriptionIsNotServed()
    {
        copyBounded(record.lets[1][2].description, "platform 3");
        record.lets[1][2].changed.description = 1;
        QCOMPARE(snmpGet({QStringLiteral("3.8.2.2.1.2.3")}), lines({"3.8.2.2.1.2.3 STRING LET 3 Channel 2"}));
    }

    void versionsAreServedToTheirBufferEnd()
    {
        LetEntry &let = record.lets[0][0];
        copyBounded(let.softwareVersion, "0123456789012345678");
        std::fill(std::begin(let.hardwareVersion), std::end(let.hardwareVersion), 'x'); // no terminator
        let.changed = {0, 0, 1, 1, 0};
        QCOMPARE(snmpGet({QStringLiteral("3.8.1.2.1.4.1"), QStringLiteral("3.8.1.2.1.5.1")}),
                 lines({"3.8.1.2.1.4.1 STRING 0123456789012345678", "3.8.1.2.1.5.1 STRING xxxxxxxxxxxxxxxxxxx"}));
    }

    void theHandlerPrintsItsModeOnEveryCall()
    {
        netsnmp_agent_request_info info = {};
        info.mode = MODE_GET;
        const auto call = [&] { letChannel1Table.hooks.handler(nullptr, nullptr, &info, nullptr); };
        QCOMPARE(printed(call),
                 QStringList{QStringLiteral("letChannelTable_handler()   Processing request (%1)").arg(MODE_GET)});
        info.mode = MODE_GETNEXT;
        QCOMPARE(printed(call),
                 QStringList{QStringLiteral("letChannelTable_handler()   Processing request (%1)").arg(MODE_GETNEXT)});
        int result = 0;
        QCOMPARE(printed([&] { result = letChannel1Table.hooks.handler(nullptr, nullptr, nullptr, nullptr); }),
                 lines({"letChannelTable_handler() ERROR reqinfo was NULL "}));
        QCOMPARE(result, 3);
    }

    void eachTableHasItsOwnLoad()
    {
        QCOMPARE(printed([] { letChannel1Table.hooks.load(nullptr, nullptr); }),
                 lines({"letChannel1Table_load()", "copyTalLetChannelTableData() for letChannel: 1"}));
        QCOMPARE(printed([] { letChannel2Table.hooks.load(nullptr, nullptr); }),
                 lines({"letChannel2Table_load()", "copyTalLetChannelTableData() for letChannel: 2"}));
    }

    void loadsSayWhatIsMissing()
    {
        kvAgent->talLetChannelTableData = nullptr;
        QCOMPARE(printed([] { letChannel1Table.hooks.load(nullptr, nullptr); }),
                 lines({"letChannel1Table_load()", "letChannel1Table_load() kvAgent->talLetChannelTableData == NULL"}));
        KvAgent *agent = kvAgent;
        kvAgent = nullptr;
        QCOMPARE(printed([] { letChannel2Table.hooks.load(nullptr, nullptr); }),
                 lines({"letChannel2Table_load()", "letChannel2Table_load() kvAgent == NULL"}));
        QCOMPARE(letChannel2Table.hooks.load(nullptr, nullptr), -1);
        kvAgent = agent;
        kvAgent->talLetChannelTableData = &record;
        QCOMPARE(letChannel2Table.hooks.load(nullptr, nullptr), 0);
    }

    void theOtherFunctionsOnlyPrint()
    {
        QCOMPARE(printed([] { letChannel1Table.hooks.free(nullptr, nullptr); }), lines({"letChannelTable_free()"}));
        QCOMPARE(printed(letChannel1Table.hooks.createEntry), lines({"letChannelTable_createEntry()"}));
        QCOMPARE(printed(letChannel1Table.hooks.removeEntry), lines({"letChannelTable_removeEntry()"}));
    }

private:
    QStringList m_startLines;
};

const TestEntry entry("tst_lettables", runTest<TestLetTables>);
#include "tst_lettables.moc"
