// Copies into fixed buffers: bounded, terminated, nothing written behind them. Cuts: never inside a character.
#include "support/testprogram.h"

#include "device/boundedtext.h"

#include <QtTest>

#include <cstring>

namespace {

struct Guarded { // a write past the buffer shows in `after`
    char buffer[8];
    char after[4];
};

} // namespace

class TestBoundedText : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void copiesWhatFits_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<QByteArray>("kept");

        QTest::newRow("empty") << QByteArray("") << QByteArray("");
        QTest::newRow("short") << QByteArray("abc") << QByteArray("abc");
        QTest::newRow("one less than the buffer") << QByteArray("1234567") << QByteArray("1234567");
        QTest::newRow("as long as the buffer") << QByteArray("12345678") << QByteArray("1234567");
        QTest::newRow("one more than the buffer") << QByteArray("123456789") << QByteArray("1234567");
        QTest::newRow("very long") << QByteArray(100000, 'x') << QByteArray("xxxxxxx");
        QTest::newRow("bytes above 127") << QByteArray("\xe4\xf6\xfc") << QByteArray("\xe4\xf6\xfc");
    }

    void copiesWhatFits()
    {
        QFETCH(QByteArray, text);
        QFETCH(QByteArray, kept);

        Guarded guarded{};
        std::memset(&guarded, '#', sizeof guarded);
        const std::uint32_t length =
            copyBounded(guarded.buffer, {text.constData(), static_cast<std::size_t>(text.size())});

        QCOMPARE(length, static_cast<std::uint32_t>(kept.size()));
        QCOMPARE(QByteArray(guarded.buffer), kept);
        QCOMPARE(QByteArray(guarded.after, 4), QByteArray("####"));
    }

    void zeroInsideTheTextIsCopied()
    {
        char buffer[8];
        std::memset(buffer, '#', sizeof buffer);
        QCOMPARE(copyBounded(buffer, std::string_view("a\0b", 3)), 3U);
        QCOMPARE(QByteArray(buffer, 5), QByteArray("a\0b\0#", 5));
    }

    void bufferOfOneHoldsTheTerminatorOnly()
    {
        char buffer[1] = {'#'};
        QCOMPARE(copyBounded(buffer, "text"), 0U);
        QCOMPARE(buffer[0], '\0');
    }

    void worksAtCompileTime()
    {
        constexpr std::uint32_t length = [] {
            char buffer[4] = {};
            return copyBounded(buffer, "four and more");
        }();
        static_assert(length == 3);
        QCOMPARE(length, 3U);
    }

    void prefixEndsWhereACharacterEnds_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<int>("size");
        QTest::addColumn<QByteArray>("kept");

        const QByteArray mixed("a\xc3\xbc\xe2\x9c\x93\xf0\x9d\x84\x9e"); // 1, 2, 3 and 4 bytes
        const int kept[] = {0, 1, 1, 3, 3, 3, 6, 6, 6, 6, 10, 10};
        for (int size = 0; size < static_cast<int>(std::size(kept)); ++size)
            QTest::addRow("%d of 10 bytes", size) << mixed << size << mixed.left(kept[size]);
        QTest::newRow("empty") << QByteArray() << 4 << QByteArray();
        QTest::newRow("empty, nothing fits") << QByteArray() << 0 << QByteArray();
        QTest::newRow("no beginning of a character") << QByteArray("\x80\x80\x80\x80") << 2 << QByteArray();
    }

    void prefixEndsWhereACharacterEnds()
    {
        QFETCH(QByteArray, text);
        QFETCH(int, size);
        QFETCH(QByteArray, kept);
        const std::string_view prefix =
            utf8Prefix({text.constData(), static_cast<std::size_t>(text.size())}, static_cast<std::size_t>(size));
        QCOMPARE(QByteArray(prefix.data(), static_cast<int>(prefix.size())), kept);
    }
};

const TestEntry entry("tst_boundedtext", runTest<TestBoundedText>);
#include "tst_boundedtext.moc"
