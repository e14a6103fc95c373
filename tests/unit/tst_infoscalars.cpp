// The information scalars: served from a copy that is made once. Model 6410.
#include "support/agentbench.h"
#include "support/testprogram.h"

#include "agent/modules.h"
#include "device/boundedtext.h"

#include <QtTest>

namespace {
void fill(InfoText &field, const char *value)
{
    field.length = copyBounded(field.text, value);
}
} // namespace

class TestInfoScalars : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase()
    {
        printed([] { kaAgentStart(6410, 1, ""); });
        fill(m_info.packageVersion, "V1.2");
        fill(m_info.modelType, "a model");
        m_info.modelNumber = {6410, 4};
        fill(m_info.amplifierType, "");
        fill(m_info.kernelVersion, "5.10");
        fill(m_info.deviceTreeVersion, "dt 7");
        m_info.disablement = {1, 4};
    }

    // first: the copy is made once per process
    void withoutARecordNothingIsCopied()
    {
        QCOMPARE(printed(initInfoScalars), lines({"copyInfoData()  kvAgent->infoData == NULL, cannot continue !"}));
        QCOMPARE(snmpWalk(QStringLiteral("3.1")),
                 lines({"3.1.1.0 STRING ", "3.1.2.0 STRING ", "3.1.3.0 INTEGER 0", "3.1.4.0 STRING ", "3.1.5.0 STRING ",
                        "3.1.6.0 STRING ", "3.1.7.0 INTEGER 0"}));
    }

    void theRecordIsServedAndDisablementIsAlwaysTwo()
    {
        kvAgent->infoData = &m_info;
        QCOMPARE(printed(initInfoScalars), QStringList());
        QCOMPARE(snmpWalk(QStringLiteral("3.1")),
                 lines({"3.1.1.0 STRING V1.2", "3.1.2.0 STRING a model", "3.1.3.0 INTEGER 6410", "3.1.4.0 STRING ",
                        "3.1.5.0 STRING 5.10", "3.1.6.0 STRING dt 7", "3.1.7.0 INTEGER 2"}));
        QCOMPARE(m_info.disablement.value, 1); // the application's record is left alone
    }

    void laterChangesAreNotSeen()
    {
        m_info.modelNumber.value = 1;
        fill(m_info.packageVersion, "V2");
        QCOMPARE(snmpGet({QStringLiteral("3.1.1.0"), QStringLiteral("3.1.3.0")}),
                 lines({"3.1.1.0 STRING V1.2", "3.1.3.0 INTEGER 6410"}));
    }

    void textsHaveTheirStoredLength_data()
    {
        QTest::addColumn<uint>("length");
        QTest::addColumn<int>("served");
        QTest::newRow("none") << 0U << 0;
        QTest::newRow("shorter than the text") << 3U << 3;
        QTest::newRow("whole field, no terminator") << 128U << 128;
        QTest::newRow("longer than the field") << 129U << 128;
    }

    void textsHaveTheirStoredLength()
    {
        QFETCH(uint, length);
        QFETCH(int, served);
        std::fill(std::begin(m_info.modelType.text), std::end(m_info.modelType.text), 'm');
        m_info.modelType.length = length;
        initInfoScalars();
        QCOMPARE(snmpGet({QStringLiteral("3.1.2.0")}),
                 QStringList{QLatin1String("3.1.2.0 STRING ") + QString(served, QLatin1Char('m'))});
    }

    void setIsRefused() { QCOMPARE(snmpSet(QStringLiteral("3.1.7.0")), lines({"error 17 at 1"})); }

private:
    InfoData m_info = {};
};

const TestEntry entry("tst_infoscalars", runTest<TestInfoScalars>);
#include "tst_infoscalars.moc"
