// The traps of the code against the catalogue: number, arc, name and message identifiers.
#include "support/catalogue.h"
#include "support/testprogram.h"

#include "device/latin1.h"
#include "device/trapcatalogue.h"

class TestTrapCatalogue : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void eachTrapIsThatOfTheCatalogue()
    {
        const QVector<catalogue::Row> rows = catalogue::rows("traps");
        QCOMPARE(rows.size(), 20);
        QCOMPARE(std::size(trapCatalogue), std::size_t{20});
        QSet<uint> arcs;
        QSet<QString> allIdentifiers;
        for (int place = 0; place < rows.size(); ++place) {
            const QByteArray name = rows[place].latin1("switch");
            const AtRow at(name);
            const Trap &trap = trapCatalogue[place];
            QStringList identifiers;
            for (const std::string_view id : trap.msgIds)
                identifiers << latin1(id);
            QCOMPARE(trap.number, rows[place].text("number").toUInt());
            QCOMPARE(trap.arc, rows[place].text("arc").toUInt());
            QCOMPARE(latin1(trap.name), rows[place].text("switch"));
            QCOMPARE(identifiers, rows[place].list("identifiers"));
            arcs.insert(trap.arc);
            allIdentifiers.unite(QSet<QString>(identifiers.cbegin(), identifiers.cend()));
        }
        QCOMPARE(arcs.size(), 20);
        QCOMPARE(allIdentifiers.size(), 38);
    }
};

const TestEntry entry("tst_trapcatalogue", runTest<TestTrapCatalogue>);
#include "tst_trapcatalogue.moc"
