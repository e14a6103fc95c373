// Messages out of bytes in any chunking.
#include "support/testprogram.h"

#include "platform/xrcommon/framing/framing.h"

#include <random>

#include <unistd.h>

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

long residentBytes()
{
    QFile statm(QStringLiteral("/proc/self/statm"));
    return statm.open(QIODevice::ReadOnly) ? statm.readAll().split(' ').value(1).toLong() * sysconf(_SC_PAGESIZE) : 0;
}

const QByteArray nul(1, '\0');
const int greatest = static_cast<int>(maxMessageSize);
} // namespace

class TestFraming : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void sizes()
    {
        const auto expect = [](const QByteArray &bytes, int messages, Outcome last) {
            Reader reader;
            const QByteArrayList found = reader.after(bytes);
            QCOMPARE(found.size(), messages);
            QCOMPARE(found.join().size(), messages * greatest);
            QCOMPARE(reader.last, last);
        };
        expect(QByteArray(greatest, 'x') + nul, 1, Outcome::Incomplete);
        expect(QByteArray(greatest, 'x'), 0, Outcome::Incomplete);
        expect(QByteArray(greatest + 1, 'x') + nul, 0, Outcome::OverLong);
        expect(QByteArray(greatest + 1, 'x'), 0, Outcome::OverLong);
    }

    void overLongStaysUntilCleared()
    {
        Reader reader;
        QCOMPARE(reader.after("<a/>" + nul + "<b/>" + nul + QByteArray(greatest + 1, 'x') + nul + "<c/>" + nul),
                 QByteArrayList({"<a/>", "<b/>"})); // the messages before it are whole
        QCOMPARE(reader.last, Outcome::OverLong);
        QCOMPARE(reader.after(nul + "<a/>" + nul), QByteArrayList());
        QCOMPARE(reader.last, Outcome::OverLong);
        reader.framing.clear();
        QCOMPARE(reader.after("<a/>" + nul), QByteArrayList({"<a/>"}));
        QCOMPARE(reader.last, Outcome::Incomplete);
    }

    void overLongMessageIsNotStored()
    {
        Reader reader;
        const QByteArray mebibyte(1024 * 1024, 'x');
        const long before = residentBytes();
        for (int i = 0; i < 1024; ++i)
            reader.after(mebibyte);
        QCOMPARE(reader.last, Outcome::OverLong);
        QVERIFY(residentBytes() - before < 64L * 1024 * 1024);
    }

    void clearDiscardsAnUnfinishedMessage()
    {
        Reader reader;
        reader.after("<half");
        reader.framing.clear();
        QCOMPARE(reader.after("<whole/>" + nul), QByteArrayList({"<whole/>"}));
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
};

const TestEntry entry("tst_framing", runTest<TestFraming>);
#include "tst_framing.moc"
