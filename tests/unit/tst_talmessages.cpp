// Messages of the data service: from bytes in chunks of any size; good, malformed and very long ones.
#include "support/talinterfacebench.h"

#include "platform/xrcommon/framing/framing.h"

#include <random>

using Outcome = MessageFraming::Outcome;

namespace {
/// Feeds bytes and collects the messages that are complete by now; `last` is the outcome after them.
struct Reader {
    MessageFraming framing;
    Outcome last{};

    void feed(const QByteArray &bytes) { framing.feed(bytes.constData(), static_cast<std::size_t>(bytes.size())); }

    QByteArrayList after(const QByteArray &bytes)
    {
        feed(bytes);
        QByteArrayList messages;
        std::string_view message;
        while ((last = framing.next(message)) == Outcome::Message)
            messages << QByteArray(message.data(), static_cast<int>(message.size()));
        return messages;
    }
};

const int greatest = static_cast<int>(maxMessageSize);
} // namespace

class TestTalMessages : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void overLongStaysUntilCleared()
    {
        Reader reader;
        QCOMPARE(reader.after(QByteArray(greatest, 'x') + nul).size(), 1);
        QCOMPARE(reader.last, Outcome::Incomplete);
        QCOMPARE(reader.after("<a/>" + nul + "<b/>" + nul + QByteArray(greatest + 1, 'x') + nul + "<c/>" + nul),
                 QByteArrayList({"<a/>", "<b/>"})); // the messages before it are whole
        QCOMPARE(reader.last, Outcome::OverLong);
        QCOMPARE(reader.after(nul + "<a/>" + nul), QByteArrayList());
        QCOMPARE(reader.last, Outcome::OverLong);
        reader.framing.clear();
        QCOMPARE(reader.after("<a/>" + nul), QByteArrayList({"<a/>"}));
        QCOMPARE(reader.last, Outcome::Incomplete);
    }

    void randomChunking()
    {
        std::mt19937 random(1); // NOLINT(cert-msc51-cpp): the same on every run
        for (int round = 0; round < 200; ++round) {
            QByteArrayList sent;
            QByteArray bytes;
            for (unsigned i = 0; i < random() % 50; ++i) {
                sent << QByteArray(static_cast<int>(random() % 300), static_cast<char>('a' + random() % 26));
                bytes += sent.last() + nul;
            }
            Reader reader;
            QByteArrayList received;
            while (!bytes.isEmpty()) {
                const int chunk = static_cast<int>(random() % (round % 2 == 0 ? 700 : 4));
                reader.feed(bytes.left(chunk));
                bytes.remove(0, chunk);
                if (random() % 3 == 0)
                    continue;
                received << reader.after({});
                QCOMPARE(reader.last, Outcome::Incomplete);
            }
            received << reader.after({});
            QCOMPARE(received, sent);
        }
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
        TalInterfaceBench b;
        const auto received = [&b](const QByteArray &message) { // the five texts
            b.peer.sendMessage(message);
            [&b] { QTRY_COMPARE(b.notified.count(), 1); }();
            return QVariant(b.notified.takeFirst()).toStringList().join(QLatin1Char('|'));
        };
        for (const QByteArray &data : exact)
            QCOMPARE(received(notify(data)), qs("r|replace|/a/b|/a|") + QString::fromUtf8(data));
        for (const auto &[message, texts] : tolerated) {
            const AtRow at(message);
            QCOMPARE(received(message), qs(texts));
        }
        QCOMPARE(b.log.lines(), QStringList());
    }

    void malformedMessageIsDropped()
    {
        const QByteArray good = "<ref>r</ref><op>o</op>";
        // clang-format off
        const QByteArray messages[] = {
            "", " \n", "GET / HTTP/1.0\r\n\r\n", "<notify>" + good, notify("<a><b></a></b>"), notify("</data>"),
            notify("<b/>") + "x", notify("<b/>") + notify("<b/>"), // text after the root, two roots
            notify("<b>&nbsp;</b>"), notify("<b>\x01</b>"), notify("<b a='1' a='2'/>"),
            // not UTF-8: invalid, cut off, overlong, Latin-1
            notify("<b>\xff</b>"), notify("<b/>") + "\xe2\x82", notify("<b>\xc0\xbc</b>"),
            "<?xml version='1.0' encoding='ISO-8859-1'?>" + notify("<b>\xe4</b>"),
            "<!DOCTYPE notify>" + notify("<b/>"), "<!DOCTYPE n [<!ENTITY e 'x'>]>" + notify("<b>&e;</b>"),
            "<!DOCTYPE n [<!ENTITY e SYSTEM 'file:///etc/passwd'>]>" + notify("<b>&e;</b>"),
            "<reply>" + good + "</reply>", "<Notify>" + good + "</Notify>", "<notify/>",
            "<notify><op>o</op></notify>", "<notify><ref>r</ref></notify>",
            "<notify><ref>r<x/></ref><op>o</op></notify>",
            "<notify>" + good + "<ref>r</ref></notify>", "<notify>" + good + "<data/><data><b/></data></notify>",
        };
        // clang-format on
        TalInterfaceBench b;
        for (const QByteArray &message : messages) {
            const AtRow at(message);
            b.peer.sendRaw(notify("<before/>") + nul + message + nul + notify("<after/>") + nul);
            QTRY_COMPARE(b.notified.count(), 2);
            QCOMPARE(b.dataTexts(), QStringList({qs("<before/>"), qs("<after/>")}));
            QCOMPARE(b.log.warnings(), 1);
            QCOMPARE(b.log.lines().size(), 1);
            b.notified.clear();
            b.log.takeLines();
        }
        QCOMPARE(b.peer.connections(), 1);
    }

    void overLongMessageReopensTheConnection()
    {
        for (const QByteArray &end : {nul + notify("<lost/>") + nul, QByteArray()}) {
            TalInterfaceBench b;
            b.peer.sendMessage(notify("<before/>"));
            b.peer.sendRaw(QByteArray(greatest + 1, 'x') + end);
            QTRY_COMPARE_WITH_TIMEOUT(b.connected.count(), 2, 20000);
            QTRY_COMPARE(b.peer.connections(), 2);
            b.peer.sendMessage(notify("<anew/>"));
            QTRY_COMPARE(b.notified.count(), 2);
            QCOMPARE(b.dataTexts(), QStringList({qs("<before/>"), qs("<anew/>")}));
            QCOMPARE(b.log.warnings(), 1);
        }
    }

    void greatMessages()
    {
        TalInterfaceBench b;
        const QByteArray data(greatest - notify("").size(), 'x');
        b.peer.sendMessage(notify(data)); // as long as a message may be
        QTRY_COMPARE_WITH_TIMEOUT(b.notified.count(), 1, 20000);
        QVERIFY(b.dataTexts().first() == QString::fromUtf8(data));
        QCOMPARE(b.log.lines(), QStringList());

        const int levels = 500000;
        b.peer.sendMessage(notify(QByteArray("<a>").repeated(levels) + QByteArray("</a>").repeated(levels)));
        b.peer.sendMessage(notify(QByteArray("<a>").repeated(levels)));
        QTRY_COMPARE_WITH_TIMEOUT(b.notified.count() + b.log.warnings(), 3, 20000);
        QCOMPARE(b.notified.count(), 2);
    }
};

const TestEntry entry("tst_talmessages", runTest<TestTalMessages>);
#include "tst_talmessages.moc"
