// System messages become fault reports.
#include "support/talbench.h"
#include "support/testprogram.h"

#include <QSignalSpy>

namespace {

const QString listPath = QStringLiteral("/state/sys_messages/sys_message");
const QString messagePath = listPath + qs("[reporter='amp'][rep_ref='7']");

/// The reports as one line each.
QStringList reports(const QSignalSpy &spy)
{
    QStringList all;
    for (const QList<QVariant> &arguments : spy) {
        QStringList texts;
        for (int i = 0; i < 6; ++i)
            texts << arguments[i].toString();
        all << texts.join(QLatin1Char('|')) + (arguments[6].toBool() ? qs(" on") : qs(" off"));
    }
    return all;
}

class FaultBench : public TalBench {
public:
    FaultBench()
        : TalBench(6914),
          spy(&handler, SIGNAL(signalReportFault(QString, QString, QString, QString, QString, QString, bool)))
    {}

    /// One system message notification and what is reported for it.
    QStringList message(const char *op, const QString &rPath, const QString &data)
    {
        spy.clear();
        notify("kvsnmp_sys_messages", op, rPath, data, listPath);
        return reports(spy);
    }

    QSignalSpy spy;
};

QString messageXml(const char *msgdata)
{
    return QStringLiteral("<sys_message><reporter>amp</reporter><rep_ref>7</rep_ref>%1<text>Fan stands still</text>"
                          "<timestamp>1700000000</timestamp><level>err</level></sys_message>")
        .arg(qs(msgdata));
}

} // namespace

// Behind a whole message, of which nothing may be left over.

class TestSystemMessages : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void activeMessage()
    {
        FaultBench bench;
        for (const char *op : {"create", "replace"})
            QCOMPARE(bench.message(op, messagePath, messageXml("<msgdata><fan_not_running/></msgdata>")),
                     QStringList{qs("amp|7|fan_not_running|Fan stands still|1700000000|err on")});
        for (const char *op : {"patch", "Create", "DELETE", ""})
            QCOMPARE(bench.message(op, messagePath, messageXml("<msgdata><let_fail/></msgdata>")), QStringList());
        QCOMPARE(bench.log.lines(), QStringList());
    }

    void identifier_data()
    {
        QTest::addColumn<QString>("msgdata");
        QTest::addColumn<QString>("identifier");
        const auto row = [](const char *name, const char *msgdata, const char *identifier) {
            QTest::newRow(name) << qs(msgdata) << qs(identifier);
        };
        row("empty child", "<msgdata><fan_not_running/></msgdata>", "fan_not_running");
        row("child with content", "<msgdata><let_fail><let>3</let><channel>1</channel></let_fail></msgdata>",
            "let_fail");
        row("child with attribute", "<msgdata><let_fail let=\"3\"/></msgdata>", "let_fail");
        row("first child of several", "<msgdata><fuse_broken/><let_fail/></msgdata>", "fuse_broken");
        row("no child", "<msgdata/>", "");
        row("text only", "<msgdata>fuse_broken</msgdata>", "");
        row("text before the child", "<msgdata>x<fuse_broken/></msgdata>", "");
        row("white space before the child", "<msgdata> <fuse_broken/></msgdata>", "");
        row("comment before the child", "<msgdata><!-- --><fuse_broken/></msgdata>", "");
        row("no msgdata", "", "");
        row("other case", "<MsgData><fuse_broken/></MsgData>", "");
        row("a later one overrides", "<msgdata><fuse_broken/></msgdata><msgdata><let_fail/></msgdata>", "let_fail");
        row("a later empty one does not", "<msgdata><fuse_broken/></msgdata><msgdata/>", "fuse_broken");
        row("deeper down", "<details><msgdata><fuse_broken/></msgdata></details>", "fuse_broken");
        row("not a known identifier", "<msgdata><coffee_is_cold/></msgdata>", "coffee_is_cold");
    }

    void identifier()
    {
        QFETCH(QString, msgdata);
        QFETCH(QString, identifier);

        FaultBench bench;
        QCOMPARE(bench.message("create", messagePath, messageXml(msgdata.toUtf8())),
                 QStringList{QStringLiteral("amp|7|%1|Fan stands still|1700000000|err on").arg(identifier)});
    }

    void leaves_data()
    {
        QTest::addColumn<QString>("rPath");
        QTest::addColumn<QString>("data");
        QTest::addColumn<QString>("report"); // empty: none
        // clang-format off
        const struct { const char *name; const char *predicates; const char *data; const char *report; } rows[] = {
            {"leaves that are not there are empty", "[reporter='a'][rep_ref='b']",
             "<sys_message><reporter>a</reporter><rep_ref>b</rep_ref></sys_message>", "a|b|||| on"},
            {"texts come as they are", "[reporter=' a/b ]'][rep_ref='x y']",
             "<sys_message><reporter> a/b ]</reporter><rep_ref>x y</rep_ref><text> Gr\xc3\xbc\xc3\x9f" "e &lt;1&gt; </text>"
             "<timestamp> </timestamp><level>Err</level></sys_message>", " a/b ]|x y|| Gr\xc3\xbc\xc3\x9f" "e <1> | |Err on"},
            {"keys from the path alone", "[reporter='amp'][rep_ref='7']", "<sys_message><level>crit</level></sys_message>", "amp|7||||crit on"},
            {"one leaf", "[reporter='amp'][rep_ref='7']/text", "<text>Fan turns again</text>", ""},
            {"no rep_ref", "[reporter='amp']", "<sys_message><reporter>amp</reporter><msgdata><let_fail/></msgdata></sys_message>", ""},
            {"no reporter", "[rep_ref='7']", "<sys_message><rep_ref>7</rep_ref><msgdata><let_fail/></msgdata></sys_message>", ""},
            {"neither", "", "<sys_message><text>x</text></sys_message>", ""},
            {"no data", "", "", ""},
            {"not well-formed", "[reporter='amp'][rep_ref='7']",
             "<sys_message><reporter>amp</reporter><rep_ref>7</rep_ref><msgdata><let_fail/></msgdata><text>x</sys_message>", ""},
        };
        // clang-format on
        for (const auto &row : rows)
            QTest::newRow(row.name) << listPath + qs(row.predicates) << qs(row.data) << qs(row.report);
    }

    void leaves()
    {
        QFETCH(QString, rPath);
        QFETCH(QString, data);
        QFETCH(QString, report);

        FaultBench bench;
        QCOMPARE(bench.message("create", messagePath, messageXml("<msgdata><let_fail/></msgdata>")).size(), 1);
        for (const char *op : {"create", "replace"})
            QCOMPARE(bench.message(op, rPath, data), report.isEmpty() ? QStringList() : QStringList{report});
        QCOMPARE(bench.log.lines(), QStringList());
    }

    void deletedMessage_data()
    {
        QTest::addColumn<QString>("rPath");
        QTest::addColumn<QStringList>("reported");
        const auto row = [](const char *name, const QString &rPath, const char *report) {
            QTest::newRow(name) << rPath << (report ? QStringList{qs(report)} : QStringList());
        };
        row("reporter first", listPath + qs("[reporter='amp'][rep_ref='7']"), "amp|7|||| off");
        row("rep_ref first", listPath + qs("[rep_ref='7'][reporter='amp']"), "amp|7|||| off");
        row("both in one predicate", listPath + qs("[reporter='amp' and rep_ref='7']"), "amp|7|||| off");
        row("values with slash, bracket and blank", listPath + qs("[reporter='a/b ]'][rep_ref='x [1]']"),
            "a/b ]|x [1]|||| off");
        row("empty values", listPath + qs("[reporter=''][rep_ref='']"), "||||| off");
        row("a value named like the other key", listPath + qs("[reporter='rep_ref'][rep_ref='reporter']"),
            "rep_ref|reporter|||| off");
        row("a list named like the second key", qs("/rep_refs/sys_message[reporter='amp'][rep_ref='7']"),
            "amp|7|||| off");
        row("a list named like the first key", qs("/reporters/sys_message[rep_ref='7'][reporter='amp']"),
            "7|7|||| off");
        row("one leaf, as the end of the message", messagePath + qs("/text"), "amp|7|||| off");
        row("no predicate", listPath, nullptr);
        row("empty path", QString(), nullptr);
        row("reporter alone", listPath + qs("[reporter='amp']"), nullptr);
        row("rep_ref alone", listPath + qs("[rep_ref='7']"), nullptr);
        row("one apostrophe", listPath + qs("[reporter='amp"), nullptr);
        row("neither name", listPath + qs("[kid='1'][id='2']"), nullptr);
        row("a foreign second predicate", listPath + qs("[reporter='amp'][id='7']"), nullptr);
        row("names in other case", listPath + qs("[Reporter='amp'][Rep_ref='7']"), nullptr);
        row("no apostrophes", listPath + qs("[reporter=amp][rep_ref=7]"), nullptr);
        row("path cut off behind the second name", listPath + qs("[rep_ref='7'][reporter="), nullptr);
        row("path cut off behind the second name, reporter first", listPath + qs("[reporter='amp'][rep_ref="), nullptr);
    }

    void deletedMessage()
    {
        QFETCH(QString, rPath);
        QFETCH(QStringList, reported);

        FaultBench bench;
        QCOMPARE(bench.message("delete", rPath, messageXml("<msgdata><let_fail/></msgdata>")), reported);
        QCOMPARE(bench.message("delete", rPath, QString()), reported); // the data is not looked at
        QCOMPARE(bench.log.lines(), QStringList());
    }
};

const TestEntry entry("tst_systemmessages", runTest<TestSystemMessages>);
#include "tst_systemmessages.moc"
