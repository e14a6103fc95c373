// A GPIO line read from the kernel's sysfs layout.
#include "support/testprogram.h"

#include <xrcommon/Gpio.h>

#include <QtTest>

#include <sys/inotify.h>
#include <unistd.h>

namespace {

/// A GPIO root folder of plain files: what a line's owner would see under /sys/class/gpio.
class GpioTree {
public:
    GpioTree()
    {
        qputenv("XR_GPIO_ROOT", root().toLocal8Bit());
        addExport();
    }
    ~GpioTree() { qunsetenv("XR_GPIO_ROOT"); }

    QString root() const { return m_folder.filePath(QStringLiteral("gpio")); }
    QString path(const QString &name) const { return root() + QLatin1Char('/') + name; }

    void addExport() const { write(QStringLiteral("export"), {}); }
    void addLine(int number, const QByteArray &value) const
    {
        const QString line = QStringLiteral("gpio%1/").arg(number);
        write(line + QLatin1String("value"), value);
        write(line + QLatin1String("direction"), "out\n");
        write(line + QLatin1String("edge"), "none\n");
    }
    void addChip(const QString &name, const QByteArray &label, const QByteArray &base) const
    {
        write(name + QLatin1String("/label"), label);
        write(name + QLatin1String("/base"), base);
    }
    void write(const QString &name, const QByteArray &text) const
    {
        QDir().mkpath(QFileInfo(path(name)).path());
        QFile file(path(name));
        QVERIFY(file.open(QIODevice::WriteOnly));
        file.write(text);
    }
    QByteArray text(const QString &name) const
    {
        QFile file(path(name));
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(no file)");
    }
    /// What was exported since the last call.
    QByteArray takeExported() const
    {
        QByteArray exported = text(QStringLiteral("export"));
        addExport();
        return exported;
    }
    void remove(const QString &name) const
    {
        if (!QFile::remove(path(name)))
            QVERIFY(QDir(path(name)).removeRecursively());
    }

private:
    QTemporaryDir m_folder;
};

/// Every opening, reading and writing of files below folders, as "folder/file: what".
class AccessLog {
public:
    explicit AccessLog(const QStringList &folders) : m_inotify(inotify_init1(IN_NONBLOCK | IN_CLOEXEC))
    {
        for (const QString &folder : folders) {
            const int watch =
                inotify_add_watch(m_inotify, folder.toLocal8Bit().constData(), IN_OPEN | IN_ACCESS | IN_MODIFY);
            m_folders.insert(watch, QFileInfo(folder).fileName());
        }
    }
    ~AccessLog() { close(m_inotify); }

    QStringList take()
    {
        alignas(inotify_event) char events[64 * 1024];
        QStringList accesses;
        const ssize_t size = read(m_inotify, events, sizeof events);
        for (ssize_t at = 0; at < size;) {
            const auto *event = reinterpret_cast<const inotify_event *>(events + at);
            const char *what = event->mask & IN_OPEN ? "open" : event->mask & IN_ACCESS ? "read" : "write";
            accesses << m_folders.value(event->wd) + QLatin1Char('/') +
                            QLatin1String(event->len > 0 ? event->name : "") + QLatin1String(": ") +
                            QLatin1String(what);
            at += static_cast<ssize_t>(sizeof(inotify_event) + event->len);
        }
        return accesses;
    }

private:
    int m_inotify;
    QHash<int, QString> m_folders;
};

Gpios line(int number)
{
    return static_cast<Gpios>(number);
}

QString u(const char *text)
{
    return QString::fromUtf8(text);
}

} // namespace

class TestGpioLine : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void values_data();
    void values();
    void valueChanges();
    void unreadableLineIsNotExported();
    void exportedOnceAtFirst();
    void exportedOnceMoreEachTimeItGoes();
    void treeRemovedAndPutBack();
    void negativeLine();
    void nothingIsTouchedBeforeTheFirstRead();
    void directionAsItIs_data();
    void directionAsItIs();
    void directionAndEdge_data();
    void directionAndEdge();
    void directionAndEdgeAgainWhenTheLineComesBack();
    void oneReadAndNothingElse();
    void onAnExpanderTheChipIsReadToo();
    void expanders_data();
    void expanders();
    void expanderMissing();
    void expanderWithANewBase();
    void expandersWithSwappedBases();
    void newBaseOfALineThatNeverCame();
    void chipThatGoesTakesItsLinesAlong();
    void expanderLineExportedByItsOwnNumber();
};

void TestGpioLine::values_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<uint>("value");
    QTest::newRow("0") << QByteArray("0\n") << 0U;
    QTest::newRow("1") << QByteArray("1\n") << 1U;
    QTest::newRow("0 without a line end") << QByteArray("0") << 0U;
    QTest::newRow("1 without a line end") << QByteArray("1") << 1U;
    QTest::newRow("2") << QByteArray("2\n") << 255U;
    QTest::newRow("11") << QByteArray("11\n") << 255U;
    QTest::newRow("01") << QByteArray("01\n") << 255U;
    QTest::newRow("-1") << QByteArray("-1\n") << 255U;
    QTest::newRow("two lines") << QByteArray("1\n1\n") << 255U;
    QTest::newRow("words") << QByteArray("high\n") << 255U;
    QTest::newRow("empty") << QByteArray("") << 255U;
    QTest::newRow("line end only") << QByteArray("\n") << 255U;
    QTest::newRow("NUL after it") << QByteArray("1\0", 2) << 255U;
    QTest::newRow("a long text") << QByteArray("1").leftJustified(100000, ' ') << 255U;
    QTest::newRow("a long text of zeros") << QByteArray(100000, '0') << 255U;
}

void TestGpioLine::values()
{
    QFETCH(QByteArray, text);
    QFETCH(uint, value);
    const GpioTree tree;
    tree.addLine(168, text);
    Gpio gpio(nullptr, line(168), GPIO_DIRECTION_AS_IS, GPIO_EDGE_BOTH);
    QCOMPARE(gpio.getGpioInOutValue(), value);
}

void TestGpioLine::valueChanges()
{
    const GpioTree tree;
    tree.addLine(168, "0\n");
    Gpio gpio(nullptr, line(168), GPIO_DIRECTION_AS_IS, GPIO_EDGE_NONE);
    QCOMPARE(gpio.getGpioInOutValue(), 0U);
    tree.write(u("gpio168/value"), "1\n");
    QCOMPARE(gpio.getGpioInOutValue(), 1U);
    tree.write(u("gpio168/value"), "0\n");
    QCOMPARE(gpio.getGpioInOutValue(), 0U);
}

void TestGpioLine::unreadableLineIsNotExported()
{
    const GpioTree tree;
    tree.addLine(168, "0\n");
    Gpio gpio(nullptr, line(168), GPIO_DIRECTION_AS_IS, GPIO_EDGE_NONE);
    QCOMPARE(gpio.getGpioInOutValue(), 0U);
    tree.remove(u("gpio168/value"));
    QCOMPARE(gpio.getGpioInOutValue(), 255U);
    QVERIFY(QDir().mkdir(tree.path(u("gpio168/value")))); // can be opened, but not read
    QCOMPARE(gpio.getGpioInOutValue(), 255U);
    tree.remove(u("gpio168/value"));
    tree.write(u("gpio168/value"), "1\n");
    QCOMPARE(gpio.getGpioInOutValue(), 1U);
    QCOMPARE(tree.takeExported(), QByteArray());
}

void TestGpioLine::exportedOnceAtFirst()
{
    const GpioTree tree;
    Gpio gpio(nullptr, line(168), GPIO_DIRECTION_AS_IS, GPIO_EDGE_NONE);
    QCOMPARE(tree.takeExported(), QByteArray());
    QCOMPARE(gpio.getGpioInOutValue(), 255U);
    QCOMPARE(tree.takeExported(), QByteArray("168"));
    for (int i = 0; i < 3; ++i)
        QCOMPARE(gpio.getGpioInOutValue(), 255U);
    QCOMPARE(tree.takeExported(), QByteArray());
    tree.addLine(168, "1\n");
    QCOMPARE(gpio.getGpioInOutValue(), 1U);
    QCOMPARE(tree.takeExported(), QByteArray());
}

void TestGpioLine::exportedOnceMoreEachTimeItGoes()
{
    const GpioTree tree;
    Gpio gpio(nullptr, line(168), GPIO_DIRECTION_AS_IS, GPIO_EDGE_NONE);
    QCOMPARE(gpio.getGpioInOutValue(), 255U);
    QCOMPARE(tree.takeExported(), QByteArray("168"));
    for (int round = 0; round < 3; ++round) {
        tree.addLine(168, "1\n");
        QCOMPARE(gpio.getGpioInOutValue(), 1U);
        QCOMPARE(tree.takeExported(), QByteArray());
        tree.remove(u("gpio168"));
        QCOMPARE(gpio.getGpioInOutValue(), 255U);
        QCOMPARE(tree.takeExported(), QByteArray("168"));
        QCOMPARE(gpio.getGpioInOutValue(), 255U);
        QCOMPARE(tree.takeExported(), QByteArray());
    }
}

void TestGpioLine::treeRemovedAndPutBack()
{
    const GpioTree tree;
    tree.addLine(168, "0\n");
    Gpio gpio(nullptr, line(168), GPIO_DIRECTION_AS_IS, GPIO_EDGE_NONE);
    QCOMPARE(gpio.getGpioInOutValue(), 0U);
    QVERIFY(QDir(tree.root()).removeRecursively());
    for (int i = 0; i < 3; ++i)
        QCOMPARE(gpio.getGpioInOutValue(), 255U);
    QVERIFY(!QFileInfo::exists(tree.root())); // nothing is made that is not there
    QVERIFY(QDir().mkpath(tree.root()));
    QCOMPARE(gpio.getGpioInOutValue(), 255U);
    QVERIFY(!QFileInfo::exists(tree.path(u("export"))));
    tree.addExport();
    QCOMPARE(gpio.getGpioInOutValue(), 255U);
    QCOMPARE(tree.takeExported(), QByteArray("168")); // what could not be written before is still owed
    tree.addLine(168, "1\n");
    QCOMPARE(gpio.getGpioInOutValue(), 1U);
    QCOMPARE(tree.takeExported(), QByteArray());
}

void TestGpioLine::negativeLine()
{
    const GpioTree tree;
    Gpio gpio(nullptr, line(-1), GPIO_DIRECTION_AS_IS, GPIO_EDGE_NONE);
    QCOMPARE(gpio.getGpioInOutValue(), 255U);
    QCOMPARE(tree.takeExported(), QByteArray());
}

void TestGpioLine::nothingIsTouchedBeforeTheFirstRead()
{
    const GpioTree tree;
    tree.addLine(180, "0\n");
    AccessLog log({tree.root(), tree.path(u("gpio180"))});
    Gpio gpio(nullptr, line(180), GPIO_DIRECTION_IN, GPIO_EDGE_BOTH);
    gpio.setI2c0021(); // else the controller's own line 180 would have been turned into an input
    QCOMPARE(log.take(), QStringList());
}

void TestGpioLine::directionAsItIs_data()
{
    QTest::addColumn<int>("edge");
    QTest::newRow("none") << 0;
    QTest::newRow("rising") << 1;
    QTest::newRow("falling") << 2;
    QTest::newRow("both") << 3;
}

void TestGpioLine::directionAsItIs()
{
    QFETCH(int, edge);
    const GpioTree tree;
    tree.addLine(168, "1\n");
    AccessLog log({tree.path(u("gpio168"))});
    Gpio gpio(nullptr, line(168), GPIO_DIRECTION_AS_IS, static_cast<GpioEdges>(edge));
    QCOMPARE(gpio.getGpioInOutValue(), 1U);
    QCOMPARE(gpio.getGpioInOutValue(), 1U);
    QCOMPARE(log.take().filter(QRegularExpression(u("direction|edge|write"))), QStringList());
    QCOMPARE(tree.text(u("gpio168/direction")), QByteArray("out\n"));
    QCOMPARE(tree.text(u("gpio168/edge")), QByteArray("none\n"));
}

void TestGpioLine::directionAndEdge_data()
{
    QTest::addColumn<int>("direction");
    QTest::addColumn<int>("edge");
    QTest::addColumn<QByteArray>("directionText");
    QTest::addColumn<QByteArray>("edgeText");
    QTest::newRow("input, none") << 0 << 0 << QByteArray("in") << QByteArray("none");
    QTest::newRow("input, rising") << 0 << 1 << QByteArray("in") << QByteArray("rising");
    QTest::newRow("input, falling") << 0 << 2 << QByteArray("in") << QByteArray("falling");
    QTest::newRow("input, both") << 0 << 3 << QByteArray("in") << QByteArray("both");
    QTest::newRow("output, none") << 1 << 0 << QByteArray("out") << QByteArray("none");
    QTest::newRow("input, edge beyond the list") << 0 << 4 << QByteArray("in") << QByteArray("none\n");
}

void TestGpioLine::directionAndEdge()
{
    QFETCH(int, direction);
    QFETCH(int, edge);
    const GpioTree tree;
    tree.addLine(168, "1\n");
    Gpio gpio(nullptr, line(168), static_cast<GpioDirections>(direction), static_cast<GpioEdges>(edge));
    QCOMPARE(gpio.getGpioInOutValue(), 1U);
    QTEST(tree.text(u("gpio168/direction")), "directionText");
    QTEST(tree.text(u("gpio168/edge")), "edgeText");
}

void TestGpioLine::directionAndEdgeAgainWhenTheLineComesBack()
{
    const GpioTree tree;
    tree.addLine(168, "1\n");
    Gpio gpio(nullptr, line(168), GPIO_DIRECTION_IN, GPIO_EDGE_BOTH);
    QCOMPARE(gpio.getGpioInOutValue(), 1U);
    tree.remove(u("gpio168"));
    QCOMPARE(gpio.getGpioInOutValue(), 255U);
    tree.addLine(168, "1\n");
    QCOMPARE(gpio.getGpioInOutValue(), 1U);
    QCOMPARE(tree.text(u("gpio168/direction")), QByteArray("in"));
    QCOMPARE(tree.text(u("gpio168/edge")), QByteArray("both"));
}

void TestGpioLine::oneReadAndNothingElse()
{
    const GpioTree tree;
    tree.addLine(168, "1\n");
    Gpio gpio(nullptr, line(168), GPIO_DIRECTION_IN, GPIO_EDGE_BOTH);
    QCOMPARE(gpio.getGpioInOutValue(), 1U);
    AccessLog log({tree.root(), tree.path(u("gpio168"))});
    QCOMPARE(gpio.getGpioInOutValue(), 1U);
    QCOMPARE(log.take(), QStringList({u("gpio168/value: open"), u("gpio168/value: read")}));
}

void TestGpioLine::onAnExpanderTheChipIsReadToo()
{
    const GpioTree tree;
    tree.addChip(u("gpiochip400"), "1-0021\n", "400\n");
    tree.addLine(404, "1\n");
    Gpio gpio(nullptr, line(180), GPIO_DIRECTION_AS_IS, GPIO_EDGE_NONE);
    gpio.setI2c0021();
    QCOMPARE(gpio.getGpioInOutValue(), 1U);
    AccessLog log({tree.root(), tree.path(u("gpiochip400")), tree.path(u("gpio404"))});
    QCOMPARE(gpio.getGpioInOutValue(), 1U);
    const QStringList accesses{u("gpiochip400/label: open"), u("gpiochip400/label: read"), u("gpiochip400/base: open"),
                               u("gpiochip400/base: read"),  u("gpio404/value: open"),     u("gpio404/value: read")};
    QCOMPARE(log.take(), accesses);
}

void TestGpioLine::expanders_data()
{
    QTest::addColumn<int>("id");
    QTest::addColumn<int>("expander"); // 0: on the controller
    QTest::addColumn<int>("kernelLine");
    QTest::newRow("first line of 0x21") << 176 << 21 << 480;
    QTest::newRow("last line of 0x21") << 191 << 21 << 495;
    QTest::newRow("first line of 0x22") << 192 << 22 << 496;
    QTest::newRow("last line of 0x22") << 207 << 22 << 511;
    QTest::newRow("same number on the controller") << 176 << 0 << 176;
    QTest::newRow("below the first line of 0x21") << 170 << 21 << 474; // by the same sum
}

void TestGpioLine::expanders()
{
    QFETCH(int, id);
    QFETCH(int, expander);
    QFETCH(int, kernelLine);
    const GpioTree tree;
    tree.addChip(u("gpiochip0"), "soc\n", "0\n");
    tree.addChip(u("gpiochip464"), "1-0020\n", "464\n");
    tree.addChip(u("gpiochip480"), "pca9555 1-0021\n", "480\n");
    tree.addChip(u("gpiochip496"), "1-0022\n", "496\n");
    tree.addChip(u("gpiochip512"), "1-0021x\n", "512\n");
    tree.addLine(kernelLine, "1\n");
    Gpio gpio(nullptr, line(id), GPIO_DIRECTION_AS_IS, GPIO_EDGE_NONE);
    if (expander == 21)
        gpio.setI2c0021();
    if (expander == 22)
        gpio.setI2c0022();
    QCOMPARE(gpio.getGpioInOutValue(), 1U);
    QCOMPARE(tree.takeExported(), QByteArray());
}

void TestGpioLine::expanderMissing()
{
    const GpioTree tree;
    tree.addLine(176, "1\n"); // the controller's: another line
    tree.addChip(u("gpiochip400"), "1-0022\n", "400\n");
    Gpio gpio(nullptr, line(176), GPIO_DIRECTION_AS_IS, GPIO_EDGE_NONE);
    gpio.setI2c0021();
    QCOMPARE(gpio.getGpioInOutValue(), 255U);
    tree.addChip(u("gpiochip480"), "1-0021\n", "nonsense\n");
    QCOMPARE(gpio.getGpioInOutValue(), 255U);
    QCOMPARE(tree.takeExported(), QByteArray());
    tree.addChip(u("gpiochip480"), "1-0021\n", "480\n");
    tree.addLine(480, "0\n");
    QCOMPARE(gpio.getGpioInOutValue(), 0U);
}

void TestGpioLine::expanderWithANewBase()
{
    const GpioTree tree;
    tree.addChip(u("gpiochip480"), "1-0021\n", "480\n");
    tree.addLine(481, "1\n");
    Gpio gpio(nullptr, line(177), GPIO_DIRECTION_AS_IS, GPIO_EDGE_NONE);
    gpio.setI2c0021();
    QCOMPARE(gpio.getGpioInOutValue(), 1U);
    tree.remove(u("gpiochip480"));
    tree.remove(u("gpio481"));
    QCOMPARE(gpio.getGpioInOutValue(), 255U);
    tree.addChip(u("gpiochip300"), "1-0021\n", "300\n");
    tree.addLine(301, "0\n");
    QCOMPARE(gpio.getGpioInOutValue(), 0U);
}

void TestGpioLine::expandersWithSwappedBases()
{
    const GpioTree tree;
    tree.addChip(u("gpiochip400"), "1-0021\n", "400\n");
    tree.addChip(u("gpiochip500"), "1-0022\n", "500\n");
    tree.addLine(404, "0\n");
    tree.addLine(504, "1\n");
    Gpio relay(nullptr, line(180), GPIO_DIRECTION_AS_IS, GPIO_EDGE_NONE);
    relay.setI2c0021();
    Gpio input(nullptr, line(196), GPIO_DIRECTION_AS_IS, GPIO_EDGE_NONE);
    input.setI2c0022();
    QCOMPARE(relay.getGpioInOutValue(), 0U);
    QCOMPARE(input.getGpioInOutValue(), 1U);

    // Both went and came back between two reads, in the other order; the first to be read exports its line.
    for (const char *name : {"gpiochip400", "gpiochip500", "gpio404", "gpio504"})
        tree.remove(u(name));
    tree.addChip(u("gpiochip400"), "1-0022\n", "400\n");
    tree.addChip(u("gpiochip500"), "1-0021\n", "500\n");
    QCOMPARE(input.getGpioInOutValue(), 255U);
    QCOMPARE(tree.takeExported(), QByteArray("404"));
    tree.addLine(404, "1\n");
    QCOMPARE(relay.getGpioInOutValue(), 255U); // its former number is the other one's now
    QCOMPARE(tree.takeExported(), QByteArray("504"));
    tree.addLine(504, "0\n");
    QCOMPARE(relay.getGpioInOutValue(), 0U);
    QCOMPARE(input.getGpioInOutValue(), 1U);
    QCOMPARE(tree.takeExported(), QByteArray());
}

void TestGpioLine::newBaseOfALineThatNeverCame()
{
    const GpioTree tree;
    tree.addChip(u("gpiochip400"), "1-0021\n", "400\n");
    Gpio gpio(nullptr, line(180), GPIO_DIRECTION_AS_IS, GPIO_EDGE_NONE);
    gpio.setI2c0021();
    QCOMPARE(gpio.getGpioInOutValue(), 255U);
    QCOMPARE(tree.takeExported(), QByteArray("404"));
    tree.write(u("gpiochip400/base"), "500\n");
    QCOMPARE(gpio.getGpioInOutValue(), 255U);
    QCOMPARE(tree.takeExported(), QByteArray("504")); // another line to the kernel
    QCOMPARE(gpio.getGpioInOutValue(), 255U);
    QCOMPARE(tree.takeExported(), QByteArray());
}

void TestGpioLine::chipThatGoesTakesItsLinesAlong()
{
    const GpioTree tree;
    tree.addChip(u("gpiochip400"), "1-0021\n", "400\n");
    tree.addLine(404, "1\n");
    Gpio gpio(nullptr, line(180), GPIO_DIRECTION_AS_IS, GPIO_EDGE_NONE);
    gpio.setI2c0021();
    QCOMPARE(gpio.getGpioInOutValue(), 1U);
    tree.remove(u("gpiochip400"));
    QCOMPARE(gpio.getGpioInOutValue(), 255U);
    tree.addChip(u("gpiochip400"), "1-0021\n", "400\n");
    QCOMPARE(gpio.getGpioInOutValue(), 1U);
    QCOMPARE(tree.takeExported(), QByteArray());
}

void TestGpioLine::expanderLineExportedByItsOwnNumber()
{
    const GpioTree tree;
    tree.addChip(u("gpiochip480"), "1-0022\n", "480\n");
    Gpio gpio(nullptr, line(195), GPIO_DIRECTION_AS_IS, GPIO_EDGE_NONE);
    gpio.setI2c0022();
    QCOMPARE(gpio.getGpioInOutValue(), 255U);
    QCOMPARE(gpio.getGpioInOutValue(), 255U);
    QCOMPARE(tree.takeExported(), QByteArray("483"));
    QCOMPARE(gpio.getGpioInOutValue(), 255U);
    QCOMPARE(tree.takeExported(), QByteArray());
}

const TestEntry entry("tst_gpioline", runTest<TestGpioLine>);
#include "tst_gpioline.moc"
