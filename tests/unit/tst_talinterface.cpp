// The data-service client: its connection, its requests, and receivers that delete or hold it up.
#include "support/talinterfacebench.h"

namespace {
void subscribe(const char *ref, const char *path, const char *operation, const char *flag, int target = 0)
{
    TalInterface::requestDataSubscribeSingleLevel(qs(ref), qs(path), qs(operation), qs(flag),
                                                  static_cast<TALTARGET_ENUM>(target));
}

void edit(const char *ref, const char *path, const char *operation, const char *xml)
{
    TalInterface::requestDataEdit(qs(ref), qs(path), qs(operation), qs(xml));
}
} // namespace

class TestTalInterface : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void connectsWhenTheServiceStarts()
    {
        MessageLog log;
        TalPeer peer(TalPeer::Start::NotListening);
        const TalInterface tal(nullptr);
        const QSignalSpy connected(&tal, &TalInterface::talLocalUnixSocketConnectedSignal);
        QTest::qWait(2500);
        QCOMPARE(log.lines().size(), 1); // one line for all failures
        QCOMPARE(log.warnings(), 0);
        QVERIFY(peer.listen());
        QTRY_COMPARE(peer.connections(), 1);
        QTRY_COMPARE(connected.count(), 1);
        QTest::qWait(1500); // it does not try again while it is connected
        QCOMPARE(peer.connections(), 1);

        log.takeLines();
        qputenv("TAL_SOCKET", QByteArray(200, 'x')); // longer than an address
        const TalInterface unconnected(nullptr);
        QTRY_COMPARE(log.lines().size(), 1);
    }

    void reconnectsASecondAfterEachLoss()
    {
        TalInterfaceBench b;
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
        QCOMPARE(b.log.warnings(), 0);
    }

    void requests()
    {
        TalInterfaceBench b;
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
        for (const char *text : {" <any> & \"text\"\nä\r", ""}) {
            request(qs(text));
            QTRY_COMPARE(b.peer.messages(), QByteArrayList{text});
            b.peer.takeMessages();
        }
        QCOMPARE(b.log.lines(), QStringList());
    }

    void requestsUseTheNewestInstance()
    {
        TalInterfaceBench b;
        b.tal = std::make_unique<TalInterface>(nullptr); // the older one ends after this one starts
        QTRY_COMPARE(b.peer.connections(), 2);
        request(qs("<x/>"));
        QCOMPARE(b.sent(), qs("<x/>"));
        b.log.takeLines();
        b.tal.reset();
        subscribe("r", "/a", "change", "true");
        request(qs("<x/>"));
        edit("r", "/a", "create", "<a/>");
        QCOMPARE(b.log.lines().size(), 3);
        QCOMPARE(b.log.warnings(), 0);
        QTRY_VERIFY(!b.peer.isConnected());
        QCOMPARE(b.peer.messages(), QByteArrayList());
    }

    void requestWhileNotConnected()
    {
        const MessageLog log;
        TalPeer peer;
        const TalInterface tal(nullptr);
        const QSignalSpy connected(&tal, &TalInterface::talLocalUnixSocketConnectedSignal);
        request(qs("too early"));
        QCOMPARE(log.lines().size(), 1);
        QTRY_COMPARE(connected.count(), 1);
        request(qs("in time"));
        QTRY_COMPARE(peer.messages(), QByteArrayList({"in time"})); // the dropped one is not sent later
        peer.shutDown();
        QTRY_COMPARE(log.lines().size(), 2); // the loss
        request(qs("too late"));
        QCOMPARE(log.lines().size(), 3);
        QCOMPARE(log.warnings(), 0);
    }

    void requestThatCannotBeFramed()
    {
        TalInterfaceBench b;
        request(qs("<a>") + QChar(QChar::Null) + qs("</a>"));
        QCOMPARE(b.log.warnings(), 1);
        request(QString(static_cast<int>(maxMessageSize) + 1, QLatin1Char('x')));
        QCOMPARE(b.log.warnings(), 2);
        request(qs("next"));
        QCOMPARE(b.sent(), qs("next"));
    }

    void slowService()
    {
        TalInterfaceBench b;
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
        for (; sent < 1000 && b.log.lines().isEmpty(); ++sent)
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

    void aFloodLeavesTheEventLoopItsTurns()
    {
        TalInterfaceBench b;
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

    // last: it stays on
    void debugPrint()
    {
        TalInterfaceBench b;
        TalInterface::debugPrintEnable();
        request(qs("<question/>"));
        b.peer.sendMessage(notify("<b>ä</b>"));
        QTRY_COMPARE(b.notified.count(), 1);
        QCOMPARE(b.log.lines().filter(qs("<question/>")).size(), 1);
        QCOMPARE(b.log.lines().filter(qs("<data><b>ä</b></data>")).size(), 1);
    }
};

const TestEntry entry("tst_talinterface", runTest<TestTalInterface>);
#include "tst_talinterface.moc"
