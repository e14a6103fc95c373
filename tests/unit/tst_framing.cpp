// Messages out of bytes in any chunking.
#include "support/testprogram.h"

#include "platform/xrcommon/framing/framing.h"

#include <QByteArray>
#include <QByteArrayList>
#include <QtTest>

#include <random>

#include <unistd.h>

using Outcome = MessageFraming::Outcome;

namespace {

/// All messages that are whole by now; `last` is what ended them.
QByteArrayList taken(MessageFraming &framing, Outcome &last)
{
    QByteArrayList messages;
    std::string_view message;
    while ((last = framing.next(message)) == Outcome::Message)
        messages << QByteArray(message.data(), static_cast<int>(message.size()));
    return messages;
}

void feed(MessageFraming &framing, const QByteArray &bytes)
{
    framing.feed(bytes.constData(), static_cast<std::size_t>(bytes.size()));
}

long residentPages()
{
    QFile statm(QStringLiteral("/proc/self/statm"));
    return statm.open(QIODevice::ReadOnly) ? statm.readAll().split(' ').value(1).toLong() : 0;
}

const QByteArray nul(1, '\0');
const int greatest = static_cast<int>(maxMessageSize);

} // namespace

class TestFraming : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void anyChunking_data()
    {
        QTest::addColumn<int>("chunk");
        QTest::newRow("several messages in one read") << 1000;
        QTest::newRow("one message in many reads") << 1;
        QTest::newRow("NUL first in a read") << 3;
        QTest::newRow("NUL last in a read") << 4;
    }

    void anyChunking()
    {
        QFETCH(int, chunk);
        const QByteArray bytes = "<a>" + nul + "<b>" + nul + nul + "\xc3\xa4 and more" + nul;
        MessageFraming framing;
        QByteArrayList messages;
        Outcome last{};
        for (int at = 0; at < bytes.size(); at += chunk) {
            feed(framing, bytes.mid(at, chunk));
            messages << taken(framing, last);
            QCOMPARE(last, Outcome::Incomplete);
        }
        QCOMPARE(messages, QByteArrayList({"<a>", "<b>", "", "\xc3\xa4 and more"}));
    }

    void unfinishedMessageWaits()
    {
        MessageFraming framing;
        Outcome last{};
        QCOMPARE(taken(framing, last), QByteArrayList());
        feed(framing, "<a/>");
        QCOMPARE(taken(framing, last), QByteArrayList());
        QCOMPARE(taken(framing, last), QByteArrayList());
        feed(framing, nul);
        QCOMPARE(taken(framing, last), QByteArrayList({"<a/>"}));
    }

    void sizes_data()
    {
        QTest::addColumn<int>("size");
        QTest::addColumn<bool>("ended");
        QTest::addColumn<int>("expected");
        QTest::newRow("4 MiB") << greatest << true << int(Outcome::Message);
        QTest::newRow("4 MiB, its NUL not yet there") << greatest << false << int(Outcome::Incomplete);
        QTest::newRow("one byte more") << greatest + 1 << true << int(Outcome::OverLong);
        QTest::newRow("one byte more, without a NUL") << greatest + 1 << false << int(Outcome::OverLong);
    }

    void sizes()
    {
        QFETCH(int, size);
        QFETCH(bool, ended);
        QFETCH(int, expected);
        MessageFraming framing;
        feed(framing, QByteArray(size, 'x'));
        if (ended)
            feed(framing, nul);
        std::string_view message;
        QCOMPARE(int(framing.next(message)), expected);
        if (expected == int(Outcome::Message))
            QCOMPARE(int(message.size()), size);
    }

    void messagesBeforeAnOverLongOneAreGiven()
    {
        MessageFraming framing;
        Outcome last{};
        feed(framing, "<a/>" + nul + "<b/>" + nul + QByteArray(greatest + 1, 'x') + nul + "<c/>" + nul);
        QCOMPARE(taken(framing, last), QByteArrayList({"<a/>", "<b/>"}));
        QCOMPARE(last, Outcome::OverLong);
    }

    void overLongStaysUntilCleared()
    {
        MessageFraming framing;
        Outcome last{};
        feed(framing, QByteArray(greatest + 1, 'x'));
        taken(framing, last);
        feed(framing, nul + "<a/>" + nul);
        QCOMPARE(taken(framing, last), QByteArrayList());
        QCOMPARE(last, Outcome::OverLong);
        framing.clear();
        feed(framing, "<a/>" + nul);
        QCOMPARE(taken(framing, last), QByteArrayList({"<a/>"}));
        QCOMPARE(last, Outcome::Incomplete);
    }

    void overLongTakesNoMoreBytes()
    {
        MessageFraming framing;
        Outcome last{};
        const QByteArray mebibyte(1024 * 1024, 'x');
        const long pagesBefore = residentPages();
        for (int i = 0; i < 1024; ++i) {
            feed(framing, mebibyte);
            taken(framing, last);
        }
        QCOMPARE(last, Outcome::OverLong);
        QVERIFY((residentPages() - pagesBefore) * sysconf(_SC_PAGESIZE) < 64L * 1024 * 1024);
    }

    void clearForgetsAnUnfinishedMessage()
    {
        MessageFraming framing;
        Outcome last{};
        feed(framing, "<half");
        taken(framing, last);
        framing.clear();
        feed(framing, "<whole/>" + nul);
        QCOMPARE(taken(framing, last), QByteArrayList({"<whole/>"}));
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
            MessageFraming framing;
            QByteArrayList received;
            Outcome last{};
            while (!bytes.isEmpty()) {
                const int chunk = static_cast<int>(random() % 700);
                feed(framing, bytes.left(chunk));
                bytes.remove(0, chunk);
                if (random() % 3 != 0)
                    received << taken(framing, last);
            }
            received << taken(framing, last);
            QCOMPARE(received, sent);
        }
    }
};

const TestEntry entry("tst_framing", runTest<TestFraming>);
#include "tst_framing.moc"
