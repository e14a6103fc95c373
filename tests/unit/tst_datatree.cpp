// The simulator's data tree: paths, XML, edits, what an edit tells a
// subscription, and the tree files.
#include "support/catalogue.h"
#include "support/testprogram.h"

#include "simulator/datapath.h"
#include "simulator/datatree.h"
#include "simulator/faults.h"
#include "simulator/subscriptions.h"
#include "simulator/treefiles.h"
#include "simulator/treexml.h"

#include <QRegularExpression>
#include <QTest>

using namespace simulator;

namespace {

const QString treesFolder = QStringLiteral(KVSNMP_TREES);

QString text(const std::string &utf8)
{
    return QString::fromStdString(utf8);
}

/// A small tree: two lines with two transponders each, a leaf, no message.
constexpr char smallTree[] = "<state><config><name>one</name></config>"
                             "<lines><line><kid>ch1</kid><lets><let><kid>1</"
                             "kid><vcc>10</vcc></let><let><kid>2</"
                             "kid><vcc>20</vcc></let></lets></line>"
                             "<line><kid>ch2</kid><lets><let><kid>1</"
                             "kid><vcc>30</vcc></let></lets></line></lines>"
                             "<sys_messages/></state>";

/// A tree with subscriptions and what they were told: "op rpath data".
struct Told {
    DataTree tree;
    std::vector<Subscription> subscriptions;
    QStringList messages;

    explicit Told(const QStringList &paths, const char *xml = smallTree)
    {
        pugi::xml_document document;
        std::string error;
        if (!readNode(xml, document, error))
            qFatal("%s", error.c_str());
        tree.merge(document.document_element());
        for (const QString &path : paths)
            subscriptions.push_back({"ref", path.toStdString(), *parsePath(path.toStdString(), error)});
        tree.setListener([this](const Change &change) {
            for (const Subscription &subscription : subscriptions)
                tellChange(subscription, change, [this](const std::string &message) { messages += brief(message); });
        });
    }

    QStringList existing()
    {
        QStringList list;
        for (const Subscription &subscription : subscriptions)
            tellExisting(subscription, tree, [&](const std::string &message) { list += brief(message); });
        return list;
    }

    static QString brief(const std::string &message)
    {
        pugi::xml_document document;
        if (!document.load_buffer(message.data(), message.size(), pugi::parse_full))
            return QStringLiteral("malformed: %1").arg(text(message));
        const pugi::xml_node notify = document.child("notify");
        return text(std::string(notify.child_value("op")) + ' ' + notify.child_value("rpath") + ' ' +
                    nodeXml(notify.child("data").first_child()));
    }
};

/// A whole tree as it goes out.
QString wholeTree(const DataTree &tree)
{
    return text(nodeXml(tree.select({{"state", {}}}).front()));
}

bool isRefused(const Refusal &refusal, const char *because)
{
    if (refusal && refusal->find(because) != std::string::npos)
        return true;
    qWarning("refusal: %s", refusal ? refusal->c_str() : "(none)");
    return false;
}

} // namespace

// Each key of the catalogue on the models that subscribe to it, and no other
// node beside it.

class TestDataTree : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void path_data()
    {
        QTest::addColumn<QString>("path");
        QTest::addColumn<QStringList>("steps"); // name, then key=value of each predicate

        QTest::newRow("names") << "/state/fans" << QStringList{"state", "fans"};
        QTest::newRow("apostrophes") << "/a/b[kid='x']/c" << QStringList{"a", "b kid=x", "c"};
        QTest::newRow("quotation marks") << "/a/b[kid=\"it's\"]" << QStringList{"a", "b kid=it's"};
        QTest::newRow("bare") << "/a/b[kid=3]/c" << QStringList{"a", "b kid=3", "c"};
        QTest::newRow("slash in a value") << "/a/b[kid='x/y']/c" << QStringList{"a", "b kid=x/y", "c"};
        QTest::newRow("bracket in a value") << "/a/b[kid='x]y']/c" << QStringList{"a", "b kid=x]y", "c"};
        QTest::newRow("blanks in a value") << "/a/b[name=' LET Fault ']" << QStringList{"a", "b name= LET Fault "};
        QTest::newRow("blank in a bare value") << "/a/b[name=LET Fault]" << QStringList{"a", "b name=LET Fault"};
        QTest::newRow("empty value in quotes") << "/a/b[kid='']" << QStringList{"a", "b kid="};
        QTest::newRow("two keys") << "/a/b[reporter='x'][rep_ref='7']" << QStringList{"a", "b reporter=x rep_ref=7"};
        QTest::newRow("name of digits and signs") << "/mib_2-x.y/_z" << QStringList{"mib_2-x.y", "_z"};
    }

    void path()
    {
        QFETCH(const QString, path);
        QFETCH(const QStringList, steps);

        std::string error;
        const std::optional<DataPath> read = parsePath(path.toStdString(), error);
        QVERIFY2(read, error.c_str());
        QStringList found;
        for (const PathStep &step : *read) {
            QString words = text(step.name);
            for (const Predicate &predicate : step.predicates)
                words += text(" " + predicate.key + "=" + predicate.value);
            found += words;
        }
        QCOMPARE(found, steps);
    }

    void malformedPath_data()
    {
        QTest::addColumn<QString>("path");
        for (const char *path :
             {"", "/", "state", "/a/", "//a", "/a//b", "/a b", "/1a", "/a[", "/a[]", "/a[kid]", "/a[kid=]",
              "/a[kid='x]", "/a[kid='x'", "/a[kid='x'y]", "/a[='x']", "/a]", "/a[kid='x']b", "/a/*"})
            QTest::newRow(*path != '\0' ? path : "(empty)") << path;
    }

    void malformedPath()
    {
        QFETCH(const QString, path);
        std::string error;
        QVERIFY(!parsePath(path.toStdString(), error));
        QVERIFY(text(error).startsWith(QLatin1String("malformed p")));
    }

    void nodeThatIsRead_data()
    {
        QTest::addColumn<QByteArray>("xml");
        QTest::addColumn<QByteArray>("compact");

        QTest::newRow("white space between elements goes")
            << QByteArray("<a>\n <b>1</b>\n <c/>\n</a>") << QByteArray("<a><b>1</b><c/></a>");
        QTest::newRow("white space of a leaf stays")
            << QByteArray("<a><b>  </b><c> x </c></a>") << QByteArray("<a><b>  </b><c> x </c></a>");
        QTest::newRow("empty leaf") << QByteArray("<a><b></b></a>") << QByteArray("<a><b/></a>");
        QTest::newRow("escapes") << QByteArray("<a>&lt;b&gt; &amp; &#13;&apos;&quot;</a>")
                                 << QByteArray("<a>&lt;b&gt; &amp; &#13;'\"</a>");
        QTest::newRow("character data") << QByteArray("<a>x<![CDATA[<&]]>y</a>") << QByteArray("<a>x&lt;&amp;y</a>");
        QTest::newRow("white space is a part of a text")
            << QByteArray("<a>\n<b> <![CDATA[<]]> </b>\n<c> <!-- c --> </c></a>")
            << QByteArray("<a><b> &lt; </b><c>  </c></a>");
        QTest::newRow("comments") << QByteArray("<?xml version='1.0' encoding='utf-8'?><!-- c --><a>x<!-- "
                                                "c -->y</a>")
                                  << QByteArray("<a>xy</a>");
        QTest::newRow("beyond ASCII") << QByteArray("<a>\xC3\xA4 \xE2\x82\xAC</a>")
                                      << QByteArray("<a>\xC3\xA4 \xE2\x82\xAC</a>");
    }

    void nodeThatIsRead()
    {
        QFETCH(const QByteArray, xml);
        QFETCH(const QByteArray, compact);
        pugi::xml_document document;
        std::string error;
        QVERIFY2(readNode(xml.toStdString(), document, error), error.c_str());
        QCOMPARE(QByteArray::fromStdString(nodeXml(document.document_element())), compact);
    }

    void nodeThatIsNotRead_data()
    {
        QTest::addColumn<QByteArray>("xml");
        QTest::addColumn<QString>("error");

        QTest::newRow("nothing") << QByteArray() << "malformed XML";
        QTest::newRow("a text") << QByteArray("hello") << "malformed XML";
        QTest::newRow("not closed") << QByteArray("<a><b></a>") << "malformed XML";
        QTest::newRow("two roots") << QByteArray("<a/><b/>") << "malformed XML";
        QTest::newRow("invalid UTF-8") << QByteArray("<a>\xFF\xFE</a>") << "malformed XML";
        QTest::newRow("NUL") << QByteArray("<a>x\0y</a>", 10) << "malformed XML";
        QTest::newRow("attribute") << QByteArray("<a b='1'/>") << "attributes";
        QTest::newRow("text beside elements") << QByteArray("<a>x<b/></a>") << "text beside elements";
        QTest::newRow("document type") << QByteArray("<!DOCTYPE a [<!ENTITY e 'x'>]><a>&e;</a>") << "document types";
        QTest::newRow("unknown entity") << QByteArray("<a>&e;</a>") << "malformed XML";
        QTest::newRow("prefix") << QByteArray("<p:a xmlns:p='u'/>") << "not a name";
        QTest::newRow("other encoding") << QByteArray("<?xml version='1.0' encoding='iso-8859-1'?><a/>") << "UTF-8";
        QTest::newRow("nested too deeply")
            << QByteArray("<a>").repeated(100) + QByteArray("</a>").repeated(100) << "nested";
        QTest::newRow("two leaves alike") << QByteArray("<a><b/><b/></a>") << "alike";
        QTest::newRow("two list nodes alike") << QByteArray("<a><b><kid>1</kid></b><b><kid>1</kid></b></a>") << "alike";
        QTest::newRow("apostrophe in a key") << QByteArray("<a><kid>it's</kid></a>") << "apostrophe";
        QTest::newRow("key with elements") << QByteArray("<a><kid><x/></kid></a>") << "a key is a leaf";
    }

    void nodeThatIsNotRead()
    {
        QFETCH(const QByteArray, xml);
        QFETCH(const QString, error);
        pugi::xml_document document;
        std::string found;
        QVERIFY(!readNode(xml.toStdString(), document, found));
        QVERIFY2(text(found).contains(error), found.c_str());
    }

    void textThatXmlCarries()
    {
        QVERIFY(isXmlText("a\tb\nc\r\xC3\xA4"));
        QVERIFY(!isXmlText("a\x01"));
        QVERIFY(!isXmlText(std::string_view("a\0b", 3)));
        QVERIFY(!isXmlText("\xEF\xBF\xBF"));
    }

    void keyLeavesComeFirst()
    {
        Told told({});
        QVERIFY(
            !told.tree.create("/state/traps", "<traps><trap><x/><enabled>true</enabled><name>A</name></trap></traps>"));
        QVERIFY(!told.tree.create("/state/ports", "<ports><port><x/><port_id>Eth1</port_id></port></ports>"));
        QVERIFY(!told.tree.create("/state/sys_messages/sys_message", "<sys_message><text/><rep_ref>7</"
                                                                     "rep_ref><reporter>amp</reporter></sys_message>"));
        QVERIFY(!told.tree.create("/state/lines/line[kid='ch3']", "<line><x/></line>"));
        const QString whole = wholeTree(told.tree);
        QVERIFY(whole.contains(QLatin1String("<trap><name>A</name><enabled>true</enabled><x/></trap>")));
        QVERIFY(whole.contains(QLatin1String("<port><port_id>Eth1</port_id><x/></port>")));
        QVERIFY(whole.contains(QLatin1String("<sys_message><reporter>amp</reporter><rep_ref>7</"
                                             "rep_ref><text/></sys_message>")));
        QVERIFY(whole.contains(QLatin1String("<line><kid>ch3</kid><x/></line>")));

        // a flag that comes later takes its place, too
        QVERIFY(!told.tree.remove("/state/traps/trap[name='A']/enabled"));
        QVERIFY(!told.tree.patch("/state/traps/trap[name='A']", "<trap><name>A</name><enabled>false</enabled></trap>"));
        QVERIFY(
            wholeTree(told.tree).contains(QLatin1String("<trap><name>A</name><enabled>false</enabled><x/></trap>")));
    }

    void createMakesTheNode()
    {
        Told told({});
        QVERIFY(!told.tree.create("/state/fans", "<fans/>"));
        QVERIFY(!told.tree.create("/state/fans/fan[kid='f/1]']", "<fan><rpm>5</rpm></fan>"));
        QVERIFY(!told.tree.create("/state/fans/fan", "<fan><kid>f2</kid><rpm>6</rpm></fan>"));
        QVERIFY(!told.tree.create("/state/fans/fan[kid=f2]/peak", "<peak>7</peak>"));
        QVERIFY(!told.tree.create("/state/traps", "<traps/>"));
        QVERIFY(!told.tree.create("/state/traps/trap[name='T']", "<trap><enabled>true</enabled></trap>"));
        QVERIFY(!told.tree.create("/state/traps/sys_message[rep_ref='2'][reporter='r']",
                                  "<sys_message><text/></sys_message>"));
        QVERIFY(wholeTree(told.tree).endsWith(QLatin1String("<fans><fan><kid>f/1]</kid><rpm>5</rpm></fan>"
                                                            "<fan><kid>f2</kid><rpm>6</rpm><peak>7</peak></fan></fans>"
                                                            "<traps><trap><name>T</name><enabled>true</enabled></trap>"
                                                            "<sys_message><reporter>r</reporter><rep_ref>2</"
                                                            "rep_ref><text/></sys_message></traps></state>")));
        QVERIFY(told.tree.contains("/state/fans/fan[kid='f/1]']/rpm"));
    }

    void createIsRefused()
    {
        Told told({QStringLiteral("/state")});
        const QString before = wholeTree(told.tree);
        QVERIFY(isRefused(told.tree.create("/state/config", "<config/>"), "is there already: /state/config"));
        QVERIFY(isRefused(told.tree.create("/state/lines/line[kid=ch1]", "<line/>"), "is there already"));
        QVERIFY(isRefused(told.tree.create("/state/lines/line", "<line><kid>ch1</kid></line>"), "is there already"));
        QVERIFY(isRefused(told.tree.create("/state", "<state/>"), "is there already"));
        QVERIFY(isRefused(told.tree.create("/other", "<other/>"), "the root is /state"));
        QVERIFY(isRefused(told.tree.create("/state/x/y", "<y/>"), "no such node: /state/x"));
        QVERIFY(isRefused(told.tree.create("/state/lines/line/x", "<x/>"), "names 2 nodes"));
        QVERIFY(isRefused(told.tree.create("/state/x", "<y/>"), "the path names x, the data y"));
        QVERIFY(isRefused(told.tree.create("/state/a[kid='1']", "<a><kid>2</kid></a>"), "differ in kid"));
        QVERIFY(isRefused(told.tree.create("/state/a[colour='red']", "<a/>"), "not a list key of a: colour"));
        QVERIFY(isRefused(told.tree.create("/state/a[kid=\"it's\"]", "<a/>"), "apostrophe"));
        QVERIFY(isRefused(told.tree.create("/state/config/kid", "<kid>1</kid>"), "a list key comes with its node"));
        QVERIFY(isRefused(told.tree.create("/state/config/name/x", "<x/>"), "is a leaf with a text"));
        QVERIFY(isRefused(told.tree.create("/state/trap", "<trap/>"), "a trap needs the leaf name"));
        QVERIFY(isRefused(told.tree.create("/state/x", "<x><sys_message><reporter>r</reporter></sys_message></x>"),
                          "a sys_message needs the leaf rep_ref"));
        QVERIFY(isRefused(told.tree.create("/state/x", "<x"), "malformed XML"));
        QVERIFY(isRefused(told.tree.create("state", "<x/>"), "malformed path"));
        QCOMPARE(wholeTree(told.tree), before);
        QCOMPARE(told.messages, QStringList());
    }

    void setChangesALeaf()
    {
        Told told({});
        QVERIFY(!told.tree.set("/state/config/name", "  <two> & \r"));
        QVERIFY(wholeTree(told.tree).contains(QLatin1String("<name>  &lt;two&gt; &amp; &#13;</name>")));
        QVERIFY(!told.tree.set("/state/config/name", ""));
        QVERIFY(wholeTree(told.tree).contains(QLatin1String("<name/>")));
        QVERIFY(!told.tree.set("/state/lines/line[kid=ch2]/lets/let/vcc",
                               "31")); // only one matches
        QVERIFY(wholeTree(told.tree).contains(QLatin1String("<vcc>31</vcc>")));
    }

    void setIsRefused()
    {
        Told told({});
        QVERIFY(isRefused(told.tree.set("/state/x", "1"), "no such node: /state/x"));
        QVERIFY(isRefused(told.tree.set("/state/lines", "1"), "has nodes below it"));
        QVERIFY(isRefused(told.tree.set("/state/lines/line/lets/let/vcc", "1"), "names 3 nodes"));
        QVERIFY(isRefused(told.tree.set("/state/lines/line[kid='ch1']/kid", "ch9"), "a list key does not change"));
        QVERIFY(isRefused(told.tree.set("/state/config/name", "a\x01"), "control character"));
    }

    void replaceTakesAWholeNode()
    {
        Told told({});
        QVERIFY(!told.tree.replace("/state/lines/line[kid='ch1']", "<line><x>1</x></line>"));
        QVERIFY(wholeTree(told.tree).contains(
            QLatin1String("<lines><line><kid>ch1</kid><x>1</x></line><line><kid>ch2</kid>")));
        QVERIFY(!told.tree.contains("/state/lines/line[kid='ch1']/lets"));
        QVERIFY(told.tree.contains("/state/lines/line[kid='ch1']/x"));
        QVERIFY(!told.tree.replace("/state", "<state><y/></state>"));
        QCOMPARE(wholeTree(told.tree), QStringLiteral("<state><y/></state>"));
    }

    void replaceIsRefused()
    {
        Told told({});
        QVERIFY(isRefused(told.tree.replace("/state/x", "<x/>"), "no such node"));
        QVERIFY(isRefused(told.tree.replace("/state/lines/line[kid='ch1']", "<line><kid>ch9</kid></line>"),
                          "differ in kid"));
        QVERIFY(
            isRefused(told.tree.replace("/state/lines/line[kid='ch1']/kid", "<kid>ch9</kid>"), "a list key does not"));
    }

    void deleteIsRefused()
    {
        Told told({});
        QVERIFY(isRefused(told.tree.remove("/state/x"), "no such node"));
        QVERIFY(isRefused(told.tree.remove("/state/lines/line"), "names 2 nodes"));
        QVERIFY(isRefused(told.tree.remove("/state"), "the root stays"));
        QVERIFY(isRefused(told.tree.remove("/state/lines/line[kid='ch1']/kid"), "goes with its node"));
        QVERIFY(!told.tree.remove("/state/lines/line[kid='ch1']"));
        QVERIFY(isRefused(told.tree.remove("/state/lines/line[kid='ch1']"), "no such node"));
    }

    void patchMergesByKeys()
    {
        Told told({});
        QVERIFY(!told.tree.patch("/state/lines", "<lines><line><kid>ch2</kid><lets><let><vcc>99</vcc><kid>1</kid></let>"
                                                 "<let><kid>2</kid></let></lets></line><line><kid>ch3</kid></line></"
                                                 "lines>"));
        QVERIFY(!told.tree.patch("/state/version", "<version><software><kid>a</kid><version>1</"
                                                   "version></software></version>"));
        QCOMPARE(wholeTree(told.tree), QStringLiteral("<state><config><name>one</name></"
                                                      "config><lines><line><kid>ch1</kid><lets><let><kid>1</kid>"
                                                      "<vcc>10</vcc></let><let><kid>2</kid><vcc>20</vcc></let></"
                                                      "lets></line><line><kid>ch2</kid>"
                                                      "<lets><let><kid>1</kid><vcc>99</vcc></let><let><kid>2</"
                                                      "kid></let></lets></line><line>"
                                                      "<kid>ch3</kid></line></lines><sys_messages/"
                                                      "><version><software><kid>a</kid><version>1"
                                                      "</version></software></version></state>"));
        QVERIFY(isRefused(told.tree.patch("/state/x/y", "<y/>"), "no such node: /state/x"));
    }

    void existingNodesInDocumentOrder()
    {
        Told told({QStringLiteral("/state/lines/line/lets/let/vcc"), QStringLiteral("/state/none")});
        QCOMPARE(told.existing(),
                 (QStringList{QStringLiteral("create /state/lines/line[kid='ch1']/lets/let[kid='1']/vcc "
                                             "<vcc>10</vcc>"),
                              QStringLiteral("create /state/lines/line[kid='ch1']/lets/let[kid='2']/vcc "
                                             "<vcc>20</vcc>"),
                              QStringLiteral("create /state/lines/line[kid='ch2']/lets/let[kid='1']/vcc "
                                             "<vcc>30</vcc>")}));
    }

    void change_data()
    {
        QTest::addColumn<QString>("subscribed");
        QTest::addColumn<QString>("operation");
        QTest::addColumn<QString>("path");
        QTest::addColumn<QString>("data");
        QTest::addColumn<QStringList>("told");
        // clang-format off
        const struct { const char *name; const char *subscribed; const char *operation; const char *path; const char *data; QStringList told; } rows[] = {
            {"the matched node",   "VCC",           "set", "LET1/vcc", "11", {"replace LET1/vcc <vcc>11</vcc>"}},
            {"below a matched node: the deeper path", "/state/lines", "set", "LET1/vcc", "11", {"replace LET1/vcc <vcc>11</vcc>"}},
            {"beside it",          "/state/config", "set", "LET1/vcc", "11", {}},
            {"another list node",  "CH2",           "set", "LET1/vcc", "11", {}},
            {"a chosen list node", "CH1",           "set", "LET1/vcc", "11", {"replace LET1/vcc <vcc>11</vcc>"}},
            {"an ancestor goes: each matched node by itself", "VCC", "delete", "CH1", "",
             {"delete LET1/vcc <vcc>10</vcc>", "delete CH1/lets/let[kid='2']/vcc <vcc>20</vcc>"}},
            {"an ancestor comes: each matched node by itself", "VCC", "create", "/state/lines/line[kid='x']",
             "<line><lets><let><kid>5</kid><vcc>1</vcc></let><let><kid>6</kid><vcc>2</vcc></let></lets></line>",
             {"create /state/lines/line[kid='x']/lets/let[kid='5']/vcc <vcc>1</vcc>",
              "create /state/lines/line[kid='x']/lets/let[kid='6']/vcc <vcc>2</vcc>"}},
            {"an ancestor changes: what went, what came, what differs, not what stayed", "/state/lines/line/lets/let", "replace", "/state/lines",
             "<lines><line><kid>ch1</kid><lets><let><kid>1</kid><vcc>10</vcc></let><let><kid>3</kid></let></lets></line>"
             "<line><kid>ch2</kid><lets><let><kid>1</kid><vcc>31</vcc></let></lets></line></lines>",
             {"delete CH1/lets/let[kid='2'] <let><kid>2</kid><vcc>20</vcc></let>", "create CH1/lets/let[kid='3'] <let><kid>3</kid></let>",
              "replace CH2/lets/let[kid='1'] <let><kid>1</kid><vcc>31</vcc></let>"}},
            {"an ancestor that holds no matched node", "VCC", "create", "/state/lines/line[kid='x']", "<line><y/></line>", {}},
            {"create of a matched node", "/state/lines/line", "create", "/state/lines/line[kid='x']", "<line/>",
             {"create /state/lines/line[kid='x'] <line><kid>x</kid></line>"}},
            {"create below a matched node", "/state/lines/line", "create", "CH1/x", "<x>1</x>", {"create CH1/x <x>1</x>"}},
            {"replace of a matched node", "/state/lines/line", "replace", "CH1", "<line><x>1</x></line>", {"replace CH1 <line><kid>ch1</kid><x>1</x></line>"}},
            {"delete below a matched node", "/state/lines/line", "delete", "LET1/vcc", "", {"delete LET1/vcc <vcc>10</vcc>"}},
            {"deeper than any node", "/state/config/name/x", "set", "/state/config/name", "two", {}},
        };
        // clang-format on
        const auto full = [](QString path) {
            path.replace("LET1", "CH1/lets/let[kid='1']").replace("VCC", "/state/lines/line/lets/let/vcc");
            return path.replace("CH1", "/state/lines/line[kid='ch1']").replace("CH2", "/state/lines/line[kid='ch2']");
        };
        for (const auto &row : rows) {
            QStringList told = row.told;
            for (QString &message : told)
                message = full(message);
            QTest::newRow(row.name) << full(row.subscribed) << row.operation << full(row.path) << row.data << told;
        }
    }

    void change()
    {
        QFETCH(const QString, subscribed);
        QFETCH(const QString, operation);
        QFETCH(const QString, path);
        QFETCH(const QString, data);
        QFETCH(const QStringList, told);

        Told tree({subscribed});
        const std::string target = path.toStdString();
        const std::string value = data.toStdString();
        const Refusal refusal = operation == QLatin1String("set")       ? tree.tree.set(target, value)
                                : operation == QLatin1String("create")  ? tree.tree.create(target, value)
                                : operation == QLatin1String("replace") ? tree.tree.replace(target, value)
                                                                        : tree.tree.remove(target);
        QVERIFY2(!refusal, refusal ? refusal->c_str() : "");
        QCOMPARE(tree.messages, told);
    }

    void patchTellsEachNodeThatChanges()
    {
        Told told({QStringLiteral("/state/lines")});
        QVERIFY(!told.tree.patch("/state/lines/line[kid='ch1']",
                                 "<line><x>1</x><lets><let><kid>1</kid><vcc>10</vcc></let>"
                                 "<let><kid>2</kid><vcc>21</vcc></let><let><kid>3</kid></let></lets></"
                                 "line>"));
        QCOMPARE(told.messages,
                 (QStringList{QStringLiteral("create /state/lines/line[kid='ch1']/x <x>1</x>"),
                              QStringLiteral("replace /state/lines/line[kid='ch1']/lets/let[kid='2']/vcc "
                                             "<vcc>21</vcc>"),
                              QStringLiteral("create /state/lines/line[kid='ch1']/lets/let[kid='3'] "
                                             "<let><kid>3</kid></let>")}));
    }

    void unchangedValueIsNotTold()
    {
        Told told({QStringLiteral("/state")});
        QVERIFY(!told.tree.set("/state/config/name", "one"));
        QVERIFY(!told.tree.replace("/state/config", "<config><name>one</name></config>"));
        QVERIFY(!told.tree.patch("/state/config", "<config><name>one</name></config>"));
        QVERIFY(!told.tree.patch("/state/lines", "<lines/>"));
        QCOMPARE(told.messages, QStringList());
    }

    void deletedNodeIsSentAsItWas()
    {
        Told told({QStringLiteral("/state/sys_messages/sys_message")});
        QVERIFY(!raiseFault(told.tree, {"amp", "7", "fan_not_running", "crit", "no fan", "0"}, false));
        QVERIFY(!clearFault(told.tree, "amp", "7"));
        const QString rest = QStringLiteral(" /state/sys_messages/sys_message[reporter='amp'][rep_ref='7'] "
                                            "<sys_message><reporter>amp</reporter><rep_ref>7"
                                            "</rep_ref><msgdata><fan_not_running/></msgdata><text>no "
                                            "fan</text><timestamp>0</timestamp><level>crit</level>"
                                            "</sys_message>");
        QCOMPARE(told.messages, (QStringList{QStringLiteral("create") + rest, QStringLiteral("delete") + rest}));
    }

    void messageNamesTheSubscription()
    {
        Told told({});
        std::string error;
        const Subscription subscription{"r<&>", "/state/config[x='<']", *parsePath("/state/config/name", error)};
        std::string message;
        tellExisting(subscription, told.tree, [&](const std::string &m) { message += m; });
        QCOMPARE(text(message), QStringLiteral("<notify><ref>r&lt;&amp;&gt;</ref><op>create</"
                                               "op><rpath>/state/config/name</rpath>"
                                               "<spath>/state/config[x='&lt;']</"
                                               "spath><data><name>one</name></data></notify>"));
    }

    void faultsAreSystemMessages()
    {
        Told told({});
        const Fault fault{"amp 1/]", "7", "", "", "<text>", "0x10"};
        QVERIFY(!raiseFault(told.tree, fault, false));
        QVERIFY(isRefused(raiseFault(told.tree, fault, false), "is there already"));
        QVERIFY(!raiseFault(told.tree, {"amp 1/]", "7", "let_fail", "err", "", ""}, true));
        QVERIFY(!raiseFault(told.tree, {"b", "1", "custom_msg", "notice", "t", "0"},
                            true)); // nothing to replace
        QVERIFY(isRefused(raiseFault(told.tree, {"it's", "7", "", "", "", ""}, false), "apostrophe"));
        QVERIFY(isRefused(raiseFault(told.tree, {"a", "7", "<x>", "", "", ""}, false), "not a message identifier"));
        QVERIFY(isRefused(raiseFault(told.tree, {"a", "7", "x", "", "\x02", ""}, false), "control character"));
        QVERIFY(isRefused(clearFault(told.tree, "a", "7"), "no such node"));

        const std::vector<Fault> list = faults(told.tree);
        QCOMPARE(list.size(), std::size_t{2});
        QCOMPARE(list[0].reporter, std::string("amp 1/]"));
        QCOMPARE(list[0].id, std::string("let_fail"));
        QCOMPARE(list[0].timestamp, std::string());
        QCOMPARE(list[1].level, std::string("notice"));
    }

    void trapsAreEnabledByName()
    {
        DataTree tree;
        QVERIFY(!loadModel(treesFolder, QStringLiteral("6913"), tree));
        QVERIFY(!enableTrap(tree, "LET Fault", false));
        QVERIFY(isRefused(enableTrap(tree, "let fault", true), "no such trap: let fault"));
        int disabled = 0;
        for (const TrapSetting &trap : trapSettings(tree))
            disabled += trap.enabled == "false" && trap.name == "LET Fault" ? 1 : 0;
        QCOMPARE(disabled, 1);
    }

    void everyModelHasATree()
    {
        QStringList models;
        for (const uint model : catalogue::models())
            models += QString::number(model);
        QCOMPARE(modelsIn(treesFolder), models);
    }

    void treeHasWhatTheModelShows_data() { settingsOfEveryTree_data(); }

    void treeHasWhatTheModelShows()
    {
        QFETCH(const QString, model);

        DataTree tree;
        const Refusal refusal = loadModel(treesFolder, model, tree);
        QVERIFY2(!refusal, refusal ? refusal->c_str() : "");
        QStringList subscribed;
        for (const catalogue::Row &subscription : catalogue::rows("subscriptions", "block", "data"))
            if (subscription.has(model.toUInt()))
                subscribed << subscription["reference"];
        for (const catalogue::Row &parser : catalogue::rows("parsers")) {
            if (!subscribed.contains(parser["reference"]))
                continue;
            QStringList expected;
            for (const catalogue::Row &key : catalogue::rows("keys"))
                if (key.list("parser").contains(parser["parser"]) && key.has(model.toUInt()))
                    expected << QString(parser["path"])
                                    .replace("%1", key["key"].section(' ', 0, 0))
                                    .replace("%2", key["key"].section(' ', 1));
            if (parser["parser"] == "power_monitored" && expected.isEmpty()) // subscribed to, and ignored
                expected << QString(parser["path"]).replace("%1", model == "6425" ? "dc_power" : "ac_power");
            if (parser["parser"] == "gpio_type") // feeds the GPIO control
                for (int number = 1; number <= 14; ++number)
                    expected << QString(parser["path"]).replace("%1", QString::number(number));
            if (parser["parser"] == "class_d" && model != "6425") // feeds the channels' status
                expected << parser["path"];
            expected.sort();
            expected.removeDuplicates();                             // keys that feed two rows
            if (expected.isEmpty() && parser["path"].endsWith("%1")) // the key is the name of the leaf
                continue;

            std::string error;
            const std::optional<DataPath> path = parsePath(QString(parser["path"])
                                                               .remove(QRegularExpression("\\[[^]]*\\]"))
                                                               .replace("/%1", "/" + expected.value(0).section('/', -1))
                                                               .toStdString(),
                                                           error);
            QVERIFY2(path, error.c_str());
            QStringList found;
            for (const pugi::xml_node node : tree.select(*path)) {
                QVERIFY2(node.first_child(),
                         pathText(node).c_str()); // there, and not empty
                found += text(pathText(node));
                if (parser["parser"] == "amp_enable")
                    QCOMPARE(node.child_value(), "true");
            }
            found.sort();
            QCOMPARE(found, parser["parser"] == "mic_status" ? expected.mid(0, 1) : expected);
            for (const QString &each : expected)
                QVERIFY2(tree.contains(each.toStdString()), qPrintable(each));
        }
    }

    void settingsOfEveryTree_data()
    {
        QTest::addColumn<QString>("model");
        for (const uint model : catalogue::models())
            QTest::addRow("%u", model) << QString::number(model);
    }

    void settingsOfEveryTree()
    {
        QFETCH(const QString, model);
        DataTree tree;
        const Refusal refusal = loadModel(treesFolder, model, tree);
        QVERIFY2(!refusal, refusal ? refusal->c_str() : "");
        QVERIFY(faults(tree).empty());
        QVERIFY(tree.contains("/state/sys_messages"));
        const std::string settings = "/state/config/snmp_settings/";
        const auto value = [&](const char *leaf) {
            std::string error;
            const std::vector<pugi::xml_node> nodes = tree.select(*parsePath(settings + leaf, error));
            return nodes.size() == 1 ? text(nodes.front().child_value()) : QStringLiteral("(%1)").arg(nodes.size());
        };
        for (const char *leaf :
             {"mib_2_settings/sys_name", "mib_2_settings/sys_location", "mib_2_settings/sys_contact"})
            QVERIFY2(!value(leaf).isEmpty() && !value(leaf).startsWith(QLatin1Char('(')), leaf);
        QCOMPARE(value("access_control/access"), QStringLiteral("Read"));
        QCOMPARE(value("access_control/community"), QStringLiteral("public"));
        QCOMPARE(value("access_control/nms_ip"), QStringLiteral("127.0.0.1"));
        QCOMPARE(value("access_control/nms_ipv6"), QStringLiteral("::1"));
        QCOMPARE(value("access_control/snmp_port"), QStringLiteral("161"));
        QCOMPARE(value("trap_settings/trap_address"), QStringLiteral("127.0.0.1"));
        QCOMPARE(value("trap_settings/inform_address"), QString());
        QCOMPARE(value("version_control/version_1"), QStringLiteral("true"));
        QCOMPARE(value("version_control/version_2c"), QStringLiteral("true"));
        QCOMPARE(value("version_control/version_3"), QStringLiteral("false"));
        QCOMPARE(value("custom_config"), QStringLiteral("false"));

        QStringList names;
        QStringList expected;
        for (const TrapSetting &trap : trapSettings(tree)) {
            names += text(trap.name);
            QCOMPARE(trap.enabled, std::string("true"));
        }
        for (const catalogue::Row &trap : catalogue::rows("traps"))
            expected += trap["switch"];
        names.sort();
        expected.sort();
        QCOMPARE(names, expected);
    }

    void wrongTreeFiles_data()
    {
        QTest::addColumn<QByteArray>("xml");
        QTest::addColumn<QString>("error");
        QTest::newRow("not well-formed") << QByteArray("<tree><state></tree>") << "1.xml: malformed XML";
        QTest::newRow("other root") << QByteArray("<state/>") << "the root of a tree file is <tree>";
        QTest::newRow("other part") << QByteArray("<tree><x/></tree>") << "neither <include> nor <state>: x";
        QTest::newRow("missing fragment")
            << QByteArray("<tree><include>no.xml</include></tree>") << "no.xml: No such file";
        QTest::newRow("includes itself") << QByteArray("<tree><include>1.xml</include></tree>") << "in a circle";
    }

    void wrongTreeFiles()
    {
        QFETCH(const QByteArray, xml);
        QFETCH(const QString, error);
        const QTemporaryDir folder;
        QFile file(folder.filePath(QStringLiteral("1.xml")));
        QVERIFY(file.open(QIODevice::WriteOnly) && file.write(xml) == xml.size());
        file.close();
        DataTree tree;
        QVERIFY(isRefused(loadModel(folder.path(), QStringLiteral("1"), tree), qPrintable(error)));
        QVERIFY(
            isRefused(loadModel(folder.path(), QStringLiteral("2"), tree), "no tree for model 2, there is one for: 1"));
        QVERIFY(
            isRefused(loadModel(folder.path() + QStringLiteral("/x"), QStringLiteral("1"), tree), "no tree files in"));
    }
};

const TestEntry entry("tst_datatree", runTest<TestDataTree>);
#include "tst_datatree.moc"
