// The data-service client against a scripted data service.
#include <xrcommon/TalInterface.h>

#include "support/talpeer.h"
#include "support/testprogram.h"

#include <QtTest>

#include <functional>
#include <memory>

Q_DECLARE_METATYPE(std::function<void()>)

namespace {

struct LogLine {
    QtMsgType type;
    QString text;
};
QVector<LogLine> logLines;

void takeLogLine(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    logLines << LogLine{type, text};
}

QStringList logged(QtMsgType type)
{
    QStringList texts;
    for (const LogLine &line : logLines) {
        if (line.type == type)
            texts << line.text;
    }
    return texts;
}

QString u(const char *text)
{
    return QString::fromUtf8(text);
}

/// A client that is connected, and what it was told.
struct Client {
    explicit Client(TalPeer &peer)
        : tal(std::make_unique<TalInterface>(nullptr)),
          connected(tal.get(), &TalInterface::talLocalUnixSocketConnectedSignal),
          notified(tal.get(), &TalInterface::talNotifySignal)
    {
        const int before = peer.connections();
        [&] { QTRY_COMPARE(peer.connections(), before + 1); }();
        [&] { QTRY_COMPARE(connected.count(), 1); }();
        logLines.clear();
    }

    QStringList notification(int number) const
    {
        QStringList texts;
        for (const QVariant &text : notified.value(number))
            texts << text.toString();
        return texts;
    }
    QStringList dataTexts() const
    {
        QStringList texts;
        for (const QVariantList &notification : notified)
            texts << notification.at(4).toString();
        return texts;
    }

    std::unique_ptr<TalInterface> tal;
    QSignalSpy connected;
    QSignalSpy notified;
};

QByteArray notify(const QByteArray &data)
{
    return "<notify><ref>r</ref><op>replace</op><rpath>/a/b</rpath><spath>/a</spath><data>" + data + "</data></notify>";
}

const QByteArray nul(1, '\0');

} // namespace

class TestTalInterface : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        logLines.clear();
        m_handlerBefore = qInstallMessageHandler(takeLogLine);
    }
    void cleanup() { qInstallMessageHandler(m_handlerBefore); }

    void connectsFromTheEventLoop()
    {
        TalPeer peer;
        int signalCount = 0;
        QObject parent;
        auto *tal = new TalInterface(&parent);
        connect(tal, &TalInterface::talLocalUnixSocketConnectedSignal, tal, [&] { ++signalCount; });
        QCOMPARE(signalCount, 0);
        QTRY_COMPARE(signalCount, 1);
        QTRY_COMPARE(peer.connections(), 1);
        QCOMPARE(logged(QtWarningMsg), QStringList());
    }

    void connectsOnceTheServiceIsThere()
    {
        TalPeer peer(TalPeer::Start::NotListening);
        TalInterface tal(nullptr);
        const QSignalSpy connected(&tal, &TalInterface::talLocalUnixSocketConnectedSignal);
        QTest::qWait(300);
        QVERIFY(peer.listen());
        QTRY_COMPARE(peer.connections(), 1);
        QTRY_COMPARE(connected.count(), 1);
        QTest::qWait(1500); // it does not try on while it is connected
        QCOMPARE(peer.connections(), 1);
    }

    void reconnectsASecondAfterEachLoss()
    {
        TalPeer peer;
        Client client(peer);
        for (int loss = 1; loss <= 2; ++loss) {
            QElapsedTimer timer;
            timer.start();
            if (loss == 1) {
                peer.drop();
            } else {
                peer.shutDown();
                QVERIFY(peer.listen());
            }
            QTRY_COMPARE(peer.connections(), 1 + loss);
            QTRY_COMPARE(client.connected.count(), 1 + loss);
            QVERIFY(timer.elapsed() >= 900);
            QVERIFY(timer.elapsed() < 2500);
            peer.sendMessage(notify("<b/>"));
            QTRY_COMPARE(client.notified.count(), loss);
        }
        QCOMPARE(logged(QtWarningMsg), QStringList());
    }

    void noServiceIsToldOnce()
    {
        const TalPeer peer(TalPeer::Start::NotListening);
        const TalInterface tal(nullptr);
        QTest::qWait(2500);
        QCOMPARE(logged(QtDebugMsg).size(), 1);
        QCOMPARE(logged(QtWarningMsg), QStringList());
    }

    void pathTooLong()
    {
        qputenv("TAL_SOCKET", QByteArray(200, 'x'));
        const TalInterface tal(nullptr);
        QTRY_COMPARE(logged(QtDebugMsg).size(), 1);
        qunsetenv("TAL_SOCKET");
    }

    void halfAMessageIsForgottenWithItsConnection()
    {
        TalPeer peer;
        Client client(peer);
        peer.sendRaw("<notify><ref>half</ref>");
        QTest::qWait(50);
        peer.drop();
        QTRY_COMPARE(client.connected.count(), 2);
        QTRY_COMPARE(peer.connections(), 2);
        peer.sendMessage(notify("<b/>"));
        QTRY_COMPARE(client.notified.count(), 1);
        QCOMPARE(logged(QtWarningMsg), QStringList());
    }

    void requests_data()
    {
        using Request = std::function<void()>;
        QTest::addColumn<Request>("request");
        QTest::addColumn<QString>("expected");
        const auto row = [](const char *name, const Request &request, const char *expected) {
            QTest::newRow(name) << request << u(expected);
        };
        row(
            "subscribe",
            [] {
                TalInterface::requestDataSubscribeSingleLevel(u("kvsnmp_fan"), u("/state/fans"), u("change"), u("true"),
                                                              TALTARGET_DEFAULT);
            },
            "<request><ref>kvsnmp_fan</ref><subscribe><path>/state/fans</path><operation>change</operation>"
            "<single_level>true</single_level><target>0</target></subscribe></request>");
        row(
            "subscribe, with predicates, flag and target",
            [] {
                TalInterface::requestDataSubscribeSingleLevel(u("r"), u("/l/n[kid='ch1']/v"), u("change"), u("false"),
                                                              static_cast<TALTARGET_ENUM>(1));
            },
            "<request><ref>r</ref><subscribe><path>/l/n[kid='ch1']/v</path><operation>change</operation>"
            "<single_level>false</single_level><target>1</target></subscribe></request>");
        row(
            "texts are escaped",
            [] {
                TalInterface::requestDataSubscribeSingleLevel(u("<r>&\"'"), u("/l/n[k='<&>']"), u("]]>"), u("a\rä"),
                                                              TALTARGET_DEFAULT);
            },
            "<request><ref>&lt;r&gt;&amp;\"'</ref><subscribe><path>/l/n[k='&lt;&amp;&gt;']</path><operation>]]&gt;</"
            "operation>"
            "<single_level>a&#13;ä</single_level><target>0</target></subscribe></request>");
        for (const char *operation : {"create", "replace", "patch"}) {
            QTest::newRow(operation) << Request([operation] {
                TalInterface::requestDataEdit(u("r"), u("/a/b"), u(operation), u("<b>&lt;ä</b>"));
            })
                                     << u("<request><ref>r</ref><edit><path>/a/b</path><operation>%1</"
                                          "operation><data><b>&lt;ä</b></data></edit></request>")
                                            .arg(u(operation));
        }
        row(
            "delete", [] { TalInterface::requestDataEdit(u("r"), u("/a/b"), u("delete"), QString()); },
            "<request><ref>r</ref><edit><path>/a/b</path><operation>delete</operation></edit></request>");
        row(
            "delete, although XML is given",
            [] { TalInterface::requestDataEdit(u("r"), u("/a/b"), u("delete"), u("<b/>")); },
            "<request><ref>r</ref><edit><path>/a/b</path><operation>delete</operation></edit></request>");
        row(
            "edit, escaped", [] { TalInterface::requestDataEdit(u("&"), u("<"), u(">"), u("<b/>")); },
            "<request><ref>&amp;</ref><edit><path>&lt;</path><operation>&gt;</operation><data><b/></data></edit></"
            "request>");
        row(
            "requestData as it is", [] { TalInterface::requestData(u(" <any> & \"text\"\nä\r"), TALTARGET_DEFAULT); },
            " <any> & \"text\"\nä\r");
        row(
            "requestData, empty", [] { TalInterface::requestData(QString(), TALTARGET_DEFAULT); }, "");
    }

    void requests()
    {
        QFETCH(std::function<void()>, request);
        QFETCH(QString, expected);
        TalPeer peer;
        const Client client(peer);
        request();
        QTRY_COMPARE(peer.messages().size(), 1);
        QCOMPARE(QString::fromUtf8(peer.messages().first()), expected);
        QVERIFY(logLines.isEmpty());
    }

    void requestWithoutInstance()
    {
        TalInterface::requestDataSubscribeSingleLevel(u("r"), u("/a"), u("change"), u("true"), TALTARGET_DEFAULT);
        QCOMPARE(logged(QtDebugMsg).size(), 1);
        TalInterface::requestData(u("<x/>"), TALTARGET_DEFAULT);
        QCOMPARE(logged(QtDebugMsg).size(), 2);
        TalInterface::requestDataEdit(u("r"), u("/a"), u("create"), u("<a/>"));
        QCOMPARE(logged(QtDebugMsg).size(), 3);
        QCOMPARE(logLines.size(), 3);
    }

    void requestWhileNotConnected()
    {
        TalPeer peer;
        TalInterface tal(nullptr);
        const QSignalSpy connected(&tal, &TalInterface::talLocalUnixSocketConnectedSignal);
        TalInterface::requestData(u("too early"), TALTARGET_DEFAULT);
        QCOMPARE(logged(QtDebugMsg).size(), 1);
        QCOMPARE(logLines.size(), 1);
        QTRY_COMPARE(connected.count(), 1);
        TalInterface::requestData(u("in time"), TALTARGET_DEFAULT);
        QTRY_COMPARE(peer.messages(), QByteArrayList({"in time"})); // what was dropped is not sent later
        peer.shutDown();
        QTRY_VERIFY(logged(QtDebugMsg).size() == 2); // the loss
        TalInterface::requestData(u("too late"), TALTARGET_DEFAULT);
        QCOMPARE(logged(QtDebugMsg).size(), 3);
        QCOMPARE(logged(QtWarningMsg), QStringList());
    }

    void requestAfterTheInstanceIsGone()
    {
        TalPeer peer;
        {
            const Client client(peer);
        }
        TalInterface::requestData(u("<x/>"), TALTARGET_DEFAULT);
        QCOMPARE(logged(QtDebugMsg).size(), 1);
        QTRY_VERIFY(!peer.isConnected());
        QCOMPARE(peer.messages(), QByteArrayList());
    }

    void requestThatCannotBeFramed_data()
    {
        QTest::addColumn<QString>("xml");
        QTest::newRow("NUL") << u("<a>") + QChar(QChar::Null) + u("</a>");
        QTest::newRow("over-long") << QString(static_cast<int>(maxMessageSize) + 1, QLatin1Char('x'));
    }

    void requestThatCannotBeFramed()
    {
        QFETCH(QString, xml);
        TalPeer peer;
        const Client client(peer);
        TalInterface::requestData(xml, TALTARGET_DEFAULT);
        TalInterface::requestData(u("next"), TALTARGET_DEFAULT);
        QTRY_COMPARE(peer.messages(), QByteArrayList({"next"}));
        QCOMPARE(logged(QtWarningMsg).size(), 1);
    }

    void slowServiceGetsEveryRequest()
    {
        TalPeer peer;
        const Client client(peer);
        peer.readNothing();
        QElapsedTimer timer;
        timer.start();
        for (int i = 0; i < 400; ++i)
            TalInterface::requestData(QString::number(i) + QString(10000, QLatin1Char('x')), TALTARGET_DEFAULT);
        QVERIFY(timer.elapsed() < 2000); // nothing waits for the service
        QTest::qWait(100);
        peer.readAgain();
        QTRY_COMPARE(peer.messages().size(), 400);
        for (int i = 0; i < 400; ++i)
            QVERIFY(peer.messages().at(i).startsWith(QByteArray::number(i) + 'x'));
        QCOMPARE(peer.connections(), 1);
    }

    void serviceThatTakesNothingIsGivenUp()
    {
        TalPeer peer;
        Client client(peer);
        peer.readNothing();
        int sent = 0;
        for (; sent < 1000 && logLines.isEmpty(); ++sent)
            TalInterface::requestData(QString(100000, QLatin1Char('x')), TALTARGET_DEFAULT);
        QVERIFY(sent > 80);
        QVERIFY(sent < 150);
        peer.readAgain();
        QTRY_COMPARE(client.connected.count(), 2);
        QTRY_COMPARE(peer.connections(), 2);
        peer.takeMessages();
        TalInterface::requestData(u("anew"), TALTARGET_DEFAULT);
        QTRY_COMPARE(peer.messages(), QByteArrayList({"anew"})); // and nothing of what was left over
    }

    void notification()
    {
        TalPeer peer;
        const Client client(peer);
        peer.sendNotify(u("kvsnmp_fan"), u("replace"), u("/state/fans/fan[kid='<&>ä']"), u("/state/fans"),
                        u("<fan><kid>&lt;&amp;></kid></fan>"));
        QTRY_COMPARE(client.notified.count(), 1);
        QCOMPARE(client.notification(0), QStringList({u("kvsnmp_fan"), u("replace"), u("/state/fans/fan[kid='<&>ä']"),
                                                      u("/state/fans"), u("<fan><kid>&lt;&amp;></kid></fan>")}));
        QVERIFY(logLines.isEmpty());
    }

    void chunking_data()
    {
        QTest::addColumn<int>("chunk");
        QTest::newRow("several messages in one read") << 100000;
        QTest::newRow("one message in many reads") << 7;
        QTest::newRow("byte by byte, through characters of many bytes") << 1;
    }

    void chunking()
    {
        QFETCH(int, chunk);
        TalPeer peer;
        const Client client(peer);
        QStringList expected;
        QByteArray bytes;
        for (int i = 0; i < 5; ++i) {
            expected << u("<b>ä€😀%1</b>").arg(i);
            bytes += notify(expected.last().toUtf8()) + nul;
        }
        for (int at = 0; at < bytes.size(); at += chunk) {
            peer.sendRaw(bytes.mid(at, chunk));
            QCoreApplication::processEvents(); // lets the client read what is there
        }
        QTRY_COMPARE(client.notified.count(), 5);
        QCOMPARE(client.dataTexts(), expected);
        QVERIFY(logLines.isEmpty());
    }

    void data_data()
    {
        QTest::addColumn<QString>("element"); // with its tags, as sent
        QTest::addColumn<QString>("expected");
        const auto row = [](const char *name, const char *element, const char *expected) {
            QTest::newRow(name) << u(element) << u(expected);
        };
        row("one element", "<data><b>1</b></data>", "<b>1</b>");
        row("absent", "", "");
        row("empty", "<data></data>", "");
        row("empty tag", "<data/>", "");
        row("empty tag with an attribute", "<data a=\"/>\"/>", "");
        row("empty tag after an element that ends alike", "<x></x><data />", "");
        row("attribute", "<data a='>'><b/></data>", "<b/>");
        row("blanks in the tags", "<data \n><b/></data \n>", "<b/>");
        row("white space only", "<data> \t</data>", " \t");
        row("white space only in a leaf", "<data><b> \n </b></data>", "<b> \n </b>");
        row("carriage returns", "<data>\r\n<b>\r</b>\r\n</data>", "\r\n<b>\r</b>\r\n");
        row("entities stay", "<data><b>&lt;&amp;&#65;&#x1F600;</b></data>", "<b>&lt;&amp;&#65;&#x1F600;</b>");
        row("CDATA with the end tag", "<data><b><![CDATA[</data>]]></b></data>", "<b><![CDATA[</data>]]></b>");
        row("CDATA last", "<data><![CDATA[</]]></data>", "<![CDATA[</]]>");
        row("comment with the end tag", "<data><b/><!-- </data> --></data>", "<b/><!-- </data> -->");
        row("processing instruction", "<data><b/><?x </data>?></data>", "<b/><?x </data>?>");
        row("data within data", "<data><data><data/></data></data>", "<data><data/></data>");
        row("names of the other children within", "<data><notify><ref>x</ref><op/></notify></data>",
            "<notify><ref>x</ref><op/></notify>");
        row("quotes of both kinds", "<data><b a='\"' c=\"'\"/></data>", "<b a='\"' c=\"'\"/>");
        row("beyond the first plane, before and in it", "<x>😀😀</x><data><b>😀ä</b></data>", "<b>😀ä</b>");
        row("several elements", "<data><b/><c/></data>", "<b/><c/>");
        row("text", "<data>text</data>", "text");
        row("undeclared prefix", "<data><p:b/></data>", "<p:b/>");
        QTest::newRow("beyond one read") << u("<data><b>%1</b></data>").arg(u("x\r\n&amp;ä").repeated(50000))
                                         << u("<b>%1</b>").arg(u("x\r\n&amp;ä").repeated(50000));
    }

    void data()
    {
        QFETCH(QString, element);
        QFETCH(QString, expected);
        TalPeer peer;
        const Client client(peer);
        const QByteArray head = "<notify><ref>r</ref><op>create</op><rpath>/a/b</rpath><spath>/a</spath>";
        peer.sendMessage(head + element.toUtf8() + "</notify>");
        QTRY_COMPARE(client.notified.count(), 1);
        QCOMPARE(client.notification(0), QStringList({u("r"), u("create"), u("/a/b"), u("/a"), expected}));
        QVERIFY(logLines.isEmpty());
    }

    void tolerated_data()
    {
        QTest::addColumn<QString>("message");
        QTest::addColumn<QString>("expected"); // the five texts, joined by |
        // clang-format off
        const struct { const char *name; const char *message; const char *expected; } rows[] = {
            {"no paths",          "<notify><ref>r</ref><op>o</op></notify>", "r|o|||"},
            {"empty texts",       "<notify><ref/><op></op><rpath/><spath/><data/></notify>", "||||"},
            {"other order",       "<notify><data><b/></data><spath>s</spath><rpath>p</rpath><op>o</op><ref>r</ref></notify>", "r|o|p|s|<b/>"},
            {"unknown children",  "<notify a='b'><x><ref>n</ref></x>text<ref>r</ref><op>o</op><y/></notify>", "r|o|||"},
            {"declaration",       "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<notify><ref>ä</ref><op>o</op></notify>\n", "ä|o|||"},
            {"declaration of another encoding: it is UTF-8",
             "<?xml version=\"1.0\" encoding=\"ISO-8859-1\"?><notify><ref>ä</ref><op>o</op><data><b>ä</b></data></notify>", "ä|o|||<b>ä</b>"},
            {"byte order mark",   "\xef\xbb\xbf<notify><ref>r</ref><op>o</op><data><b/></data></notify>", "r|o|||<b/>"},
            {"entities, CDATA and a comment in a text",
             "<notify><ref>&#65;<![CDATA[<B>]]><!-- no -->C</ref><op> o </op></notify>", "A<B>C| o |||"},
            {"unknown operation", "<notify><ref>r</ref><op>explode</op></notify>", "r|explode|||"},
        };
        // clang-format on
        for (const auto &row : rows)
            QTest::newRow(row.name) << u(row.message) << u(row.expected);
    }

    void tolerated()
    {
        QFETCH(QString, message);
        QFETCH(QString, expected);
        TalPeer peer;
        const Client client(peer);
        peer.sendMessage(message.toUtf8());
        QTRY_COMPARE(client.notified.count(), 1);
        QCOMPARE(client.notification(0).join(QLatin1Char('|')), expected);
        QVERIFY(logLines.isEmpty());
    }

    void dropped_data()
    {
        QTest::addColumn<QByteArray>("message");
        const QByteArray good = "<ref>r</ref><op>o</op>";
        QTest::newRow("empty") << QByteArray();
        QTest::newRow("white space") << QByteArray(" \n");
        QTest::newRow("no XML") << QByteArray("GET / HTTP/1.0\r\n\r\n");
        QTest::newRow("not closed") << "<notify>" + good;
        QTest::newRow("crossed") << notify("<a><b></a></b>");
        QTest::newRow("text after the root") << notify("<b/>") + "x";
        QTest::newRow("two roots") << notify("<b/>") + notify("<b/>");
        QTest::newRow("end tag of data too early") << notify("</data>");
        QTest::newRow("bare ampersand") << notify("<b>a & b</b>");
        QTest::newRow("undeclared entity") << notify("<b>&nbsp;</b>");
        QTest::newRow("reference to NUL") << notify("<b>&#0;</b>");
        QTest::newRow("control character") << notify("<b>\x01</b>");
        QTest::newRow("attribute twice") << notify("<b a='1' a='2'/>");
        QTest::newRow("end of CDATA in text") << notify("<b>]]></b>");
        QTest::newRow("invalid UTF-8") << notify("<b>\xff</b>");
        QTest::newRow("UTF-8 cut off") << notify("<b>\xe2\x82</b>");
        QTest::newRow("UTF-8 cut off at the end") << notify("<b/>") + "\xe2\x82";
        QTest::newRow("overlong UTF-8") << notify("<b>\xc0\xbc</b>");
        QTest::newRow("surrogate in UTF-8") << notify("<b>\xed\xa0\x80</b>");
        QTest::newRow("beyond Unicode") << notify("<b>\xf4\x90\x80\x80</b>");
        QTest::newRow("Latin-1, declared") << "<?xml version='1.0' encoding='ISO-8859-1'?>" + notify("<b>\xe4</b>");
        QTest::newRow("document type") << "<!DOCTYPE notify>" + notify("<b/>");
        QTest::newRow("declared entity") << "<!DOCTYPE n [<!ENTITY e 'x'>]>" + notify("<b>&e;</b>");
        QTest::newRow("external entity") << "<!DOCTYPE n [<!ENTITY e SYSTEM 'file:///etc/passwd'>]>" +
                                                notify("<b>&e;</b>");
        QTest::newRow("other root") << "<reply>" + good + "</reply>";
        QTest::newRow("other case") << "<Notify>" + good + "</Notify>";
        QTest::newRow("no ref") << QByteArray("<notify><op>o</op></notify>");
        QTest::newRow("no op") << QByteArray("<notify><ref>r</ref></notify>");
        QTest::newRow("no children") << QByteArray("<notify/>");
        QTest::newRow("ref twice") << "<notify>" + good + "<ref>r</ref></notify>";
        QTest::newRow("data twice") << "<notify>" + good + "<data/><data><b/></data></notify>";
        QTest::newRow("element inside ref") << QByteArray("<notify><ref>r<x/></ref><op>o</op></notify>");
    }

    void dropped()
    {
        QFETCH(QByteArray, message);
        TalPeer peer;
        const Client client(peer);
        peer.sendRaw(notify("<before/>") + nul + message + nul + notify("<after/>") + nul);
        QTRY_COMPARE(client.notified.count(), 2);
        QCOMPARE(client.dataTexts(), QStringList({u("<before/>"), u("<after/>")}));
        QCOMPARE(logged(QtWarningMsg).size(), 1);
        QCOMPARE(logLines.size(), 1);
        QCOMPARE(peer.connections(), 1);
    }

    void greatestMessage()
    {
        TalPeer peer;
        const Client client(peer);
        const QByteArray data =
            "<b>" + QByteArray(static_cast<int>(maxMessageSize) - notify("<b></b>").size(), 'x') + "</b>";
        QCOMPARE(notify(data).size(), static_cast<int>(maxMessageSize));
        peer.sendMessage(notify(data));
        QTRY_COMPARE_WITH_TIMEOUT(client.notified.count(), 1, 20000);
        QVERIFY(client.notification(0).value(4) == QString::fromUtf8(data));
        QVERIFY(logLines.isEmpty());
    }

    void overLong_data()
    {
        QTest::addColumn<bool>("ended");
        QTest::newRow("with its NUL, and messages after it") << true;
        QTest::newRow("without a NUL") << false;
    }

    void overLong()
    {
        QFETCH(bool, ended);
        TalPeer peer;
        Client client(peer);
        peer.sendMessage(notify("<before/>"));
        peer.sendRaw(QByteArray(static_cast<int>(maxMessageSize) + 1, 'x'));
        if (ended)
            peer.sendRaw(nul + notify("<lost/>") + nul);
        QTRY_COMPARE_WITH_TIMEOUT(client.connected.count(), 2, 20000);
        QTRY_COMPARE(peer.connections(), 2);
        peer.sendMessage(notify("<anew/>"));
        QTRY_COMPARE(client.notified.count(), 2);
        QCOMPARE(client.dataTexts(), QStringList({u("<before/>"), u("<anew/>")}));
        QCOMPARE(logged(QtWarningMsg).size(), 1);
    }

    void deepNesting()
    {
        TalPeer peer;
        const Client client(peer);
        const int levels = 500000;
        peer.sendMessage(notify(QByteArray("<a>").repeated(levels) + QByteArray("</a>").repeated(levels)));
        peer.sendMessage(notify(QByteArray("<a>").repeated(levels)));
        QTRY_COMPARE_WITH_TIMEOUT(client.notified.count() + logged(QtWarningMsg).size(), 2, 20000);
        QCOMPARE(client.notified.count(), 1);
    }

    void dataIsFoundByXPath()
    {
        TalPeer peer;
        const Client client(peer);
        QStringList found;
        connect(client.tal.get(), &TalInterface::talNotifySignal, client.tal.get(),
                [&found](const QString &, const QString &, const QString &rPath, const QString &sPath,
                         const QString &data) {
                    QString out = u("-");
                    TalInterface::xpathGetTextNode(out, u("/a/b"), sPath, rPath, data);
                    found << out;
                });
        for (const char *data :
             {"<b>1</b>", "<b> </b>", "", "<b>1</b><b>2</b>", "text", "<b>2</b>", "<b/>x", "<!-- c --><b>3</b>"})
            peer.sendMessage(notify(data));
        QTRY_COMPARE(found.size(), 8);
        QCOMPARE(found, QStringList({u("1"), u(" "), u(""), u("-"), u("-"), u("2"), u("-"), u("3")}));
    }

    void aFloodLeavesTheEventLoopItsTurns()
    {
        TalPeer peer;
        const Client client(peer);
        const QByteArray single = notify("<voltage>3.300</voltage>") + nul;
        QTimer everyTurn;
        int before = 0;
        int mostInATurn = 0;
        connect(&everyTurn, &QTimer::timeout, this, [&] {
            mostInATurn = qMax(mostInATurn, client.notified.count() - before);
            before = client.notified.count();
        });
        everyTurn.start(0);
        peer.sendRaw(single.repeated(5000));
        QTRY_COMPARE_WITH_TIMEOUT(client.notified.count(), 5000, 30000);
        QVERIFY(mostInATurn > 0);
        QVERIFY2(mostInATurn <= 4096 / single.size() + 1, qPrintable(QString::number(mostInATurn)));
    }

    void slotDeletesTheClient()
    {
        TalPeer peer;
        Client client(peer);
        int count = 0;
        connect(client.tal.get(), &TalInterface::talNotifySignal, this, [&] {
            ++count;
            client.tal.reset();
        });
        peer.sendRaw(notify("<b/>") + nul + notify("<b/>") + nul);
        QTRY_COMPARE(count, 1);
        QTRY_VERIFY(!peer.isConnected());
        QCOMPARE(count, 1);
    }

    void connectedSlotDeletesTheClient()
    {
        TalPeer peer;
        auto tal = std::make_unique<TalInterface>(nullptr);
        connect(tal.get(), &TalInterface::talLocalUnixSocketConnectedSignal, this, [&tal] { tal.reset(); });
        QTRY_VERIFY(!tal);
        QTRY_COMPARE(peer.connections(), 1);
        QTRY_VERIFY(!peer.isConnected());
    }

    void slotRunsAnEventLoop()
    {
        TalPeer peer;
        const Client client(peer);
        bool isFirst = true;
        connect(client.tal.get(), &TalInterface::talNotifySignal, this, [&] {
            if (!std::exchange(isFirst, false))
                return;
            peer.sendMessage(notify("<b>3</b>"));
            QTRY_COMPARE(client.notified.count(), 3);
        });
        peer.sendRaw(notify("<b>1</b>") + nul + notify("<b>2</b>") + nul);
        QTRY_COMPARE(client.notified.count(), 3);
        QCOMPARE(client.dataTexts(), QStringList({u("<b>1</b>"), u("<b>2</b>"), u("<b>3</b>")}));
    }

    void nothingOfAConnectionLostWithinASlot()
    {
        TalPeer peer;
        Client client(peer);
        peer.readNothing();
        connect(client.tal.get(), &TalInterface::talNotifySignal, this, [] {
            for (int i = 0; i < 100; ++i) // more than is kept for a service that takes nothing
                TalInterface::requestData(QString(100000, QLatin1Char('x')), TALTARGET_DEFAULT);
        });
        peer.sendRaw(notify("<b>1</b>") + nul + notify("<b>2</b>") + nul);
        QTRY_COMPARE(client.connected.count(), 2);
        QCOMPARE(client.dataTexts(), QStringList({u("<b>1</b>")}));
    }

    void slotAsksOnConnect()
    {
        TalPeer peer;
        TalInterface tal(nullptr);
        connect(&tal, &TalInterface::talLocalUnixSocketConnectedSignal, this,
                [] { TalInterface::requestData(u("subscribe"), TALTARGET_DEFAULT); });
        QTRY_COMPARE(peer.messages(), QByteArrayList({"subscribe"}));
        peer.drop();
        QTRY_COMPARE(peer.messages(), QByteArrayList({"subscribe", "subscribe"}));
        QCOMPARE(logged(QtWarningMsg), QStringList());
    }

    void theNewestInstanceIsUsed()
    {
        TalPeer peer;
        const Client older(peer);
        const Client newer(peer);
        TalInterface::requestData(u("<x/>"), TALTARGET_DEFAULT);
        QTRY_COMPARE(peer.messages(), QByteArrayList({"<x/>"}));
    }

    // last: it stays on
    void debugPrint()
    {
        TalPeer peer;
        const Client client(peer);
        TalInterface::debugPrintEnable();
        TalInterface::requestData(u("<question/>"), TALTARGET_DEFAULT);
        peer.sendMessage(notify("<b>ä</b>"));
        QTRY_COMPARE(client.notified.count(), 1);
        QCOMPARE(logged(QtDebugMsg).filter(u("<question/>")).size(), 1);
        QCOMPARE(logged(QtDebugMsg).filter(u("<data><b>ä</b></data>")).size(), 1);
    }

private:
    QtMessageHandler m_handlerBefore = nullptr;
};

const TestEntry entry("tst_talinterface", runTest<TestTalInterface>);
#include "tst_talinterface.moc"
