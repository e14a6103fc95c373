// Known models, sets of them, and the station description check.
#include "support/testprogram.h"

#include "device/models.h"

#include <QtTest>

namespace {

using Models = QVector<uint>;

const Models everyModel{6211, 6214, 6259, 6410, 6420, 6425, 6601, 6602, 6720, 6764, 6891, 6913, 6914};

} // namespace

Q_DECLARE_METATYPE(const ModelSet *)
Q_DECLARE_METATYPE(Models)

class TestModels : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void knowsThirteenModelsAndNoOther()
    {
        Models known;
        for (uint number = 0; number <= 70000; ++number)
            if (isKnownModel(number))
                known.append(number);
        QCOMPARE(known, everyModel);
        QCOMPARE(Models(std::begin(knownModels), std::end(knownModels)), everyModel);
    }

    void setHoldsItsModelsAndNoOther_data()
    {
        QTest::addColumn<const ModelSet *>("set");
        QTest::addColumn<Models>("models");

        static constexpr ModelSet all{6211, 6214, 6259, 6410, 6420, 6425, 6601, 6602, 6720, 6764, 6891, 6913, 6914};
        QTest::newRow("all") << &all << everyModel;
        QTest::newRow("amplifier type") << &ampTypeModels << Models{6420, 6425, 6720, 6764};
        QTest::newRow("GPIO") << &gpioModels << Models{6211, 6214, 6259, 6891};
        QTest::newRow("two channels") << &twoChannelModels << Models{6420, 6425, 6720, 6764};
        QTest::newRow("single output") << &singleOutputModels << Models{6211, 6214, 6259, 6601, 6602, 6891};
        QTest::newRow("amplifiers") << &amplifierModels << Models{6410, 6420, 6425, 6720, 6764};
        QTest::newRow("LETs") << &letModels << Models{6420, 6720, 6764};
        QTest::newRow("Ethernet monitoring")
            << &ethMonitoringModels << Models{6214, 6259, 6410, 6420, 6425, 6601, 6602, 6720, 6764, 6913, 6914};
        QTest::newRow("pilot tone") << &pilotToneModels << Models{6410, 6420, 6425};
        QTest::newRow("four relays") << &fourRelayModels << Models{6214, 6259};
        QTest::newRow("AC and DC power") << &bothPowerModels << Models{6410, 6420};
        QTest::newRow("AC power only") << &acPowerOnlyModels << Models{6720, 6764};
        QTest::newRow("DC power only") << &dcPowerOnlyModels << Models{6425};
        QTest::newRow("power type") << &powerTypeModels << Models{6764};
        QTest::newRow("microphones") << &microphoneModels << Models{6214, 6259, 6601, 6602};
    }

    void setHoldsItsModelsAndNoOther()
    {
        QFETCH(const ModelSet *, set);
        QFETCH(Models, models);

        Models held;
        for (const uint model : everyModel)
            if (set->contains(model))
                held.append(model);
        QCOMPARE(held, models);
    }

    void unknownNumberIsInNoSet()
    {
        constexpr ModelSet all{6211, 6214, 6259, 6410, 6420, 6425, 6601, 6602, 6720, 6764, 6891, 6913, 6914};
        for (const uint number : {0U, 1U, 12U, 13U, 6210U, 6915U, 9999U, 4294967295U}) {
            QVERIFY(!all.contains(number));
            QVERIFY(!isKnownModel(number));
        }
    }

    void stationDescriptionCheck_data()
    {
        QTest::addColumn<QByteArray>("text");
        QTest::addColumn<bool>("isStation");

        QTest::newRow("compact") << QByteArray("Orvane Brisel Compact - IP-QRM-B") << true;
        QTest::newRow("extended") << QByteArray("Orvane Brisel Extended - IP-QRM-B") << true;
        QTest::newRow("null") << QByteArray() << false;
        QTest::newRow("empty") << QByteArray("") << false;
        QTest::newRow("other case") << QByteArray("Orvane Brisel compact - IP-QRM-B") << false;
        QTest::newRow("leading blank") << QByteArray(" Orvane Brisel Compact - IP-QRM-B") << false;
        QTest::newRow("trailing blank") << QByteArray("Orvane Brisel Compact - IP-QRM-B ") << false;
        QTest::newRow("only the beginning") << QByteArray("Orvane Brisel Compact") << false;
        QTest::newRow("longer") << QByteArray("Orvane Brisel Extended - IP-QRM-B2") << false;
        QTest::newRow("another product") << QByteArray("Orvane Mervio Amplifier VQ9") << false;
    }

    void stationDescriptionCheck()
    {
        QFETCH(QByteArray, text);
        QFETCH(bool, isStation);

        QCOMPARE(hasExpanders(text.isNull() ? nullptr : text.constData()), isStation);
    }
};

const TestEntry entry("tst_models", runTest<TestModels>);
#include "tst_models.moc"
