// The GPIO lines as the self-check looks at them: it reads, and exports nothing.
#include "support/testprogram.h"

#include "check/gpiotree.h"

#include <QDir>
#include <QFile>
#include <QTemporaryDir>
#include <QtTest>

class TestGpioTree : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init();
    void everyLineOfTheModel_data();
    void everyLineOfTheModel();
    void linesThatCannotBeRead();
    void expanders();
    void noTree();

private:
    void write(const QString &name, const QByteArray &text) const
    {
        const QString path = m_folder->filePath(name);
        QVERIFY(QDir().mkpath(QFileInfo(path).path()));
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(text);
    }
    void addLines(int first, int count) const
    {
        for (int line = first; line < first + count; ++line)
            write(QStringLiteral("gpio%1/value").arg(line), line % 2 == 0 ? "0\n" : "1\n");
    }
    void addChip(int base, const char *label) const
    {
        write(QStringLiteral("gpiochip%1/base").arg(base), QByteArray::number(base) + '\n');
        write(QStringLiteral("gpiochip%1/label").arg(base), QByteArray(label) + '\n');
    }

    std::unique_ptr<QTemporaryDir> m_folder;
};

void TestGpioTree::init()
{
    m_folder = std::make_unique<QTemporaryDir>();
    addLines(84, 2);
    addLines(168, 8);
    addLines(504, 7);
    write(QStringLiteral("export"), {});
}

void TestGpioTree::everyLineOfTheModel_data()
{
    QTest::addColumn<uint>("model");
    QTest::addColumn<int>("lines");
    QTest::newRow("one relay") << 6211U << 7;
    QTest::newRow("four relays") << 6214U << 10;
    QTest::newRow("four relays too") << 6259U << 10;
    QTest::newRow("further numbers") << 6891U << 7;
    QTest::newRow("no station") << 6420U << 0;
}

void TestGpioTree::everyLineOfTheModel()
{
    QFETCH(uint, model);
    const GpioTree tree = lookAtGpioTree(m_folder->path(), model, false);
    QVERIFY(tree.exists);
    QTEST(tree.lines, "lines");
    QCOMPARE(tree.unreadable, QStringList());
    QCOMPARE(tree.missingChips, QStringList());
}

void TestGpioTree::linesThatCannotBeRead()
{
    write(QStringLiteral("gpio169/value"), "2\n");
    QVERIFY(QDir(m_folder->filePath(QStringLiteral("gpio174"))).removeRecursively());
    const GpioTree tree = lookAtGpioTree(m_folder->path(), 6211, false);
    QCOMPARE(tree.unreadable, (QStringList{QStringLiteral("169"), QStringLiteral("174")}));
    QCOMPARE(QFile(m_folder->filePath(QStringLiteral("export"))).size(), qint64{0});
}

void TestGpioTree::expanders()
{
    GpioTree tree = lookAtGpioTree(m_folder->path(), 6211, true);
    QCOMPARE(tree.lines, 23);
    QCOMPARE(tree.missingChips.size(), 2);

    addChip(300, "pca9555 1-0021");
    addChip(320, "pca9555 1-0022");
    addLines(300, 8);
    addLines(320, 7); // the last line of the second is not there
    tree = lookAtGpioTree(m_folder->path(), 6211, true);
    QCOMPARE(tree.missingChips, QStringList());
    QCOMPARE(tree.unreadable, QStringList{QStringLiteral("327")});
}

void TestGpioTree::noTree()
{
    QVERIFY(!lookAtGpioTree(m_folder->filePath(QStringLiteral("none")), 6211, false).exists);
}

const TestEntry entry("tst_gpiotree", runTest<TestGpioTree>);
#include "tst_gpiotree.moc"
