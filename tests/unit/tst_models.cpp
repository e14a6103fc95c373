// Known models, sets of them, and the station description check.
#include "support/testprogram.h"

#include "device/models.h"

namespace {
const QVector<uint> everyModel{6211, 6214, 6259, 6410, 6420, 6425, 6601, 6602, 6720, 6764, 6891, 6913, 6914};
constexpr ModelSet all{6211, 6214, 6259, 6410, 6420, 6425, 6601, 6602, 6720, 6764, 6891, 6913, 6914};
constexpr ModelSet some{6211, 6914};
} // namespace

class TestModels : public QObject {
    Q_OBJECT

private Q_SLOTS:
    /// Which models the sets of the tables hold is tested with what they are for.
    void knowsThirteenModelsAndNoOther()
    {
        QCOMPARE(QVector<uint>(std::begin(knownModels), std::end(knownModels)), everyModel);
        for (uint number = 0; number <= 70000; ++number) {
            QCOMPARE(isKnownModel(number), everyModel.contains(number));
            QCOMPARE(all.contains(number), everyModel.contains(number));
            QCOMPARE(some.contains(number), number == 6211 || number == 6914);
            QVERIFY(noModelTest.contains(number));
        }
        QVERIFY(!isKnownModel(4294967295U) && !all.contains(4294967295U));
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
};

const TestEntry entry("tst_models", runTest<TestModels>);
#include "tst_models.moc"
