// The traps of the code against the catalogue: number, arc, name and message identifiers.
#include "support/catalogue.h"
#include "support/testprogram.h"

#include "device/trapcatalogue.h"

#include <QSet>
#include <QtTest>

namespace {

QString text(std::string_view view)
{
    return QString::fromLatin1(view.data(), static_cast<int>(view.size()));
}

} // namespace

class TestTrapCatalogue : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void trapIs_data()
    {
        QTest::addColumn<int>("place");
        QCOMPARE(catalogue::rows("traps").size(), 20);
        QCOMPARE(std::size(trapCatalogue), std::size_t{20});
        for (int place = 0; place < 20; ++place)
            QTest::newRow(catalogue::rows("traps")[place].latin1("switch")) << place;
    }

    void trapIs()
    {
        QFETCH(int, place);

        const catalogue::Row expected = catalogue::rows("traps")[place];
        const Trap &trap = trapCatalogue[place];
        QStringList identifiers;
        for (const std::string_view id : trap.msgIds)
            identifiers << text(id);
        QCOMPARE(trap.number, expected.text("number").toUInt());
        QCOMPARE(trap.arc, expected.text("arc").toUInt());
        QCOMPARE(text(trap.name), expected.text("switch"));
        QCOMPARE(identifiers, expected.list("identifiers"));
    }

    void arcsAndIdentifiersAreOfOneTrapEach()
    {
        QSet<uint> arcs;
        QSet<QString> identifiers;
        for (const Trap &trap : trapCatalogue) {
            arcs.insert(trap.arc);
            for (const std::string_view id : trap.msgIds)
                identifiers.insert(text(id));
        }
        QCOMPARE(arcs.size(), 20);
        QCOMPARE(identifiers.size(), 38);
    }
};

const TestEntry entry("tst_trapcatalogue", runTest<TestTrapCatalogue>);
#include "tst_trapcatalogue.moc"
