// The simulator's data tree: paths, XML, edits, and the messages of an edit to a subscription.
#include "support/testprogram.h"

#include "simulator/datapath.h"
#include "simulator/datatree.h"
#include "simulator/subscriptions.h"
#include "simulator/treexml.h"

using namespace simulator;
using namespace std::string_literals;

namespace {
QString text(const std::string &utf8)
{
    return QString::fromStdString(utf8);
}

/// Paths and XML in full: VCC is the voltage of any LET, CH1 to CH3 are the lines, LET1 to LET3 the LETs of CH1, #5 is
/// the leaf of a voltage.
QString full(QString text)
{
    text.replace("VCC", "/state/lines/line/lets/let/vcc");
    text.replace(QRegularExpression("LET(\\d)"), "CH1/lets/let[kid='\\1']");
    text.replace(QRegularExpression("#(\\d+)"), "<vcc>\\1</vcc>");
    return text.replace(QRegularExpression("CH(\\d)"), "/state/lines/line[kid='ch\\1']");
}

constexpr char smallTree[] =
    "<state><config><name>one</name></config><lines><line><kid>ch1</kid><lets><let><kid>1</kid><vcc>10</vcc></let>"
    "<let><kid>2</kid><vcc>20</vcc></let></lets></line><line><kid>ch2</kid><lets><let><kid>1</kid><vcc>30</vcc></let>"
    "</lets></line></lines><sys_messages/></state>";

struct Bench {
    DataTree tree;
    std::vector<Subscription> subscriptions;
    QStringList messages;

    explicit Bench(const QStringList &paths = {})
    {
        pugi::xml_document document;
        std::string error;
        if (!readNode(smallTree, document, error))
            qFatal("%s", error.c_str());
        tree.merge(document.document_element());
        for (const QString &path : paths)
            subscriptions.push_back({"ref", path.toStdString(), *parsePath(path.toStdString(), error)});
        tree.setListener([this](const Change &change) {
            for (const Subscription &subscription : subscriptions)
                notifyChange(subscription, change, [this](const std::string &message) { messages += brief(message); });
        });
    }

    /// Does "create", "replace", "patch", "set" or "delete"; returns "" or the reason of the refusal.
    QString edit(const char *operation, const char *path, const char *dataText)
    {
        const std::string at = full(path).toStdString();
        const std::string data = full(dataText).toStdString();
        const Refusal refusal = operation == "set"s       ? tree.set(at, data)
                                : operation == "create"s  ? tree.create(at, data)
                                : operation == "replace"s ? tree.replace(at, data)
                                : operation == "patch"s   ? tree.patch(at, data)
                                                          : tree.remove(at);
        return text(refusal.value_or(""));
    }

    QString whole() const { return text(nodeXml(tree.select({{"state", {}}}).front())); }

    static QString brief(const std::string &message)
    {
        static const QRegularExpression notify("^<notify><ref>ref</ref><op>(.*)</op><rpath>(.*)</rpath>"
                                               "<spath>.*</spath><data>(.*)</data></notify>$");
        return text(message).replace(notify, "\\1 \\2 \\3");
    }
};
} // namespace

class TestDataTree : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void paths()
    {
        // clang-format off
        static constexpr struct { const char *path, *steps; } rows[] = { // name, then key=value of each predicate
            {"/state/fans", "state|fans"}, {"/a/b[kid='x']/c", "a|b kid=x|c"}, {"/a/b[kid=\"it's\"]", "a|b kid=it's"},
            {"/a/b[kid=3]/c", "a|b kid=3|c"}, {"/a/b[kid='x]y']/c", "a|b kid=x]y|c"}, {"/a/b[name=LET Fault]", "a|b name=LET Fault"}, {"/a/b[kid='']", "a|b kid="},
            {"/a/b[reporter='x'][rep_ref='7']", "a|b reporter=x rep_ref=7"}, {"/mib_2-x.y/_z", "mib_2-x.y|_z"},
        };
        // clang-format on
        std::string error;
        for (const auto &row : rows) {
            const AtRow at(row.path);
            const std::optional<DataPath> read = parsePath(row.path, error);
            QVERIFY2(read, error.c_str());
            QStringList found;
            for (const PathStep &step : *read) {
                found += text(step.name);
                for (const Predicate &predicate : step.predicates)
                    found.last() += text(" " + predicate.key + "=" + predicate.value);
            }
            QCOMPARE(found.join('|'), QString(row.steps));
        }
        for (const char *path : {"", "/", "state", "/a/", "/a//b", "/1a", "/a[", "/a[kid]", "/a[kid=]", "/a[kid='x]",
                                 "/a[kid='x'y]", "/a[='x']", "/a]", "/a[kid='x']b"}) {
            const AtRow at(path);
            error.clear();
            QVERIFY(!parsePath(path, error));
            QVERIFY(text(error).startsWith("malformed p"));
        }
    }

    void nodes()
    {
        // clang-format off
        static const struct { std::string xml; const char *result; } rows[] = { // compact XML, or part of the error
            {"<a>\n <b>1</b>\n <c/>\n</a>", "<a><b>1</b><c/></a>"}, {"<a><b></b></a>", "<a><b/></a>"},
            {"<a><b>  </b><c> x </c></a>", "<a><b>  </b><c> x </c></a>"}, // white space of a leaf stays
            {"<a>&lt;b&gt; &amp; &#13;&apos;&quot;</a>", "<a>&lt;b&gt; &amp; &#13;'\"</a>"},
            {"<?xml version='1.0' encoding='utf-8'?><!-- c --><a>x<!-- c -->y</a>", "<a>xy</a>"},
            {"", "malformed XML"}, {"<a/><b/>", "malformed XML"}, {"<a>\xFF\xFE</a>", "malformed XML"}, {"<a>x\0y</a>"s, "malformed XML"},
            {"<a>&e;</a>", "malformed XML"}, {"<!DOCTYPE a [<!ENTITY e 'x'>]><a>&e;</a>", "document types"},
            {"<a b='1'/>", "attributes"}, {"<a>x<b/></a>", "text beside elements"},
            {"<a><b/><b/></a>", "alike"}, {"<a><b><kid>1</kid></b><b><kid>1</kid></b></a>", "alike"},
            {"<a><kid>it's</kid></a>", "apostrophe"}, {"<a><kid><x/></kid></a>", "a key is a leaf"},
            {(QByteArray("<a>").repeated(100) + QByteArray("</a>").repeated(100)).toStdString(), "nested"},
        };
        // clang-format on
        for (const auto &row : rows) {
            const AtRow at(row.xml.c_str());
            pugi::xml_document document;
            std::string error;
            const bool isRead = readNode(row.xml, document, error);
            const std::string result = isRead ? nodeXml(document.document_element()) : error;
            QCOMPARE(isRead, *row.result == '<');
            QVERIFY2(isRead ? result == row.result : result.find(row.result) != std::string::npos, result.c_str());
        }
    }

    void keyLeavesComeFirst()
    {
        // clang-format off
        static constexpr struct { const char *operation, *path, *data, *found; } rows[] = {
            {"create", "/state/traps", "<traps><trap><x/><y/><name>A</name></trap></traps>",
             "<trap><name>A</name><x/><y/></trap>"},
            {"delete", "/state/traps/trap[name='A']/y", "", "<trap><name>A</name><x/></trap>"},
            {"patch", "/state/traps/trap", "<trap><name>A</name><x>1</x></trap>", "<name>A</name><x>1</x></trap>"},
            {"create", "/state/sys_messages/sys_message",
             "<sys_message><text/><rep_ref>7</rep_ref><reporter>amp</reporter></sys_message>",
             "<sys_message><reporter>amp</reporter><rep_ref>7</rep_ref><text/></sys_message>"},
            {"create", "CH3", "<line><x/></line>", "<line><kid>ch3</kid><x/></line>"},
            {"create", "/state/fans", "<fans/>", "<fans/>"},
            {"create", "/state/fans/fan[kid='f/1]']", "<fan><x/></fan>", "<fan><kid>f/1]</kid><x/></fan>"},
            {"set", "/state/config/name", "  <two> & \r", "<name>  &lt;two&gt; &amp; &#13;</name>"},
            {"set", "/state/config/name", "", "<name/>"},
            {"set", "/state/lines/line[kid=ch2]/lets/let/vcc", "31", "<vcc>31</vcc>"}, // only one matches
            {"replace", "CH1", "<line><x>1</x></line>", "<line><kid>ch1</kid><x>1</x></line><line><kid>ch2</kid>"},
            {"patch", "/state/lines", "<lines><line><kid>ch2</kid><lets><let><vcc>99</vcc><kid>1</kid></let>"
             "<let><kid>2</kid></let></lets></line><line><kid>ch4</kid></line></lines>",
             "<lines><line><kid>ch1</kid><x>1</x></line><line><kid>ch2</kid><lets><let><kid>1</kid><vcc>99</vcc></let>"
             "<let><kid>2</kid></let></lets></line><line><kid>ch3</kid><x/></line><line><kid>ch4</kid></line></lines>"},
        };
        // clang-format on
        Bench bench;
        for (const auto &row : rows) {
            const AtRow at(row.data);
            QCOMPARE(bench.edit(row.operation, row.path, row.data), QString());
            QVERIFY2(bench.whole().contains(row.found), qPrintable(bench.whole()));
        }
    }

    void refusedEdits()
    {
        // clang-format off
        static constexpr struct { const char *operation, *path, *data, *because; } rows[] = {
            {"create",  "/state/config",            "<config/>",                     "is there already: /state/config"},
            {"create",  "/state/x/y",               "<y/>",                            "no such node: /state/x"},
            {"create",  "/state/lines/line/x",      "<x/>",                            "names 2 nodes"},
            {"create",  "/state/a[kid='1']",        "<a><kid>2</kid></a>",             "differ in kid"},
            {"create",  "/state/a[colour='red']",   "<a/>",                            "not a list key of a: colour"},
            {"create",  "/state/a[kid=\"it's\"]", "<a/>",                            "apostrophe"},
            {"create",  "/state/config/kid",        "<kid>1</kid>",                  "a list key comes with its node"},
            {"create",  "/state/x", "<x><sys_message><reporter>r</reporter></sys_message></x>",
             "a sys_message needs the leaf rep_ref"},
            {"set",     "/state/x",                 "1",                               "no such node: /state/x"},
            {"set",     "/state/lines",             "1",                               "has nodes below it"},
            {"set",     "CH1/kid",                  "ch9",                             "a list key does not change"},
            {"delete",  "/state",                   "",                                "the root stays"},
            {"delete",  "CH1/kid",                  "",                                "goes with its node"},
            {"set",     "/state/config/name",       "one",                             ""}, // unchanged, not refused
            {"replace", "/state/config",            "<config><name>one</name></config>", ""},
            {"patch",   "/state/lines",             "<lines/>",                        ""},
        };
        // clang-format on
        Bench bench({"/state"});
        for (const auto &row : rows) {
            const AtRow at(row.path);
            const QString refusal = bench.edit(row.operation, row.path, row.data);
            QVERIFY2(refusal.contains(row.because) && refusal.isEmpty() == (*row.because == '\0'), qPrintable(refusal));
            QCOMPARE(bench.whole(), QString(smallTree));
            QCOMPARE(bench.messages, QStringList());
        }
    }

    void existingNodesInDocumentOrder()
    {
        const Bench bench;
        std::string messages;
        const auto notify = [&](const char *ref, const char *pathText, const char *path) {
            std::string error;
            notifyExisting({ref, pathText, *parsePath(path, error)}, bench.tree,
                           [&](const std::string &message) { messages += Bench::brief(message).toStdString() + '\n'; });
        };
        notify("ref", "", "/state/lines/line/lets/let/vcc");
        notify("ref", "", "/state/none");
        QCOMPARE(text(messages), full("create LET1/vcc <vcc>10</vcc>\ncreate LET2/vcc <vcc>20</vcc>\n"
                                      "create CH2/lets/let[kid='1']/vcc <vcc>30</vcc>\n"));
        messages.clear();
        notify("r<&>", "/state/config[x='<']", "/state/config/name");
        QCOMPARE(text(messages),
                 QString("<notify><ref>r&lt;&amp;&gt;</ref><op>create</op><rpath>/state/config/name</rpath>"
                         "<spath>/state/config[x='&lt;']</spath><data><name>one</name></data></notify>\n"));
    }

    void changes()
    {
        // clang-format off
        static constexpr struct { const char *name, *path, *operation, *target, *data, *messages; } rows[] = {
            {"the matched node",   "VCC",           "set", "LET1/vcc", "11", "replace LET1/vcc #11"},
            {"below it",           "/state/lines",  "set", "LET1/vcc", "11", "replace LET1/vcc #11"},
            {"another list node",  "CH2",           "set", "LET1/vcc", "11", ""},
            {"a chosen list node", "CH1",           "set", "LET1/vcc", "11", "replace LET1/vcc #11"},
            {"an ancestor goes: each matched node by itself", "VCC", "delete", "CH1", "",
             "delete LET1/vcc #10\ndelete LET2/vcc #20"},
            {"an ancestor comes: each matched node by itself", "VCC", "create", "CH3",
             "<line><lets><let><kid>5</kid>#1</let><let><kid>6</kid>#2</let></lets></line>",
             "create CH3/lets/let[kid='5']/vcc #1\ncreate CH3/lets/let[kid='6']/vcc #2"},
            {"an ancestor changes: each node that goes, comes or differs", "/state/lines/line/lets/let", "replace",
             "/state/lines", "<lines><line><kid>ch1</kid><lets><let><kid>1</kid>#10</let><let><kid>3</kid></let></lets>"
             "</line><line><kid>ch2</kid><lets><let><kid>1</kid>#31</let></lets></line></lines>",
             "delete LET2 <let><kid>2</kid>#20</let>\ncreate LET3 <let><kid>3</kid></let>\n"
             "replace CH2/lets/let[kid='1'] <let><kid>1</kid>#31</let>"},
            {"an ancestor that holds no matched node", "VCC", "create", "CH3", "<line><y/></line>", ""},
            {"create of a matched node", "/state/lines/line", "create", "CH3", "<line/>",
             "create CH3 <line><kid>ch3</kid></line>"},
            {"replace of a matched node", "/state/lines/line", "replace", "CH1", "<line><x>1</x></line>",
             "replace CH1 <line><kid>ch1</kid><x>1</x></line>"},
            {"delete below a matched node", "/state/lines/line", "delete", "LET1/vcc", "", "delete LET1/vcc #10"},
            {"deeper than any node", "/state/config/name/x", "set", "/state/config/name", "two", ""},
            {"patch: each node that changes", "/state/lines", "patch", "CH1", "<line><x>1</x><lets><let><kid>1</kid>#10"
             "</let><let><kid>2</kid>#21</let><let><kid>3</kid></let></lets></line>",
             "create CH1/x <x>1</x>\nreplace LET2/vcc #21\ncreate LET3 <let><kid>3</kid></let>"},
        };
        // clang-format on
        for (const auto &row : rows) {
            const AtRow at(row.name);
            Bench bench({full(row.path)}); // subscribed to
            QCOMPARE(bench.edit(row.operation, row.target, row.data), QString());
            QCOMPARE(bench.messages.join('\n'), full(row.messages));
        }
    }
};

const TestEntry entry("tst_datatree", runTest<TestDataTree>);
#include "tst_datatree.moc"
