// The LET tables: two tables, one handler, and a refill that copies only changes. Model 6420.
#include "support/agentbench.h"
#include "support/testprogram.h"

#include "agent/modules.h"
#include "device/boundedtext.h"

namespace {
LetRecord record = {};

int flagsOf(const LetChanges &changed)
{
    return changed.status + changed.description + changed.softwareVersion + changed.hardwareVersion + changed.voltage;
}
} // namespace

class TestLetTables : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        startAgent(6420);
        printed([] { setTalLetChannelTableData(&record); });
    }

    void init()
    {
        expireCache("3.8.1.2");
        expireCache("3.8.2.2");
    }

    void onlyChangedValuesAreCopied()
    {
        LetEntry &let = record.lets[1][2]; // LET 3 of channel 2
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
        record.lets[0][9].changed = record.lets[1][9].changed = {1, 1, 1, 1, 1};
        refillLetChannelTableEntries(1);
        QCOMPARE(flagsOf(record.lets[0][9].changed), 0);
        QCOMPARE(flagsOf(record.lets[1][9].changed), 5);
    }

    void versionsAreServedToTheirBufferEnd()
    {
        LetEntry &let = record.lets[0][0];
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
};

const TestEntry entry("tst_lettables", runTest<TestLetTables>);
#include "tst_lettables.moc"
