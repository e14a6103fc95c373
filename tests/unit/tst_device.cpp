// Known models and sets of them, the station description check, copies into fixed buffers.
#include "support/catalogue.h"
#include "support/testprogram.h"

#include "device/boundedtext.h"
#include "device/models.h"

#include <cstring>
#include <string>

static_assert([] {
    char buffer[4] = {};
    return copyBounded(buffer, "four and more");
}() == 3);

namespace {
constexpr ModelSet some{6211, 6914};
} // namespace

class TestDevice : public QObject {
    Q_OBJECT

private Q_SLOTS:
    /// Which models the sets of the tables hold is tested with what they are for.
    void knowsTheModelsOfTheCatalogueAndNoOther()
    {
        const QVector<uint> models = catalogue::models();
        QCOMPARE(QVector<uint>(std::begin(knownModels), std::end(knownModels)), models);
        for (uint number = 0; number <= 70000; ++number) {
            QCOMPARE(isKnownModel(number), models.contains(number));
            QCOMPARE(some.contains(number), number == 6211 || number == 6914);
        }
        QVERIFY(!isKnownModel(4294967295U) && !some.contains(4294967295U));
    }

    void stationDescriptionCheck()
    {
        QVERIFY(hasExpanders("Orvane Brisel Compact - IP-QRM-B"));
        QVERIFY(hasExpanders("Orvane Brisel Extended - IP-QRM-B"));
        QVERIFY(!hasExpanders(nullptr));
        for (const char *other : {"", "Orvane Brisel compact - IP-QRM-B", " Orvane Brisel Compact - IP-QRM-B",
                                  "Orvane Brisel Compact - IP-QRM-B ", "Orvane Brisel Compact",
                                  "Orvane Brisel Extended - IP-QRM-B2", "Orvane Mervio Amplifier VQ9"})
            QVERIFY2(!hasExpanders(other), other);
    }

    void copiesWhatFits()
    {
        const std::pair<std::string, std::string> rows[] = {
            // a text, and what an 8-byte buffer keeps of it
            {"", ""},
            {"1234567", "1234567"},
            {"12345678", "1234567"},
            {"123456789", "1234567"},
            {std::string(100000, 'x'), "xxxxxxx"},
            {"\xe4\xf6\xfc", "\xe4\xf6\xfc"},
            {std::string("a\0b", 3), std::string("a\0b", 3)},
        };
        for (const auto &[text, kept] : rows) {
            const AtRow at(text.c_str());
            struct {
                char buffer[8];
                char after[4];
            } memory;
            std::memset(&memory, '#', sizeof memory);
            QCOMPARE(copyBounded(memory.buffer, text), std::uint32_t(kept.size()));
            const std::string untouched(8 - kept.size() - 1, '#');
            QCOMPARE(std::string(memory.buffer, 8), kept + '\0' + untouched);
            QCOMPARE(std::string(memory.after, 4), std::string("####"));
        }
        char terminatorOnly[1] = {'#'};
        QCOMPARE(copyBounded(terminatorOnly, "text"), 0U);
        QCOMPARE(terminatorOnly[0], '\0');
    }

    void prefixEndsWhereACharacterEnds()
    {
        const std::string_view mixed = "a\xc3\xbc\xe2\x9c\x93\xf0\x9d\x84\x9e"; // 1, 2, 3 and 4 bytes
        const std::size_t kept[] = {0, 1, 1, 3, 3, 3, 6, 6, 6, 6, 10, 10};
        for (std::size_t size = 0; size < std::size(kept); ++size)
            QCOMPARE(std::string(utf8Prefix(mixed, size)), std::string(mixed.substr(0, kept[size])));
        QVERIFY(utf8Prefix("", 4).empty());
        QVERIFY(utf8Prefix("", 0).empty());
        QVERIFY(utf8Prefix("\x80\x80\x80\x80", 2).empty()); // no beginning of a character
    }
};

const TestEntry entry("tst_device", runTest<TestDevice>);
#include "tst_device.moc"
