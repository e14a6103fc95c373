// The tree files of the simulator: the tree of every model.
#include "support/catalogue.h"
#include "support/testprogram.h"

#include "simulator/datatree.h"
#include "simulator/faults.h"
#include "simulator/treefiles.h"
#include "simulator/treexml.h"

using namespace simulator;

namespace {
const QString treesFolder = KVSNMP_TREES;
} // namespace

class TestTreeFiles : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void treeOfEveryModel()
    {
        QStringList models;
        QStringList switches;
        for (const catalogue::Row &trap : catalogue::rows("traps"))
            switches += trap["switch"];
        switches.sort();
        for (const uint model : catalogue::models()) {
            models += QString::number(model);
            const QByteArray name = models.last().toLatin1();
            const AtRow at(name);
            DataTree tree;
            QVERIFY(!loadModel(treesFolder, models.last(), tree));
            treeHasTheNodesOfTheModel(tree, model);
            QStringList names;
            for (const TrapSetting &trap : trapSettings(tree)) {
                names += QString::fromStdString(trap.name);
                QCOMPARE(trap.enabled, std::string("true"));
            }
            names.sort();
            QCOMPARE(names, switches);
        }
        QCOMPARE(modelsIn(treesFolder), models);
    }

private:
    /// The tree has each key of the catalogue whose path the model subscribes to, and no other node beside it.
    static void treeHasTheNodesOfTheModel(const DataTree &tree, uint model)
    {
        QStringList subscribed;
        for (const catalogue::Row &subscription : catalogue::rows("subscriptions", "block", "data"))
            if (subscription.has(model))
                subscribed << subscription["reference"];
        for (const catalogue::Row &parser : catalogue::rows("parsers")) {
            const QString name = parser["parser"];
            const QString path = parser["path"];
            if (!subscribed.contains(parser["reference"]))
                continue;
            QStringList expected;
            for (const catalogue::Row &key : catalogue::rows("keys"))
                if (key.list("parser").contains(name) && key.has(model))
                    expected << parser.pathOf(key["key"]);
            if (name == "power_monitored" && expected.isEmpty()) // subscribed to, and ignored
                expected << parser.pathOf(model == 6425 ? "dc_power" : "ac_power");
            if (name == "gpio_type") // feeds the GPIO control
                for (int number = 1; number <= 14; ++number)
                    expected << parser.pathOf(QString::number(number));
            if (name == "class_d" && model != 6425) // feeds the channels' status
                expected << path;
            expected.sort();
            expected.removeDuplicates();                   // keys that feed two rows
            if (expected.isEmpty() && path.endsWith("%1")) // the key is the name of the leaf
                continue;

            std::string error;
            const QString anyKey = QString(path).remove(QRegularExpression("\\[[^]]*\\]"));
            const std::optional<DataPath> steps = parsePath(
                QString(anyKey).replace("/%1", "/" + expected.value(0).section('/', -1)).toStdString(), error);
            QVERIFY2(steps, error.c_str());
            QStringList found;
            for (const pugi::xml_node node : tree.select(*steps)) {
                QVERIFY2(node.first_child(), pathText(node).c_str()); // it exists and is not empty
                found += QString::fromStdString(pathText(node));
                if (name == "amp_enable")
                    QCOMPARE(node.child_value(), "true");
            }
            found.sort();
            QCOMPARE(found, name == "mic_status" ? expected.mid(0, 1) : expected);
            for (const QString &each : expected)
                QVERIFY2(tree.contains(each.toStdString()), qPrintable(each));
        }
    }
};

const TestEntry entry("tst_treefiles", runTest<TestTreeFiles>);
#include "tst_treefiles.moc"
