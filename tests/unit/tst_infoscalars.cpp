// The information scalars: served from a copy that is made once. Model 6410.
#include "support/agentbench.h"
#include "support/testprogram.h"

#include "agent/modules.h"

class TestInfoScalars : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { startAgent(6410); }

    // first: the copy is made once per process
    void withoutARecordNothingIsCopied()
    {
        QCOMPARE(printed(initInfoScalars), lines({"copyInfoData()  kvAgent->infoData == NULL, cannot continue !"}));
        QCOMPARE(snmpWalk("3.1"), lines({"3.1.1.0 STRING ", "3.1.2.0 STRING ", "3.1.3.0 INTEGER 0", "3.1.4.0 STRING ",
                                         "3.1.5.0 STRING ", "3.1.6.0 STRING ", "3.1.7.0 INTEGER 0"}));
    }

    void theCopyIsServedAndDisablementIsAlwaysTwo()
    {
        fill(m_info.packageVersion, "V1.2");
        m_info.modelNumber = {6410, 4};
        m_info.disablement = {1, 4};
        kvAgent->infoData = &m_info;
        QCOMPARE(printed(initInfoScalars), QStringList());
        QCOMPARE(m_info.disablement.value, 1); // the application's record stays as it is

        m_info.modelNumber.value = 1; // later changes are not served
        fill(m_info.packageVersion, "V2");
        QCOMPARE(snmpGet("3.1.1.0 3.1.3.0 3.1.7.0"),
                 lines({"3.1.1.0 STRING V1.2", "3.1.3.0 INTEGER 6410", "3.1.7.0 INTEGER 2"}));
    }

    void textsHaveTheirStoredLength()
    {
        std::fill(std::begin(m_info.modelType.text), std::end(m_info.modelType.text), 'm'); // no terminator
        for (const auto &[length, served] : {std::pair{0U, 0}, {3U, 3}, {128U, 128}, {129U, 128}}) {
            m_info.modelType.length = length;
            initInfoScalars();
            QCOMPARE(snmpGet("3.1.2.0"),
                     QStringList{QLatin1String("3.1.2.0 STRING ") + QString(served, QLatin1Char('m'))});
        }
    }

private:
    InfoData m_info = {};
};

const TestEntry entry("tst_infoscalars", runTest<TestInfoScalars>);
#include "tst_infoscalars.moc"
