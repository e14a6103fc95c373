// The GPIO lines as the self-check looks at them: it reads, and exports nothing.
#include "support/gpiofolder.h"
#include "support/testprogram.h"

#include "check/gpiosurvey.h"

class TestGpioSurvey : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void everyLineOfTheModel()
    {
        const GpioFolder folder;
        addLines(folder, 84, 2);
        addLines(folder, 168, 8);
        addLines(folder, 504, 7);
        for (const auto &[model, lines] : {std::pair{6211U, 7}, {6214U, 10}, {6259U, 10}, {6891U, 7}, {6420U, 0}}) {
            const GpioSurvey tree = surveyGpio(folder.root(), model, false);
            QVERIFY(tree.exists);
            QCOMPARE(tree.lines, lines);
            QCOMPARE(tree.unreadable, QStringList());
            QCOMPARE(tree.missingChips, QStringList());
        }
        QVERIFY(!surveyGpio(folder.path(QStringLiteral("none")), 6211, false).exists);
    }

    void linesThatCannotBeReadAndExpanders()
    {
        const GpioFolder folder;
        addLines(folder, 168, 6);
        folder.setValue(169, "2\n");
        GpioSurvey tree = surveyGpio(folder.root(), 6211, true);
        QCOMPARE(tree.unreadable, (QStringList{QStringLiteral("169"), QStringLiteral("174")}));
        QCOMPARE(tree.lines, 23);
        QCOMPARE(tree.missingChips.size(), 2);

        folder.addChip(300, "pca9555 1-0021");
        folder.addChip(320, "pca9555 1-0022");
        addLines(folder, 300, 8);
        addLines(folder, 320, 7); // the last line of the second is missing
        tree = surveyGpio(folder.root(), 6211, true);
        QCOMPARE(tree.missingChips, QStringList());
        QCOMPARE(tree.unreadable, (QStringList{QStringLiteral("169"), QStringLiteral("327"), QStringLiteral("174")}));
        QCOMPARE(folder.text(QStringLiteral("export")), QByteArray());
    }

private:
    static void addLines(const GpioFolder &folder, int first, int count)
    {
        for (int line = first; line < first + count; ++line)
            folder.setValue(line, line % 2 == 0 ? "0\n" : "1\n");
    }
};

const TestEntry entry("tst_gpiosurvey", runTest<TestGpioSurvey>);
#include "tst_gpiosurvey.moc"
