// The data-service client against a scripted data service.
#include <xrcommon/TalInterface.h>

#include "support/talpeer.h"
#include "support/testprogram.h"

#include <memory>

namespace {

QStringList debugLines;
QStringList warnings;
QtMessageHandler handlerBefore = nullptr;

void takeLogLine(QtMsgType type, const QMessageLogContext &context, const QString &text)
{
    (type == QtDebugMsg ? debugLines : warnings) << text;
    if (QTest::currentTestFailed())
        handlerBefore(type, context, text);
}

void clearLog()
{
    debugLines.clear();
    warnings.clear();
}

void subscribe(const char *ref, const char *path, const char *operation, const char *flag, int target = 0)
{
    TalInterface::requestDataSubscribeSingleLevel(qs(ref), qs(path), qs(operation), qs(flag),
                                                  static_cast<TALTARGET_ENUM>(target));
}

void edit(const char *ref, const char *path, const char *operation, const char *xml)
{
    TalInterface::requestDataEdit(qs(ref), qs(path), qs(operation), qs(xml));
}

void request(const QString &xml)
{
    TalInterface::requestData(xml, TALTARGET_DEFAULT);
}

struct Bench {
    TalPeer peer;
    std::unique_ptr<TalInterface> tal = std::make_unique<TalInterface>(nullptr);
    QSignalSpy connected{tal.get(), &TalInterface::talLocalUnixSocketConnectedSignal};
    QSignalSpy notified{tal.get(), &TalInterface::talNotifySignal};

    Bench()
    {
        if (!QTest::qWaitFor([this] { return peer.connections() == 1 && connected.count() == 1; }))
            qFatal("no connection");
        clearLog();
    }

    QString sent()
    {
        static_cast<void>(QTest::qWaitFor([this] { return !peer.messages().isEmpty(); }));
        return QString::fromUtf8(peer.takeMessages().join('|'));
    }

    /// The five texts of the notification that follows a message, joined by |.
    QString received(const QByteArray &message)
    {
        peer.sendMessage(message);
        [this] { QTRY_COMPARE(notified.count(), 1); }();
        return QVariant(notified.takeFirst()).toStringList().join(QLatin1Char('|'));
    }

    QStringList dataTexts() const
    {
        QStringList texts;
        for (const QVariantList &notification : notified)
            texts << notification.at(4).toString();
        return texts;
    }
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
        clearLog();
        handlerBefore = qInstallMessageHandler(takeLogLine);
    }
    void cleanup() { qInstallMessageHandler(handlerBefore); }

    void connectsWhenTheServiceStarts()
    {
        TalPeer peer(TalPeer::Start::NotListening);
        const TalInterface tal(nullptr);
        const QSignalSpy connected(&tal, &TalInterface::talLocalUnixSocketConnectedSignal);
        QTest::qWait(2500);
        QCOMPARE(debugLines.size(), 1); // one line for all failures
        QCOMPARE(warnings, QStringList());
        QVERIFY(peer.listen());
        QTRY_COMPARE(peer.connections(), 1);
        QTRY_COMPARE(connected.count(), 1);
        QTest::qWait(1500); // it does not try again while it is connected
        QCOMPARE(peer.connections(), 1);

        clearLog();
        qputenv("TAL_SOCKET", QByteArray(200, 'x')); // longer than an address
        const TalInterface unconnected(nullptr);
        QTRY_COMPARE(debugLines.size(), 1);
    }

    void reconnectsASecondAfterEachLoss()
    {
        Bench b;
        connect(b.tal.get(), &TalInterface::talLocalUnixSocketConnectedSignal, this, [] { request(qs("subscribe")); });
        for (int loss = 1; loss <= 2; ++loss) {
            b.peer.sendRaw("<notify><ref>half</ref>"); // discarded with its connection
            QTest::qWait(50);
            QElapsedTimer timer;
            timer.start();
            if (loss == 1)
                b.peer.drop();
            else
                b.peer.shutDown();
            QVERIFY(loss == 1 || b.peer.listen());
            QTRY_COMPARE(b.peer.connections(), 1 + loss);
            QTRY_COMPARE(b.connected.count(), 1 + loss);
            QVERIFY(timer.elapsed() >= 900);
            QVERIFY(timer.elapsed() < 2500);
            QCOMPARE(b.sent(), qs("subscribe"));
            b.peer.sendMessage(notify("<b/>"));
            QTRY_COMPARE(b.notified.count(), loss);
        }
        QCOMPARE(warnings, QStringList());
    }

    void requests()
    {
        Bench b;
        const auto expectSent = [&](const QString &ref, const QString &content) {
            QCOMPARE(b.sent(), qs("<request><ref>%1</ref>%2</request>").arg(ref, content));
        };
        subscribe("r", "/l/n[kid='ch1']/v", "change", "true");
        expectSent(qs("r"), qs("<subscribe><path>/l/n[kid='ch1']/v</path><operation>change</operation>"
                               "<single_level>true</single_level><target>0</target></subscribe>"));
        subscribe("<r>&\"'", "/l/n[k='<&>']", "]]>", "a\rä", 1);
        expectSent(qs("&lt;r&gt;&amp;\"'"),
                   qs("<subscribe><path>/l/n[k='&lt;&amp;&gt;']</path><operation>]]&gt;</operation>"
                      "<single_level>a&#13;ä</single_level><target>1</target></subscribe>"));
        for (const char *operation : {"create", "replace", "patch"}) {
            edit("r", "/a/b", operation, "<b>&lt;ä</b>");
            expectSent(qs("r"), qs("<edit><path>/a/b</path><operation>%1</operation><data><b>&lt;ä</b></data></edit>")
                                    .arg(qs(operation)));
        }
        for (const char *xml : {"", "<b/>"}) {
            edit("r", "/a/b", "delete", xml);
            expectSent(qs("r"), qs("<edit><path>/a/b</path><operation>delete</operation></edit>"));
        }
        edit("&", "<", ">", "<b/>");
        expectSent(qs("&amp;"), qs("<edit><path>&lt;</path><operation>&gt;</operation><data><b/></data></edit>"));
        for (const char *text : {" <any> & \"text\"\nä\r", ""}) {
            request(qs(text));
            QTRY_COMPARE(b.peer.messages(), QByteArrayList{text});
            b.peer.takeMessages();
        }
        QCOMPARE(debugLines + warnings, QStringList());
    }

    void requestsUseTheNewestInstance()
    {
        Bench b;
        b.tal = std::make_unique<TalInterface>(nullptr); // the older one ends after this one starts
        QTRY_COMPARE(b.peer.connections(), 2);
        request(qs("<x/>"));
        QCOMPARE(b.sent(), qs("<x/>"));
        clearLog();
        b.tal.reset();
        subscribe("r", "/a", "change", "true");
        request(qs("<x/>"));
        edit("r", "/a", "create", "<a/>");
        QCOMPARE(debugLines.size(), 3);
        QCOMPARE(warnings, QStringList());
        QTRY_VERIFY(!b.peer.isConnected());
        QCOMPARE(b.peer.messages(), QByteArrayList());
    }

    void requestWhileNotConnected()
    {
        TalPeer peer;
        const TalInterface tal(nullptr);
        const QSignalSpy connected(&tal, &TalInterface::talLocalUnixSocketConnectedSignal);
        request(qs("too early"));
        QCOMPARE(debugLines.size(), 1);
        QTRY_COMPARE(connected.count(), 1);
        request(qs("in time"));
        QTRY_COMPARE(peer.messages(), QByteArrayList({"in time"})); // the dropped one is not sent later
        peer.shutDown();
        QTRY_COMPARE(debugLines.size(), 2); // the loss
        request(qs("too late"));
        QCOMPARE(debugLines.size(), 3);
        QCOMPARE(warnings, QStringList());
    }

    void requestThatCannotBeFramed()
    {
        Bench b;
        request(qs("<a>") + QChar(QChar::Null) + qs("</a>"));
        QCOMPARE(warnings.size(), 1);
        request(QString(static_cast<int>(maxMessageSize) + 1, QLatin1Char('x')));
        QCOMPARE(warnings.size(), 2);
        request(qs("next"));
        QCOMPARE(b.sent(), qs("next"));
    }

    void slowService()
    {
        Bench b;
        b.peer.readNothing();
        QElapsedTimer timer;
        timer.start();
        for (int i = 0; i < 400; ++i)
            request(QString::number(i) + QString(10000, QLatin1Char('x')));
        QVERIFY(timer.elapsed() < 2000); // nothing waits for the service
        QTest::qWait(100);
        b.peer.readAgain();
        QTRY_COMPARE(b.peer.messages().size(), 400);
        for (int i = 0; i < 400; ++i)
            QVERIFY(b.peer.messages().at(i).startsWith(QByteArray::number(i) + 'x'));
        QCOMPARE(b.peer.connections(), 1);

        b.peer.readNothing(); // with 8 MB unread the client opens the connection anew
        int sent = 0;
        for (; sent < 1000 && (debugLines + warnings).isEmpty(); ++sent)
            request(QString(100000, QLatin1Char('x')));
        QVERIFY(sent > 80);
        QVERIFY(sent < 150);
        b.peer.readAgain();
        QTRY_COMPARE(b.connected.count(), 2);
        QTRY_COMPARE(b.peer.connections(), 2);
        b.peer.takeMessages();
        request(qs("anew"));
        QCOMPARE(b.sent(), qs("anew")); // and nothing of the rest
    }

    void notifications()
    {
        // clang-format off
        static const QByteArray exact[] = {
            "<b>1</b>", "", " \t", "<b> \n </b>", "\r\n<b>\r</b>\r\n", "<b>&lt;&amp;&#65;&#x1F600;</b>", "text",
            "<b/><c/>", "<p:b/>", "<b a='\"' c=\"'\"/>", "<data><data/></data>", "<notify><ref>x</ref><op/></notify>",
            "<b><![CDATA[</data>]]></b>", "<![CDATA[</]]>", "<b/><!-- </data> -->", "<b/><?x </data>?>",
            "<b>" + QByteArray("x\r\n&amp;ä").repeated(50000) + "</b>", // many reads, also through characters
        };
        static constexpr struct { const char *message, *texts; } tolerated[] = {
            {"<notify><ref>r</ref><op>o</op></notify>", "r|o|||"},
            {"<notify><ref>r</ref><op>o</op><data a=\"/>\"/></notify>", "r|o|||"},
            {"<notify><ref>r</ref><op>o</op><x></x><data /></notify>", "r|o|||"},
            {"<notify><ref>r</ref><op>o</op><data a='>'><b/></data></notify>", "r|o|||<b/>"},
            {"<notify><ref>r</ref><op>o</op><data \n><b/></data \n></notify>", "r|o|||<b/>"},
            {"<notify><ref>r</ref><op>o</op><x>😀😀</x><data><b>😀ä</b></data></notify>", "r|o|||<b>😀ä</b>"},
            {"<notify><ref/><op></op><rpath/><spath/><data/></notify>", "||||"},
            {"<notify><data><b/></data><spath>s</spath><rpath>p</rpath><op>o</op><ref>r</ref></notify>",
             "r|o|p|s|<b/>"},
            {"<notify a='b'><x><ref>n</ref></x>text<ref>r</ref><op>o</op><y/></notify>", "r|o|||"},
            {"<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n<notify><ref>ä</ref><op>o</op></notify>\n", "ä|o|||"},
            {"<?xml version='1.0' encoding='ISO-8859-1'?><notify><ref>ä</ref><op>o</op><data><b>ä</b></data></notify>",
             "ä|o|||<b>ä</b>"}, // still UTF-8
            {"\xef\xbb\xbf<notify><ref>r</ref><op>o</op><data><b/></data></notify>", "r|o|||<b/>"},
            {"<notify><ref>&#65;<![CDATA[<B>]]><!-- no -->C</ref><op> o </op></notify>", "A<B>C| o |||"},
            {"<notify><ref>r</ref><op>o</op><rpath>/f[k='&lt;&amp;&gt;ä']</rpath><spath>&lt;</spath></notify>",
             "r|o|/f[k='<&>ä']|<|"},
            {"<notify><ref>r</ref><op>explode</op></notify>", "r|explode|||"},
        };
        // clang-format on
        Bench b;
        for (const QByteArray &data : exact)
            QCOMPARE(b.received(notify(data)), qs("r|replace|/a/b|/a|") + QString::fromUtf8(data));
        for (const auto &[message, texts] : tolerated) {
            const AtRow at(message);
            QCOMPARE(b.received(message), qs(texts));
        }
        QCOMPARE(debugLines + warnings, QStringList());
    }

    void malformedMessageIsDropped()
    {
        const QByteArray good = "<ref>r</ref><op>o</op>";
        // clang-format off
        const QByteArray messages[] = {
            "", " \n", "GET / HTTP/1.0\r\n\r\n", "<notify>" + good, notify("<a><b></a></b>"), notify("</data>"),
            notify("<b/>") + "x", notify("<b/>") + notify("<b/>"), // text after the root, two roots
            notify("<b>a & b</b>"), notify("<b>&nbsp;</b>"), notify("<b>&#0;</b>"), notify("<b>\x01</b>"),
            notify("<b a='1' a='2'/>"), notify("<b>]]></b>"),
            // not UTF-8: invalid, cut off, overlong, a surrogate, beyond Unicode, Latin-1
            notify("<b>\xff</b>"), notify("<b>\xe2\x82</b>"), notify("<b/>") + "\xe2\x82", notify("<b>\xc0\xbc</b>"),
            notify("<b>\xed\xa0\x80</b>"), notify("<b>\xf4\x90\x80\x80</b>"),
            "<?xml version='1.0' encoding='ISO-8859-1'?>" + notify("<b>\xe4</b>"),
            "<!DOCTYPE notify>" + notify("<b/>"), "<!DOCTYPE n [<!ENTITY e 'x'>]>" + notify("<b>&e;</b>"),
            "<!DOCTYPE n [<!ENTITY e SYSTEM 'file:///etc/passwd'>]>" + notify("<b>&e;</b>"),
            "<reply>" + good + "</reply>", "<Notify>" + good + "</Notify>", "<notify/>",
            "<notify><op>o</op></notify>", "<notify><ref>r</ref></notify>",
            "<notify><ref>r<x/></ref><op>o</op></notify>",
            "<notify>" + good + "<ref>r</ref></notify>", "<notify>" + good + "<data/><data><b/></data></notify>",
        };
        // clang-format on
        Bench b;
        for (const QByteArray &message : messages) {
            const AtRow at(message);
            b.peer.sendRaw(notify("<before/>") + nul + message + nul + notify("<after/>") + nul);
            QTRY_COMPARE(b.notified.count(), 2);
            QCOMPARE(b.dataTexts(), QStringList({qs("<before/>"), qs("<after/>")}));
            QCOMPARE(warnings.size(), 1);
            QCOMPARE(debugLines, QStringList());
            b.notified.clear();
            clearLog();
        }
        QCOMPARE(b.peer.connections(), 1);
    }

    void overLongMessageReopensTheConnection()
    {
        for (const QByteArray &end : {nul + notify("<lost/>") + nul, QByteArray()}) {
            Bench b;
            b.peer.sendMessage(notify("<before/>"));
            b.peer.sendRaw(QByteArray(static_cast<int>(maxMessageSize) + 1, 'x') + end);
            QTRY_COMPARE_WITH_TIMEOUT(b.connected.count(), 2, 20000);
            QTRY_COMPARE(b.peer.connections(), 2);
            b.peer.sendMessage(notify("<anew/>"));
            QTRY_COMPARE(b.notified.count(), 2);
            QCOMPARE(b.dataTexts(), QStringList({qs("<before/>"), qs("<anew/>")}));
            QCOMPARE(warnings.size(), 1);
        }
    }

    void greatMessages()
    {
        Bench b;
        const QByteArray data(static_cast<int>(maxMessageSize) - notify("").size(), 'x');
        b.peer.sendMessage(notify(data)); // as long as a message may be
        QTRY_COMPARE_WITH_TIMEOUT(b.notified.count(), 1, 20000);
        QVERIFY(b.dataTexts().first() == QString::fromUtf8(data));
        QCOMPARE(debugLines + warnings, QStringList());

        const int levels = 500000;
        b.peer.sendMessage(notify(QByteArray("<a>").repeated(levels) + QByteArray("</a>").repeated(levels)));
        b.peer.sendMessage(notify(QByteArray("<a>").repeated(levels)));
        QTRY_COMPARE_WITH_TIMEOUT(b.notified.count() + warnings.size(), 3, 20000);
        QCOMPARE(b.notified.count(), 2);
    }

    void dataIsFoundByXPath()
    {
        Bench b;
        QStringList found;
        connect(b.tal.get(), &TalInterface::talNotifySignal, this,
                [&found](const QString &, const QString &, const QString &rPath, const QString &sPath,
                         const QString &data) {
                    QString out = qs("-");
                    TalInterface::xpathGetTextNode(out, qs("/a/b"), sPath, rPath, data);
                    found << out;
                });
        for (const char *data :
             {"<b>1</b>", "<b> </b>", "", "<b>1</b><b>2</b>", "text", "<b>2</b>", "<b/>x", "<!-- c --><b>3</b>"})
            b.peer.sendMessage(notify(data));
        QTRY_COMPARE(found.size(), 8);
        QCOMPARE(found.join(QLatin1Char('|')), qs("1| ||-|-|2|-|3"));
    }

    void aFloodLeavesTheEventLoopItsTurns()
    {
        Bench b;
        const QByteArray single = notify("<voltage>3.300</voltage>") + nul;
        QTimer everyTurn;
        int before = 0;
        int mostInATurn = 0;
        connect(&everyTurn, &QTimer::timeout, this, [&] {
            mostInATurn = qMax(mostInATurn, b.notified.count() - before);
            before = b.notified.count();
        });
        everyTurn.start(0);
        b.peer.sendRaw(single.repeated(5000));
        QTRY_COMPARE_WITH_TIMEOUT(b.notified.count(), 5000, 30000);
        QVERIFY(mostInATurn > 0);
        QVERIFY2(mostInATurn <= 4096 / single.size() + 1, qPrintable(QString::number(mostInATurn)));
    }

    void slotDeletesTheClient()
    {
        Bench b;
        int count = 0;
        connect(b.tal.get(), &TalInterface::talNotifySignal, this, [&] {
            ++count;
            b.tal.reset();
        });
        b.peer.sendRaw(notify("<b/>") + nul + notify("<b/>") + nul);
        QTRY_COMPARE(count, 1);
        QTRY_VERIFY(!b.peer.isConnected());
        QCOMPARE(count, 1);

        auto tal = std::make_unique<TalInterface>(nullptr);
        connect(tal.get(), &TalInterface::talLocalUnixSocketConnectedSignal, this, [&tal] { tal.reset(); });
        QTRY_VERIFY(!tal);
        QTRY_COMPARE(b.peer.connections(), 2);
        QTRY_VERIFY(!b.peer.isConnected());
    }

    void slotRunsAnEventLoop()
    {
        Bench b;
        bool isFirst = true;
        connect(b.tal.get(), &TalInterface::talNotifySignal, this, [&] {
            if (!std::exchange(isFirst, false))
                return;
            b.peer.sendMessage(notify("<b>3</b>"));
            QTRY_COMPARE(b.notified.count(), 3);
        });
        b.peer.sendRaw(notify("<b>1</b>") + nul + notify("<b>2</b>") + nul);
        QTRY_COMPARE(b.notified.count(), 3);
        QCOMPARE(b.dataTexts(), QStringList({qs("<b>1</b>"), qs("<b>2</b>"), qs("<b>3</b>")}));
    }

    void nothingOfAConnectionLostWithinASlot()
    {
        Bench b;
        b.peer.readNothing();
        connect(b.tal.get(), &TalInterface::talNotifySignal, this, [] {
            for (int i = 0; i < 100; ++i) // more than is kept for a service that reads nothing
                request(QString(100000, QLatin1Char('x')));
        });
        b.peer.sendRaw(notify("<b>1</b>") + nul + notify("<b>2</b>") + nul);
        QTRY_COMPARE(b.connected.count(), 2);
        QCOMPARE(b.dataTexts(), QStringList({qs("<b>1</b>")}));
    }

    // last: it stays on
    void debugPrint()
    {
        Bench b;
        TalInterface::debugPrintEnable();
        request(qs("<question/>"));
        QCOMPARE(b.received(notify("<b>ä</b>")), qs("r|replace|/a/b|/a|<b>ä</b>"));
        QCOMPARE(debugLines.filter(qs("<question/>")).size(), 1);
        QCOMPARE(debugLines.filter(qs("<data><b>ä</b></data>")).size(), 1);
    }
};

const TestEntry entry("tst_talinterface", runTest<TestTalInterface>);
#include "tst_talinterface.moc"
