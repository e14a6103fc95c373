// A GPIO line read from the kernel's sysfs layout.
#include "support/gpiofolder.h"
#include "support/testprogram.h"

#include <xrcommon/Gpio.h>

#include <map>
#include <memory>

namespace {
Gpios line(int number)
{
    return static_cast<Gpios>(number);
}

/// Steps on a tree: "line N VALUE", "chip BASE LABEL [BASE TEXT]", "write FILE TEXT", "remove NAME", "folder NAME",
/// "tree gone" and "tree back"; "read ID" reads line ID of the controller, "read ID@21" and "read ID@22" of an
/// expander, and "-> VALUE [NUMBER]" is what it reads and what was exported since the last read.
struct Script {
    const char *name;
    const char *steps;
};

// clang-format off
const Script scripts[] = {
    {"values change", "line 168 0; read 168 -> 0; write gpio168/value 1; read 168 -> 1"},
    {"an unreadable line is not exported",
     "line 168 0; remove gpio168/value; read 168 -> 255; folder gpio168/value; read 168 -> 255"},
    {"exported once, and once more each time it goes", R"(
        read 168 -> 255 168; read 168 -> 255; read 168 -> 255
        line 168 1; read 168 -> 1
        remove gpio168; read 168 -> 255 168; read 168 -> 255
        line 168 0; read 168 -> 0
        remove gpio168; read 168 -> 255 168; read 168 -> 255
    )"},
    {"the tree goes and comes back: nothing is made that is not there, and the export is still owed", R"(
        line 168 0; read 168 -> 0
        tree gone; read 168 -> 255 (cannot be read); read 168 -> 255 (cannot be read)
        tree back; read 168 -> 255 (cannot be read)
        write export; read 168 -> 255 168
        line 168 1; read 168 -> 1
    )"},
    {"a line below 0", "read -1 -> 255"},
    {"an expander's line is its number behind the chip's base", R"(
        chip 0 soc; chip 464 1-0020; chip 480 pca9555 1-0021; chip 496 1-0022; chip 512 1-0021x
        line 480 1; read 176@21 -> 1; line 495 1; read 191@21 -> 1
        line 496 1; read 192@22 -> 1; line 511 1; read 207@22 -> 1
        line 176 1; read 176 -> 1; line 474 1; read 170@21 -> 1
    )"},
    {"an expander that is missing, or has no base", R"(
        line 176 1; chip 400 1-0022; read 176@21 -> 255
        chip 480 1-0021; write gpiochip480/base nonsense; read 176@21 -> 255
        chip 480 1-0021; line 480 0; read 176@21 -> 0
    )"},
    {"an expander with a new base", R"(
        chip 480 1-0021; line 481 1; read 177@21 -> 1
        remove gpiochip480; remove gpio481; read 177@21 -> 255
        chip 300 1-0021; line 301 0; read 177@21 -> 0
    )"},
    {"a new base of a line that never came is another line", R"(
        chip 400 1-0021; read 180@21 -> 255 404
        write gpiochip400/base 500; read 180@21 -> 255 504; read 180@21 -> 255
    )"},
    {"an expander's line is exported by its own number, once",
     "chip 480 1-0022; read 195@22 -> 255 483; read 195@22 -> 255; read 195@22 -> 255"},
};
// clang-format on
} // namespace

class TestKernelGpio : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void values()
    {
        const auto valueOf = [](const QByteArray &text) {
            const GpioFolder tree;
            tree.addOutput(168, text);
            Gpio gpio(nullptr, line(168), GPIO_DIRECTION_AS_IS, GPIO_EDGE_BOTH);
            return gpio.getGpioInOutValue();
        };
        for (const char *end : {"", "\n"}) {
            QCOMPARE(valueOf(QByteArray("0") + end), 0U);
            QCOMPARE(valueOf(QByteArray("1") + end), 1U);
        }
        QByteArrayList others{"2\n", "11\n", "01\n", "-1\n", "1\n1\n", "high\n", "", "\n"};
        others << QByteArray("1\0", 2) << QByteArray("1").leftJustified(100000, ' ') << QByteArray(100000, '0');
        for (const QByteArray &other : qAsConst(others)) {
            const AtRow at(other);
            QCOMPARE(valueOf(other), 255U);
        }
    }

    void linesComeAndGo()
    {
        for (const Script &script : scripts) {
            const AtRow at(script.name);
            run(script.steps);
        }
    }

    void nothingIsTouchedBeforeTheFirstRead()
    {
        const GpioFolder tree;
        tree.addOutput(180, "0\n");
        Gpio gpio(nullptr, line(180), GPIO_DIRECTION_IN, GPIO_EDGE_BOTH);
        gpio.setI2c0021(); // else the controller's own line 180 would have been turned into an input
        QCOMPARE(tree.text(qs("gpio180/direction")), QByteArray("out\n"));
        QCOMPARE(tree.text(qs("gpio180/edge")), QByteArray("none\n"));
    }

    void directionAndEdge()
    {
        // clang-format off
        static constexpr struct { int direction, edge; const char *directionText, *edgeText; } rows[] = {
            {0, 0, "in", "none"},      {0, 1, "in", "rising"},    {0, 2, "in", "falling"},   {0, 3, "in", "both"},
            {0, 4, "in", "none\n"}, // no such edge: as it was
            {1, 0, "out", "none"},
            {2, 0, "out\n", "none\n"}, {2, 1, "out\n", "none\n"}, {2, 2, "out\n", "none\n"}, {2, 3, "out\n", "none\n"}, // as it is
        };
        // clang-format on
        for (const auto &row : rows) {
            const GpioFolder tree;
            Gpio gpio(nullptr, line(168), static_cast<GpioDirections>(row.direction), static_cast<GpioEdges>(row.edge));
            for (int appearance = 0; appearance < 2; ++appearance) { // and again when it comes back
                tree.addOutput(168, "1\n");
                QCOMPARE(gpio.getGpioInOutValue(), 1U);
                QCOMPARE(gpio.getGpioInOutValue(), 1U);
                QCOMPARE(tree.text(qs("gpio168/direction")), QByteArray(row.directionText));
                QCOMPARE(tree.text(qs("gpio168/edge")), QByteArray(row.edgeText));
                tree.remove(qs("gpio168"));
                QCOMPARE(gpio.getGpioInOutValue(), 255U);
            }
        }
    }

private:
    static void run(const char *steps)
    {
        const GpioFolder tree;
        std::map<QString, std::unique_ptr<Gpio>> gpios; // each lives as long as the script
        for (const QString &step : qs(steps).split(QRegularExpression(qs("[\\n;] *")), Qt::SkipEmptyParts)) {
            const QStringList words = step.split(QLatin1Char(' '));
            const QString &verb = words[0];
            const QString name = words.value(1);
            const QByteArray rest = (words.mid(2).join(QLatin1Char(' ')) + QLatin1Char('\n')).toLatin1();
            if (verb == qs("line"))
                tree.addOutput(name.toInt(), rest);
            else if (verb == qs("chip"))
                tree.addChip(name.toInt(), rest.trimmed());
            else if (verb == qs("write"))
                tree.write(name, words.size() > 2 ? rest : QByteArray());
            else if (verb == qs("remove"))
                tree.remove(name);
            else if (verb == qs("folder"))
                QVERIFY(QDir().mkdir(tree.path(name)));
            else if (name == qs("gone"))
                QVERIFY(QDir(tree.root()).removeRecursively());
            else if (name == qs("back"))
                QVERIFY(QDir().mkpath(tree.root()));
            else if (verb == qs("read")) {
                std::unique_ptr<Gpio> &gpio = gpios[name];
                if (!gpio) {
                    gpio = std::make_unique<Gpio>(nullptr, line(name.section(QLatin1Char('@'), 0, 0).toInt()),
                                                  GPIO_DIRECTION_AS_IS, GPIO_EDGE_NONE);
                    if (name.endsWith(qs("@21")))
                        gpio->setI2c0021();
                    if (name.endsWith(qs("@22")))
                        gpio->setI2c0022();
                }
                const QString value = QString::number(gpio->getGpioInOutValue());
                const QString exported = QString::fromLatin1(tree.text(qs("export")));
                if (!exported.startsWith(QLatin1Char('(')))
                    tree.addExport(); // empty again
                const QString found = (value + QLatin1Char(' ') + exported).trimmed();
                QVERIFY2(found == step.section(qs("-> "), 1), qPrintable(step + qs(", but ") + found));
            }
        }
    }
};

const TestEntry entry("tst_kernelgpio", runTest<TestKernelGpio>);
#include "tst_kernelgpio.moc"
