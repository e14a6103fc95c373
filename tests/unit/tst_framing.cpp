// Messages out of bytes in any chunking.
#include "support/testprogram.h"

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

const QByteArray nul(1, '\0');
const int greatest = static_cast<int>(maxMessageSize);
} // namespace

class TestFraming : public QObject {
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
};

const TestEntry entry("tst_framing", runTest<TestFraming>);
#include "tst_framing.moc"
