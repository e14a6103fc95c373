// The GPIO lines as the self-check looks at them: it reads, and exports nothing.
#include "support/gpiofolder.h"
#include "support/testprogram.h"

#include "check/gpiosurvey.h"

#include <QtTest>

#include <memory>

class TestGpioSurvey : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_folder = std::make_unique<GpioFolder>();
        addLines(84, 2);
        addLines(168, 8);
        addLines(504, 7);
    }

    void everyLineOfTheModel_data()
    {
        QTest::addColumn<uint>("model");
        QTest::addColumn<int>("lines");
        QTest::newRow("one relay") << 6211U << 7;
        QTest::newRow("four relays") << 6214U << 10;
        QTest::newRow("four relays too") << 6259U << 10;
        QTest::newRow("further numbers") << 6891U << 7;
        QTest::newRow("no station") << 6420U << 0;
    }

    void everyLineOfTheModel()
    {
        QFETCH(uint, model);
        const GpioSurvey tree = surveyGpio(m_folder->root(), model, false);
        QVERIFY(tree.exists);
        QTEST(tree.lines, "lines");
        QCOMPARE(tree.unreadable, QStringList());
        QCOMPARE(tree.missingChips, QStringList());
    }

    void linesThatCannotBeRead()
    {
        m_folder->setValue(169, "2\n");
        m_folder->remove(QStringLiteral("gpio174"));
        const GpioSurvey tree = surveyGpio(m_folder->root(), 6211, false);
        QCOMPARE(tree.unreadable, (QStringList{QStringLiteral("169"), QStringLiteral("174")}));
        QCOMPARE(m_folder->text(QStringLiteral("export")), QByteArray());
    }

    void expanders()
    {
        GpioSurvey tree = surveyGpio(m_folder->root(), 6211, true);
        QCOMPARE(tree.lines, 23);
        QCOMPARE(tree.missingChips.size(), 2);

        m_folder->addChip(300, "pca9555 1-0021");
        m_folder->addChip(320, "pca9555 1-0022");
        addLines(300, 8);
        addLines(320, 7); // the last line of the second is not there
        tree = surveyGpio(m_folder->root(), 6211, true);
        QCOMPARE(tree.missingChips, QStringList());
        QCOMPARE(tree.unreadable, QStringList{QStringLiteral("327")});
    }

    void noTree() { QVERIFY(!surveyGpio(m_folder->path(QStringLiteral("none")), 6211, false).exists); }

private:
    void addLines(int first, int count) const
    {
        for (int line = first; line < first + count; ++line)
            m_folder->setValue(line, line % 2 == 0 ? "0\n" : "1\n");
    }
    std::unique_ptr<GpioFolder> m_folder;
};

const TestEntry entry("tst_gpiosurvey", runTest<TestGpioSurvey>);
#include "tst_gpiosurvey.moc"
