// Texts found in a notification by XPath.
#include "support/testprogram.h"

#include <xrcommon/TalInterface.h>

namespace {
/// In these texts "␀" stands for NUL and "�" for half of a surrogate pair.
QString u(const char *text)
{
    return QString::fromUtf8(text).replace(QChar(0x2400), QChar(QChar::Null)).replace(QChar(0xFFFD), QChar(0xD800));
}

/// "=" and the text, or notFound if the function leaves the text alone.
QString found(const QString &xpath, const QString &rPath, const QString &data, const QString &sPath = {})
{
    QString out = QStringLiteral("(untouched)");
    const bool isFound = TalInterface::xpathGetTextNode(out, xpath, sPath, rPath, data);
    return isFound ? QLatin1Char('=') + out : out;
}

const QString notFound = QStringLiteral("(untouched)");
constexpr char none[] = "(untouched)";

constexpr char rpm[] = "/state/fans/fan[kid='fan1']/speed_sensor_rpm";
constexpr char fan[] = "<fan><kid>fan1</kid><speed_sensor_rpm>1200</speed_sensor_rpm></fan>";
constexpr char twoKeys[] = "/m/s[reporter='a'][rep_ref='b']";
} // namespace

class TestXPath : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void finds()
    {
        // clang-format off
        static constexpr struct { const char *name, *xpath, *rPath, *data, *expected; } rows[] = {
            {"whole list", rpm, "/state/fans",
             "<fans><fan><kid>fan1</kid><speed_sensor_rpm>1200</speed_sensor_rpm></fan></fans>", "=1200"},
            {"list node", rpm, "/state/fans/fan[kid='fan1']", fan, "=1200"},
            {"leaf", rpm, rpm, "<speed_sensor_rpm>1200</speed_sensor_rpm>", "=1200"},
            {"other key", "/state/fans/fan[kid='fan2']/speed_sensor_rpm", "/state/fans/fan[kid='fan1']", fan, none},
            {"number predicate", "/a/let[kid=3]/v", "/a/let[kid='3']/v", "<v>7</v>", "=7"},
            {"number predicate, other number", "/a/let[kid=4]/v", "/a/let[kid='3']/v", "<v>7</v>", none},
            {"key without quotes in the path", "/a/let[kid='3']/v", "/a/let[kid=3]/v", "<v>7</v>", "=7"},
            {"key in double quotes in the path", "/a/let[kid='3']/v", "/a/let[kid=\"3\"]/v", "<v>7</v>", "=7"},
            {"blanks around a key without quotes", "/a/let[kid='3']/v", "/a/let[ kid = 3 ]/v", "<v>7</v>", "=7"},
            {"slash in a key", "/l/n[k='a/b']/v", "/l/n[k='a/b']/v", "<v>1</v>", "=1"},
            {"bracket in a key", "/l/n[k='a]b[']/v", "/l/n[k='a]b[']/v", "<v>1</v>", "=1"},
            {"blank in a key", "/l/n[k=' a b ']/v", "/l/n[k=' a b ']/v", "<v>1</v>", "=1"},
            {"markup in a key", "/l/n[k='<&>']/k", "/l/n[k='<&>']/v", "<v>1</v>", "=<&>"},
            {"carriage return in a key", "/l/n/k", "/l/n[k='a\rb']/v", "<v>1</v>", "=a\rb"},
            {"empty key", "/l/n[k='']/v", "/l/n[k='']/v", "<v>1</v>", "=1"},
            {"umlaut in a key", "/l/n[k='ä€😀']/v", "/l/n[k='ä€😀']/v", "<v>1</v>", "=1"},
            {"two keys, one lacking in the data", "/m/s[reporter='a'][rep_ref='b']/id", twoKeys,
             "<s><reporter>a</reporter><id>5</id></s>", "=5"},
            {"key of the node, not of the path", "/m/s/reporter", twoKeys, "<s><reporter>z</reporter></s>", "=z"},
            {"key leaves come first, in the order of the path", "/m/s/*", twoKeys, "<s><id>5</id></s>", "=a"},
            {"key leaf of an upper step", "/l/n/k", "/l/n[k='x']/v", "<v>1</v>", "=x"},
            {"first in document order", "//v", "/l", "<l><v>1</v><v>2</v></l>", "=1"},
            {"document order, not the expression's", "/l/b | /l/a", "/l", "<l><a>1</a><b>2</b></l>", "=1"},
            {"reverse axis", "/l/c/preceding-sibling::*", "/l", "<l><a>1</a><b>2</b><c/></l>", "=1"},
            {"name of the data differs from the last step", "/l/other", "/l/v", "<other>1</other>", "=1"},
            {"deleted leaf, empty data", "/l/n[k='x']/v", "/l/n[k='x']/v", "", "="},
            {"deleted list node, empty data", "/l/n[k='x']", "/l/n[k='x']", "", "="},
            {"deleted list node, empty data, its key", "/l/n[k='x']/k", "/l/n[k='x']", "", "=x"},
            {"attribute only", "/l/@a", "/l", "<l a='1'>2</l>", none},
            {"attribute first, then an element", "/l/@a | /l/v", "/l", "<l a='1'><v>2</v></l>", "=2"},
            {"text node only", "/l/text()", "/l", "<l>2</l>", none},
            {"predicate on an attribute", "/l/v[@a='2']", "/l", "<l><v a='1'>x</v><v a='2'>y</v></l>", "=y"},
        };
        // clang-format on
        for (const auto &row : rows) {
            const AtRow at(row.name);
            const QString xpath = u(row.xpath), path = u(row.rPath), data = u(row.data), expected = u(row.expected);
            QCOMPARE(found(xpath, path, data), expected);
            QCOMPARE(found(xpath, path, data), expected);            // from the tree that was kept
            QCOMPARE(found(xpath, QString(), data, path), expected); // an empty RPATH: SPATH replaces it
            QCOMPARE(found(xpath, path, data, QStringLiteral("not/looked[at")), expected);
        }
    }

    void texts()
    {
        // clang-format off
        static constexpr struct { const char *xml, *text; } rows[] = {
            {"<v/>", ""}, {"<v></v>", ""}, {"<v> \t\n </v>", " \t\n "}, {"<v>  a  b </v>", "  a  b "},
            {"<v>&lt;&gt;&amp;&quot;&apos;</v>", "<>&\"'"}, {"<v>&#65;&#x20AC;&#x1F600;</v>", "A€😀"},
            {"<v>a&#13;b</v>", "a\rb"}, {"<v><![CDATA[<a>&amp;]] ]]></v>", "<a>&amp;]] "},
            {"<v>a<![CDATA[b]]>c</v>", "abc"}, {"<v>a<!-- x -->b</v>", "ab"}, {"<v>a<?x y?>b</v>", "ab"},
            {"<v>a<b>c<d>e</d></b>f<g/>h</v>", "acefh"}, {"<v>ä€😀</v>", "ä€😀"},
            {"<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><v>ä</v>", "ä"}, {" \n<v>a</v>\n ", "a"},
            {"<!-- <v>b</v> --><v>a</v>", "a"}, {"<v a=\"1\" b='&lt;'>a</v>", "a"},
            {"<v><p:q>a</p:q></v>", "a"}, // an undeclared prefix is only a name
        };
        // clang-format on
        for (const auto &row : rows) {
            const AtRow at(row.xml);
            QCOMPARE(found(u("/l/v"), u("/l/v"), u(row.xml)), QLatin1Char('=') + u(row.text));
        }
    }

    void malformedData()
    {
        // clang-format off
        static constexpr const char *texts[] = {
            "1200", "  ", "<v/><v/>", "<v/>x", "x<v/>", // not one element
            "<v>1", "<v>1</v></v>", "<v/></l><l><v/>", "<v><a></v></a>", "<v>1</w>", "<v>1</v", // tags do not match
            "<v>a & b</v>", "<v>a < b</v>", "<v>]]></v>", "<v>\x01</v>", "<v>a␀b</v>", "<v>a</v>␀", "<v>a�b</v>",
            "<v>&nbsp;</v>", "<v>&#0;</v>", "<v>&#xD800;</v>", "<v>&#x110000;</v>",
            "<v a='1' a='2'/>", "<v a=1/>", "<v a/>", "<v a`='1'>1</v>",
            "<v><![CDATA[x</v>", "<v><!-- a -- b --></v>",
            "<!DOCTYPE v><v>1</v>", "<!DOCTYPE v [<!ENTITY e 'x'>]><v>&e;</v>",
            "<!DOCTYPE v [<!ENTITY e SYSTEM 'file:///etc/passwd'>]><v>&e;</v>",
            ("<!DOCTYPE v [<!ENTITY a 'xxxxxxxxxx'><!ENTITY b '&a;&a;&a;&a;&a;&a;'>"
             "<!ENTITY c '&b;&b;&b;&b;&b;&b;&b;&b;'>]><v>&c;</v>"),
        };
        // clang-format on
        for (const char *data : texts) {
            const AtRow at(data);
            QCOMPARE(found(u("/l/v"), u("/l/v"), u(data)), notFound);
            QCOMPARE(found(u("//*"), u("/l/v"), u(data)), notFound);
        }
    }

    void malformedExpression()
    {
        for (const QString &xpath :
             {u(""), u("/l/v[k='x'"), u("/l/v[k='x]"), u("/l/"), u("/l/foo()"), u("/l[$x]"), u("1 + 1"),
              u("string(/l)"), u("count(//v)"), u("/l␀]"), u("/l�"), u("/l") + u("[v").repeated(100000),
              u("(").repeated(100000) + u("/l") + u(")").repeated(100000)})
            for (int time = 0; time < 2; ++time) // the second time from what was kept
                QVERIFY2(found(xpath, u("/l"), u("<l><v><k>x</k></v></l>")) == notFound, qPrintable(xpath.left(40)));
    }

    void malformedPath()
    {
        // clang-format off
        static constexpr const char *paths[] = {
            "", "/", "state/fans", "/state/fans/", "/state//fans", "/state/1fans", "/state/fa ns", "/state/<fans>",
            "/state/fans[kid='1'", "/state/fans[kid='1]", "/state/fans[kid='1\"]", "/state/fans[kid='1'x]",
            "/state/fans[='1']", "/state/fans[kid=]", "/state/fans[kid]", "/state/fans[1]", "/state/fans[@kid='1']",
            "/state/fans[kid='1']x", "/state/fans]", "/state/fans␀", "/state/fans[kid='a␀']", "/state/fans[kid='�']",
        };
        // clang-format on
        for (const char *path : paths) {
            const AtRow at(path);
            QCOMPARE(found(u("//fan"), u(path), u("<fans><fan/></fans>")), notFound);
            QCOMPARE(found(u("//*"), u(path), u("<fans><fan/></fans>")), notFound);
        }
    }

    void deepNesting()
    {
        for (const int levels : {100000, 590000}) { // the second as many as fit into 4 MiB
            const QString data = u("<v>") + u("<a>").repeated(levels) + u("x") + u("</a>").repeated(levels) + u("</v>");
            QCOMPARE(found(u("/l/v"), u("/l/v"), data), u("=x"));
            QCOMPARE(found(u("//a[not(a)]"), u("/l/v"), data), u("=x"));
            QCOMPARE(found(u("/l/v"), u("/l/v"), data.chopped(1)), notFound);
            QCOMPARE(found(u("/l/v"), u("/l/v"), u("<v/>")), u("=")); // the deep tree is gone
        }
        const QString path = u("/a[k='1']").repeated(100000);
        QCOMPARE(found(u("//v"), path + u("/v"), u("<v>x</v>")), u("=x"));
        QCOMPARE(found(u("//v"), path, u("<v>x</v>")), u("=1x")); // its key leaf comes first
    }

    void keptTreeIsOfThisPathAndData()
    {
        QString data = u("<v>1</v>");
        QCOMPARE(found(u("/a/v"), u("/a/v"), data), u("=1"));
        QCOMPARE(found(u("/a/v"), u("/b/v"), data), notFound);
        QCOMPARE(found(u("/b/v"), QString(), data, u("/b/v")), u("=1"));
        QCOMPARE(found(u("/c/v"), QString(), data, u("/c/v")), u("=1"));
        data[3] = QLatin1Char('2'); // another text in the same string, as long as before
        QCOMPARE(found(u("/c/v"), u("/c/v"), data), u("=2"));
        data.remove(4, 1);
        QCOMPARE(found(u("/c/v"), u("/c/v"), data), notFound);

        const QString two = u("<v>1</v><v>2</v>");
        const QString view = QString::fromRawData(two.constData(), 8); // of the same characters
        QCOMPARE(found(u("/l/v"), u("/l/v"), view), u("=1"));
        QCOMPARE(found(u("/l/v"), u("/l/v"), two), notFound);
        QCOMPARE(found(u("/l/v"), u("/l/v"), view), u("=1"));
    }

    void manyExpressions()
    {
        QString data = u("<fans>");
        for (int i = 0; i < 400; ++i)
            data += u("<fan><kid>fan%1</kid><rpm>%1</rpm></fan>").arg(i);
        data += u("</fans>");
        for (int i = 0; i < 2 * 400; ++i) { // more than are kept compiled, each twice
            const int number = i % 400;
            QCOMPARE(found(u("/state/fans/fan[kid='fan%1']/rpm").arg(number), u("/state/fans"), data),
                     u("=%1").arg(number));
        }
    }
};

const TestEntry entry("tst_xpath", runTest<TestXPath>);
#include "tst_xpath.moc"
