// What the agent copies: of the LET tables only changes, the information scalars once. Model 6420.
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

class TestCopies : public QObject {
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

private:
    InfoData m_info = {};
};

const TestEntry entry("tst_copies", runTest<TestCopies>);
#include "tst_copies.moc"
