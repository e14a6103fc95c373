// Texts found in a notification by XPath.
#include "support/testprogram.h"

#include <xrcommon/TalInterface.h>

#include <QtTest>

#include <random>

namespace {

const QString fansData = QStringLiteral("<fans><fan><kid>fan1</kid><speed_sensor_rpm>1200</speed_sensor_rpm></fan>"
                                        "<fan><kid>fan2</kid><speed_sensor_rpm>900</speed_sensor_rpm></fan></fans>");

QString found(const QString &xpath, const QString &rPath, const QString &data, const QString &sPath = {})
{
    QString out = QStringLiteral("(untouched)");
    const bool isFound = TalInterface::xpathGetTextNode(out, xpath, sPath, rPath, data);
    return isFound ? QLatin1Char('=') + out : out;
}

const QString notFound = QStringLiteral("(untouched)");

QString u(const char *text)
{
    return QString::fromUtf8(text);
}

} // namespace

/// Whatever comes, it ends, and what is not found leaves the text alone.

class TestXPath : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void finds_data()
    {
        QTest::addColumn<QString>("xpath");
        QTest::addColumn<QString>("rPath");
        QTest::addColumn<QString>("data");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char *name, const char *xpath, const char *rPath, const char *data,
                            const char *expected) {
            QTest::newRow(name) << u(xpath) << u(rPath) << u(data) << u(expected);
        };
        const char *rpm = "/state/fans/fan[kid='fan1']/speed_sensor_rpm";
        const char *fan = "<fan><kid>fan1</kid><speed_sensor_rpm>1200</speed_sensor_rpm></fan>";
        row("whole list", rpm, "/state/fans",
            "<fans><fan><kid>fan1</kid><speed_sensor_rpm>1200</speed_sensor_rpm></fan></fans>", "=1200");
        row("list node", rpm, "/state/fans/fan[kid='fan1']", fan, "=1200");
        row("leaf", rpm, "/state/fans/fan[kid='fan1']/speed_sensor_rpm", "<speed_sensor_rpm>1200</speed_sensor_rpm>",
            "=1200");
        row("root", rpm, "/state",
            "<state><fans><fan><kid>fan1</kid><speed_sensor_rpm>1</speed_sensor_rpm></fan></fans></state>", "=1");
        row("other key", "/state/fans/fan[kid='fan2']/speed_sensor_rpm", "/state/fans/fan[kid='fan1']", fan,
            "(untouched)");
        row("other leaf", "/state/fans/fan[kid='fan1']/other", "/state/fans/fan[kid='fan1']", fan, "(untouched)");
        row("leaf of another list node", "/state/fans/fan[kid='fan2']/speed_sensor_rpm",
            "/state/fans/fan[kid='fan1']/speed_sensor_rpm", "<speed_sensor_rpm>1200</speed_sensor_rpm>", "(untouched)");
        row("number predicate", "/state/lets/let[kid=3]/v", "/state/lets/let[kid='3']/v", "<v>7</v>", "=7");
        row("number predicate, whole node", "/state/lets/let[kid=3]/v", "/state/lets",
            "<lets><let><kid>3</kid><v>7</v></let></lets>", "=7");
        row("number predicate, other number", "/state/lets/let[kid=4]/v", "/state/lets/let[kid='3']/v", "<v>7</v>",
            "(untouched)");
        row("key without quotes in the path", "/state/lets/let[kid='3']/v", "/state/lets/let[kid=3]/v", "<v>7</v>",
            "=7");
        row("key in double quotes in the path", "/state/lets/let[kid='3']/v", "/state/lets/let[kid=\"3\"]/v",
            "<v>7</v>", "=7");
        row("blanks in a predicate of the path", "/state/lets/let[kid='3']/v", "/state/lets/let[ kid = '3' ]/v",
            "<v>7</v>", "=7");
        row("blanks around a key without quotes", "/state/lets/let[kid='3']/v", "/state/lets/let[ kid = 3 ]/v",
            "<v>7</v>", "=7");
        row("slash in a key", "/l/n[k='a/b']/v", "/l/n[k='a/b']/v", "<v>1</v>", "=1");
        row("bracket in a key", "/l/n[k='a]b[']/v", "/l/n[k='a]b[']/v", "<v>1</v>", "=1");
        row("blank in a key", "/l/n[k=' a b ']/v", "/l/n[k=' a b ']/v", "<v>1</v>", "=1");
        row("equals sign in a key", "/l/n[k='a=b']/v", "/l/n[k='a=b']/v", "<v>1</v>", "=1");
        row("markup in a key", "/l/n[k='<&>']/k", "/l/n[k='<&>']/v", "<v>1</v>", "=<&>");
        row("carriage return in a key", "/l/n/k", "/l/n[k='a\rb']/v", "<v>1</v>", "=a\rb");
        row("empty key", "/l/n[k='']/v", "/l/n[k='']/v", "<v>1</v>", "=1");
        row("umlaut in a key", "/l/n[k='ä€😀']/v", "/l/n[k='ä€😀']/v", "<v>1</v>", "=1");
        row("umlaut in a name", "/l/größe", "/l/größe", "<größe>1</größe>", "=1");
        row("two keys, both in the data", "/m/s[reporter='a'][rep_ref='b']/id", "/m/s[reporter='a'][rep_ref='b']",
            "<s><reporter>a</reporter><rep_ref>b</rep_ref><id>5</id></s>", "=5");
        row("two keys, one lacking in the data", "/m/s[reporter='a'][rep_ref='b']/id",
            "/m/s[reporter='a'][rep_ref='b']", "<s><reporter>a</reporter><id>5</id></s>", "=5");
        row("two keys, other order", "/m/s[rep_ref='b'][reporter='a']/id", "/m/s[reporter='a'][rep_ref='b']/id",
            "<id>5</id>", "=5");
        row("key of the node, not of the path", "/m/s/reporter", "/m/s[reporter='a']", "<s><reporter>z</reporter></s>",
            "=z");
        row("key leaf of the path", "/m/s/rep_ref", "/m/s[reporter='a'][rep_ref='b']", "<s><id>5</id></s>", "=b");
        row("key leaves come first, in the order of the path", "/m/s/*", "/m/s[reporter='a'][rep_ref='b']",
            "<s><id>5</id></s>", "=a");
        row("second key leaf", "/m/s/*[2]", "/m/s[reporter='a'][rep_ref='b']", "<s><id>5</id></s>", "=b");
        row("key leaf of an upper step", "/l/n/k", "/l/n[k='x']/v", "<v>1</v>", "=x");
        row("keys on two steps", "/l/n[k='x']/p[q='y']/v", "/l/n[k='x']/p[q='y']/v", "<v>1</v>", "=1");
        row("first in document order", "//v", "/l", "<l><v>1</v><v>2</v></l>", "=1");
        row("first in document order, not in the expression's", "/l/b | /l/a", "/l", "<l><a>1</a><b>2</b></l>", "=1");
        row("reverse axis", "/l/c/preceding-sibling::*", "/l", "<l><a>1</a><b>2</b><c/></l>", "=1");
        row("name of the data differs from the last step", "/l/other", "/l/v", "<other>1</other>", "=1");
        row("deleted leaf, as it was", "/l/n[k='x']/v", "/l/n[k='x']/v", "<v>1</v>", "=1");
        row("deleted leaf, empty data", "/l/n[k='x']/v", "/l/n[k='x']/v", "", "=");
        row("deleted list node, empty data", "/l/n[k='x']", "/l/n[k='x']", "", "=");
        row("deleted list node, empty data, its key", "/l/n[k='x']/k", "/l/n[k='x']", "", "=x");
        row("deleted list node, empty data, a leaf of it", "/l/n[k='x']/v", "/l/n[k='x']", "", "(untouched)");
        row("attribute only", "/l/@a", "/l", "<l a='1'>2</l>", "(untouched)");
        row("attribute first, then an element", "/l/@a | /l/v", "/l", "<l a='1'><v>2</v></l>", "=2");
        row("text node only", "/l/text()", "/l", "<l>2</l>", "(untouched)");
        row("document only", "/", "/l", "<l>2</l>", "(untouched)");
        row("predicate on an attribute", "/l/v[@a='2']", "/l", "<l><v a='1'>x</v><v a='2'>y</v></l>", "=y");
    }

    void finds()
    {
        QFETCH(QString, xpath);
        QFETCH(QString, rPath);
        QFETCH(QString, data);
        QFETCH(QString, expected);
        QCOMPARE(found(xpath, rPath, data), expected);
        QCOMPARE(found(xpath, rPath, data), expected);            // from the tree that was kept
        QCOMPARE(found(xpath, QString(), data, rPath), expected); // an empty RPATH: SPATH takes its place
        if (!data.isEmpty())
            QCOMPARE(found(xpath, rPath, data, QStringLiteral("not/looked[at")), expected);
    }

    void texts_data()
    {
        QTest::addColumn<QString>("xml");
        QTest::addColumn<QString>("text");
        QTest::newRow("empty element") << u("<v/>") << u("");
        QTest::newRow("empty text") << u("<v></v>") << u("");
        QTest::newRow("white space only") << u("<v> \t\n </v>") << u(" \t\n ");
        QTest::newRow("white space around") << u("<v>  a  b </v>") << u("  a  b ");
        QTest::newRow("the five entities") << u("<v>&lt;&gt;&amp;&quot;&apos;</v>") << u("<>&\"'");
        QTest::newRow("character references") << u("<v>&#65;&#x20AC;&#x1F600;</v>") << u("A€😀");
        QTest::newRow("carriage return as a reference") << u("<v>a&#13;b</v>") << u("a\rb");
        QTest::newRow("CDATA") << u("<v><![CDATA[<a>&amp;]] ]]></v>") << u("<a>&amp;]] ");
        QTest::newRow("CDATA between texts") << u("<v>a<![CDATA[b]]>c</v>") << u("abc");
        QTest::newRow("comment in between") << u("<v>a<!-- x -->b</v>") << u("ab");
        QTest::newRow("processing instruction in between") << u("<v>a<?x y?>b</v>") << u("ab");
        QTest::newRow("elements below") << u("<v>a<b>c<d>e</d></b>f<g/>h</v>") << u("acefh");
        QTest::newRow("beyond the first plane") << u("<v>ä€😀</v>") << u("ä€😀");
        QTest::newRow("declaration first") << u("<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><v>ä</v>") << u("ä");
        QTest::newRow("white space around the element") << u(" \n<v>a</v>\n ") << u("a");
        QTest::newRow("comment before the element") << u("<!-- <v>b</v> --><v>a</v>") << u("a");
        QTest::newRow("attributes") << u("<v a=\"1\" b='&lt;'>a</v>") << u("a");
        QTest::newRow("undeclared prefix is only a name") << u("<v><p:q>a</p:q></v>") << u("a");
    }

    void texts()
    {
        QFETCH(QString, xml);
        QFETCH(QString, text);
        QCOMPARE(found(u("/l/v"), u("/l/v"), xml), QLatin1Char('=') + text);
    }

    void malformedData_data()
    {
        QTest::addColumn<QString>("data");
        QTest::newRow("text only") << u("1200");
        QTest::newRow("white space only") << u("  ");
        QTest::newRow("two elements") << u("<v/><v/>");
        QTest::newRow("text after the element") << u("<v/>x");
        QTest::newRow("text before the element") << u("x<v/>");
        QTest::newRow("not closed") << u("<v>1");
        QTest::newRow("closed twice") << u("<v>1</v></v>");
        QTest::newRow("closes what stands around it") << u("<v/></l><l><v/>");
        QTest::newRow("crossed") << u("<v><a></v></a>");
        QTest::newRow("other end tag") << u("<v>1</w>");
        QTest::newRow("tag cut off") << u("<v>1</v");
        QTest::newRow("bare ampersand") << u("<v>a & b</v>");
        QTest::newRow("bare less-than") << u("<v>a < b</v>");
        QTest::newRow("undeclared entity") << u("<v>&nbsp;</v>");
        QTest::newRow("reference to NUL") << u("<v>&#0;</v>");
        QTest::newRow("reference to a surrogate") << u("<v>&#xD800;</v>");
        QTest::newRow("reference out of range") << u("<v>&#x110000;</v>");
        QTest::newRow("control character") << u("<v>\x01</v>");
        QTest::newRow("attribute twice") << u("<v a='1' a='2'/>");
        QTest::newRow("attribute without quotes") << u("<v a=1/>");
        QTest::newRow("attribute without value") << u("<v a/>");
        QTest::newRow("attribute with a character that no name has") << u("<v a`='1'>1</v>");
        QTest::newRow("end of CDATA in text") << u("<v>]]></v>");
        QTest::newRow("CDATA not ended") << u("<v><![CDATA[x</v>");
        QTest::newRow("double hyphen in a comment") << u("<v><!-- a -- b --></v>");
        QTest::newRow("document type") << u("<!DOCTYPE v><v>1</v>");
        QTest::newRow("declared entity") << u("<!DOCTYPE v [<!ENTITY e 'x'>]><v>&e;</v>");
        QTest::newRow("entities that grow") << u("<!DOCTYPE v [<!ENTITY a 'xxxxxxxxxx'><!ENTITY b '&a;&a;&a;&a;&a;&a;'>"
                                                 "<!ENTITY c '&b;&b;&b;&b;&b;&b;&b;&b;'>]><v>&c;</v>");
    }

    void malformedData()
    {
        QFETCH(QString, data);
        QCOMPARE(found(u("/l/v"), u("/l/v"), data), notFound);
        QCOMPARE(found(u("//*"), u("/l/v"), data), notFound);
    }

    void malformedExpression_data()
    {
        QTest::addColumn<QString>("xpath");
        QTest::newRow("empty") << u("");
        QTest::newRow("bracket open") << u("/state/fans/fan[kid='fan1'");
        QTest::newRow("quote open") << u("/state/fans/fan[kid='fan1]");
        QTest::newRow("slash at the end") << u("/state/fans/");
        QTest::newRow("unknown function") << u("/state/foo()");
        QTest::newRow("unknown variable") << u("/state/fans[$x]");
        QTest::newRow("number") << u("1 + 1");
        QTest::newRow("text") << u("string(/state/fans)");
        QTest::newRow("count") << u("count(//fan)");
        QTest::newRow("NUL after a good expression") << u("/state/fans") + QChar(QChar::Null) + u("]");
        QTest::newRow("lone surrogate") << u("/state/fans") + QChar(0xD800);
        QTest::newRow("100,000 brackets") << u("/state") + u("[a").repeated(100000);
        QTest::newRow("100,000 parentheses") << u("(").repeated(100000) + u("/state") + u(")").repeated(100000);
    }

    void malformedExpression()
    {
        QFETCH(QString, xpath);
        QCOMPARE(found(xpath, u("/state/fans"), fansData), notFound);
        QCOMPARE(found(xpath, u("/state/fans"), fansData), notFound);
    }

    void malformedPath_data()
    {
        QTest::addColumn<QString>("path");
        QTest::newRow("empty") << u("");
        QTest::newRow("root only") << u("/");
        QTest::newRow("relative") << u("state/fans");
        QTest::newRow("slash at the end") << u("/state/fans/");
        QTest::newRow("empty step") << u("/state//fans");
        QTest::newRow("digit first") << u("/state/1fans");
        QTest::newRow("blank in a step") << u("/state/fa ns");
        QTest::newRow("markup in a step") << u("/state/<fans>");
        QTest::newRow("bracket open") << u("/state/fans[kid='1'");
        QTest::newRow("quote open") << u("/state/fans[kid='1]");
        QTest::newRow("other quote") << u("/state/fans[kid='1\"]");
        QTest::newRow("text after the quote") << u("/state/fans[kid='1'x]");
        QTest::newRow("no key") << u("/state/fans[='1']");
        QTest::newRow("no value") << u("/state/fans[kid=]");
        QTest::newRow("no equals sign") << u("/state/fans[kid]");
        QTest::newRow("position") << u("/state/fans[1]");
        QTest::newRow("attribute") << u("/state/fans[@kid='1']");
        QTest::newRow("text after the bracket") << u("/state/fans[kid='1']x");
        QTest::newRow("bracket alone") << u("/state/fans]");
        QTest::newRow("NUL") << u("/state/fans") + QChar(QChar::Null);
        QTest::newRow("NUL in a key") << u("/state/fans[kid='a") + QChar(QChar::Null) + u("']");
        QTest::newRow("lone surrogate") << u("/state/fans[kid='") + QChar(0xDC00) + u("']");
    }

    void malformedPath()
    {
        QFETCH(QString, path);
        QCOMPARE(found(u("//fan"), path, fansData), notFound);
        QCOMPARE(found(u("//*"), path, fansData), notFound);
    }

    void embeddedNul()
    {
        QCOMPARE(found(u("/l/v"), u("/l/v"), u("<v>a") + QChar(QChar::Null) + u("b</v>")), notFound);
        QCOMPARE(found(u("/l/v"), u("/l/v"), u("<v>a</v>") + QChar(QChar::Null)), notFound);
    }

    void loneSurrogate() { QCOMPARE(found(u("/l/v"), u("/l/v"), u("<v>a") + QChar(0xD83D) + u("b</v>")), notFound); }

    void deepNesting_data()
    {
        QTest::addColumn<int>("levels");
        QTest::newRow("100,000 levels") << 100000;
        QTest::newRow("as many as fit into 4 MiB") << 590000;
    }

    void deepNesting()
    {
        QFETCH(int, levels);
        const QString data = u("<v>") + u("<a>").repeated(levels) + u("x") + u("</a>").repeated(levels) + u("</v>");
        QCOMPARE(found(u("/l/v"), u("/l/v"), data), u("=x"));
        QCOMPARE(found(u("//a[not(a)]"), u("/l/v"), data), u("=x"));
        QCOMPARE(found(u("/l/v"), u("/l/v"), data.chopped(1)), notFound);
        QCOMPARE(found(u("/l/v"), u("/l/v"), u("<v/>")), u("=")); // the deep tree is gone
    }

    void deepPath()
    {
        const QString path = u("/a[k='1']").repeated(100000);
        QCOMPARE(found(u("//v"), path + u("/v"), u("<v>x</v>")), u("=x"));
        QCOMPARE(found(u("//v"), path, u("<v>x</v>")), u("=1x")); // its key leaf comes first
    }

    void fourMebibyteText()
    {
        const QString text = u("0123456789abcdef").repeated(256 * 1024);
        QCOMPARE(found(u("/l/v"), u("/l/v"), u("<v>") + text + u("</v>")), QLatin1Char('=') + text);
        QVERIFY(found(u("/l/v"), u("/l/v"), u("<v>") + text + u("</v>x")) == notFound);
    }

    void externalEntityIsNotRead()
    {
        QTemporaryDir folder;
        QFile secret(folder.filePath(u("secret")));
        QVERIFY(secret.open(QIODevice::WriteOnly));
        secret.write("secret");
        secret.close();
        const QString data = u("<!DOCTYPE v [<!ENTITY e SYSTEM 'file://%1'>]><v>&e;</v>").arg(secret.fileName());
        QCOMPARE(found(u("/l/v"), u("/l/v"), data), notFound);
    }

    void sameDataUnderAnotherPath()
    {
        const QString data = u("<v>1</v>");
        QCOMPARE(found(u("/a/v"), u("/a/v"), data), u("=1"));
        QCOMPARE(found(u("/a/v"), u("/b/v"), data), notFound);
        QCOMPARE(found(u("/b/v"), QString(), data, u("/b/v")), u("=1"));
        QCOMPARE(found(u("/c/v"), QString(), data, u("/c/v")), u("=1"));
    }

    void otherDataInTheSameString()
    {
        QString data = u("<v>1</v>");
        QCOMPARE(found(u("/l/v"), u("/l/v"), data), u("=1"));
        data[3] = QLatin1Char('2'); // as long as before
        QCOMPARE(found(u("/l/v"), u("/l/v"), data), u("=2"));
        data.remove(4, 1);
        QCOMPARE(found(u("/l/v"), u("/l/v"), data), notFound);
    }

    void viewOfTheSameCharacters()
    {
        const QString data = u("<v>1</v><v>2</v>");
        const QString view = QString::fromRawData(data.constData(), 8);
        QCOMPARE(found(u("/l/v"), u("/l/v"), view), u("=1"));
        QCOMPARE(found(u("/l/v"), u("/l/v"), data), notFound);
        QCOMPARE(found(u("/l/v"), u("/l/v"), view), u("=1"));
    }

    void manyExpressions()
    {
        QString data = u("<fans>");
        for (int i = 0; i < 2000; ++i)
            data += u("<fan><kid>fan%1</kid><rpm>%1</rpm></fan>").arg(i);
        data += u("</fans>");
        for (int round = 0; round < 2; ++round) { // more than are kept compiled
            for (int i = 0; i < 2000; ++i)
                QCOMPARE(found(u("/state/fans/fan[kid='fan%1']/rpm").arg(i), u("/state/fans"), data), u("=%1").arg(i));
        }
    }

    void randomXml()
    {
        const QStringList pieces{u("<v>"),
                                 u("</v>"),
                                 u("<a b='c'>"),
                                 u("</a>"),
                                 u("<x/>"),
                                 u("text"),
                                 u("&amp;"),
                                 u("&e;"),
                                 u("<![CDATA["),
                                 u("]]>"),
                                 u("<!--"),
                                 u("-->"),
                                 u("<?p"),
                                 u("?>"),
                                 u("<!DOCTYPE v"),
                                 u(">"),
                                 u("<"),
                                 u("\""),
                                 u("'"),
                                 u("&#x41;"),
                                 u("ä😀"),
                                 QString(QChar::Null),
                                 QString(QChar(0xD800)),
                                 u("/"),
                                 u("["),
                                 u("]"),
                                 u("=")};
        std::mt19937 random(2); // NOLINT(cert-msc51-cpp): the same on every run
        const auto anyText = [&](unsigned most) {
            QString text;
            for (auto i = random() % most; i > 0; --i)
                text += pieces[static_cast<int>(random() % static_cast<unsigned>(pieces.size()))];
            return text;
        };
        int some = 0;
        for (int round = 0; round < 20000; ++round) {
            const QString data = random() % 2 ? u("<v>") + anyText(6) + u("</v>") : anyText(12);
            const QString path = random() % 4 ? u("/l/v") : u("/l") + anyText(6);
            const QString xpath = random() % 4 ? u("/l/*") : u("/l") + anyText(6);
            some += found(xpath, path, data) != notFound;
        }
        QVERIFY(some > 100);
    }
};

const TestEntry entry("tst_xpath", runTest<TestXPath>);
#include "tst_xpath.moc"
