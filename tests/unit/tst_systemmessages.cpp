// System messages become fault reports.
#include "support/talbench.h"
#include "support/testprogram.h"

namespace {
const QString listPath = QStringLiteral("/state/sys_messages/sys_message");
const QString messagePath = listPath + qs("[reporter='amp'][rep_ref='7']");

class FaultBench : public TalBench {
public:
    FaultBench() : TalBench(6914)
    {
        QObject::connect(&handler, &TalHandler::signalReportFault, &handler,
                         [this](const QString &reporter, const QString &ref, const QString &id, const QString &text,
                                const QString &time, const QString &level, bool active) {
                             const QStringList texts{reporter, ref, id, text, time, level};
                             m_reports << texts.join(QLatin1Char('|')) + (active ? qs(" on") : qs(" off"));
                         });
    }

    QString message(const char *op, const QString &rPath, const QString &data)
    {
        m_reports.clear();
        notify("kvsnmp_sys_messages", op, rPath, data, listPath);
        return m_reports.join(QLatin1Char('\n'));
    }

private:
    QStringList m_reports;
};

QString messageXml(const char *msgdata)
{
    return QStringLiteral("<sys_message><reporter>amp</reporter><rep_ref>7</rep_ref>%1<text>Fan stands still</text>"
                          "<timestamp>1700000000</timestamp><level>err</level></sys_message>")
        .arg(qs(msgdata));
}
} // namespace

class TestSystemMessages : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void activeMessage()
    {
        FaultBench bench;
        for (const char *op : {"create", "replace"})
            QCOMPARE(bench.message(op, messagePath, messageXml("<msgdata><fan_not_running/></msgdata>")),
                     qs("amp|7|fan_not_running|Fan stands still|1700000000|err on"));
        for (const char *op : {"patch", "Create", "DELETE", ""})
            QCOMPARE(bench.message(op, messagePath, messageXml("<msgdata><let_fail/></msgdata>")), QString());
        QCOMPARE(bench.log.lines(), QStringList());
    }

    void identifier()
    {
        static constexpr const char *rows[][2] = {
            {"<msgdata><fan_not_running/></msgdata>", "fan_not_running"},
            {"<msgdata><let_fail><let>3</let><channel>1</channel></let_fail></msgdata>", "let_fail"},
            {"<msgdata><let_fail let=\"3\"/></msgdata>", "let_fail"},
            {"<msgdata><fuse_broken/><let_fail/></msgdata>", "fuse_broken"},
            {"<msgdata/>", ""},
            {"<msgdata>fuse_broken</msgdata>", ""},
            {"<msgdata>x<fuse_broken/></msgdata>", ""},
            {"<msgdata><!-- --><fuse_broken/></msgdata>", ""},
            {"", ""},
            {"<msgdata><fuse_broken/></msgdata><msgdata><let_fail/></msgdata>", "let_fail"}, // a later one overrides
            {"<msgdata><fuse_broken/></msgdata><msgdata/>", "fuse_broken"},                  // unless it is empty
            {"<details><msgdata><fuse_broken/></msgdata></details>", "fuse_broken"},
            {"<msgdata><coffee_is_cold/></msgdata>", "coffee_is_cold"}, // not a known one
        };
        for (const auto &[msgdata, identifier] : rows) {
            const AtRow at(msgdata);
            FaultBench bench;
            QCOMPARE(bench.message("create", messagePath, messageXml(msgdata)),
                     qs("amp|7|%1|Fan stands still|1700000000|err on").arg(qs(identifier)));
        }
    }

    /// After a whole message, of which nothing may be left over.
    void leaves()
    {
        static constexpr const char *rows[][3] = {
            // the predicates, the message and the report
            {"[reporter='a'][rep_ref='b']", "<reporter>a</reporter><rep_ref>b</rep_ref>", "a|b|||| on"},
            {"[reporter=' a/b ]'][rep_ref='x y']",
             "<reporter> a/b ]</reporter><rep_ref>x y</rep_ref><text> K\xc3\xb6ln &lt;1&gt; </text>"
             "<timestamp> </timestamp><level>Err</level>",
             " a/b ]|x y|| K\xc3\xb6ln <1> | |Err on"},
            {"[reporter='amp'][rep_ref='7']", "<level>crit</level>", "amp|7||||crit on"}, // keys from the path alone
            {"[reporter='amp']", "<reporter>amp</reporter><msgdata><let_fail/></msgdata>", ""},
            {"[rep_ref='7']", "<rep_ref>7</rep_ref><msgdata><let_fail/></msgdata>", ""},
            {"", "<text>x</text>", ""},
            {"[reporter='amp'][rep_ref='7']",
             "<reporter>amp</reporter><rep_ref>7</rep_ref><msgdata><let_fail/></msgdata><text>not well-formed", ""},
        };
        for (const auto &[predicates, message, report] : rows) {
            const AtRow at(message);
            FaultBench bench;
            QVERIFY(!bench.message("create", messagePath, messageXml("<msgdata><let_fail/></msgdata>")).isEmpty());
            for (const char *op : {"create", "replace"})
                QCOMPARE(
                    bench.message(op, listPath + qs(predicates), qs("<sys_message>%1</sys_message>").arg(qs(message))),
                    qs(report));
            QCOMPARE(bench.message("create", messagePath + qs("/text"), qs("<text>Fan turns again</text>")), QString());
            QCOMPARE(bench.message("create", listPath, QString()), QString());
            QCOMPARE(bench.log.lines(), QStringList());
        }
    }

    void deletedMessage()
    {
        // clang-format off
        static constexpr const char *rows[][2] = { // predicates, or a whole path
            {"[reporter='amp'][rep_ref='7']",       "amp|7|||| off"},
            {"[rep_ref='7'][reporter='amp']",       "amp|7|||| off"},
            {"[reporter='amp' and rep_ref='7']",    "amp|7|||| off"},
            {"[reporter='a/b ]'][rep_ref='x [1]']", "a/b ]|x [1]|||| off"},
            {"[reporter='rep_ref'][rep_ref='reporter']", "rep_ref|reporter|||| off"},
            {"[reporter='amp'][rep_ref='7']/text",  "amp|7|||| off"}, // one leaf, as the end of the message
            {"/rep_refs/sys_message[reporter='amp'][rep_ref='7']",  "amp|7|||| off"}, // a list named like a key
            {"/reporters/sys_message[rep_ref='7'][reporter='amp']", "7|7|||| off"},
            {"", ""},
            {"[reporter='amp']", ""},
            {"[rep_ref='7']", ""},
            {"[reporter='amp", ""},
            {"[reporter='amp'][id='7']", ""},
            {"[reporter=amp][rep_ref=7]", ""},
            {"[reporter='amp'][rep_ref=", ""},
        };
        // clang-format on
        for (const auto &[text, report] : rows) {
            const AtRow at(text);
            FaultBench bench;
            const QString path = *text == '/' ? qs(text) : listPath + qs(text);
            for (const char *msgdata : {"<msgdata><let_fail/></msgdata>", ""}) // the data is not looked at
                QCOMPARE(bench.message("delete", path, messageXml(msgdata)), qs(report));
            QCOMPARE(bench.message("delete", path, QString()), qs(report));
            QCOMPARE(bench.message("delete", QString(), QString()), QString());
            QCOMPARE(bench.log.lines(), QStringList());
        }
    }
};

const TestEntry entry("tst_systemmessages", runTest<TestSystemMessages>);
#include "tst_systemmessages.moc"
