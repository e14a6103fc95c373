// The report of the self-check: causes, consequences, skipped checks, and its two forms.
#include "support/testprogram.h"

#include "check/checks.h"
#include "check/options.h"
#include "check/report.h"
#include "check/subject.h"

namespace {
int badLooks = 0;

constexpr auto good = [](Subject &) { return ok(QStringLiteral("good")); };
constexpr auto doubtful = [](Subject &) { return warning(QStringLiteral("doubtful"), QStringLiteral("look at it")); };
constexpr auto bad = [](Subject &) {
    ++badLooks;
    return failed(QStringLiteral("bad"), QStringLiteral("repair it"));
};
constexpr auto badByItself = [](Subject &) {
    return failedByItself(QStringLiteral("bad"), QStringLiteral("repair it"));
};

Report reportOf(const std::vector<Check> &checks)
{
    Subject subject(100);
    Report report;
    for (const Check &check : checks)
        report.add(check, subject);
    return report;
}

/// "a failed, b skipped because of a".
QString findingsOf(const Report &report)
{
    QStringList findings;
    for (const Finding &finding : report.findings())
        findings += finding.id + QLatin1Char(' ') + wordOf(finding.outcome.status) +
                    (finding.because.isEmpty() ? QString() : QStringLiteral(" because of ") + finding.because);
    return findings.join(QStringLiteral(", "));
}

QJsonObject objectOf(const QByteArray &text)
{
    return QJsonDocument::fromJson(text).object();
}

constexpr char wholeJson[] = R"({
    "format": 1, "version": ")" KVSNMP_VERSION R"(", "model": 6420, "failed": true, "causes": ["a"],
    "counts": {"ok": 1, "warning": 0, "failed": 2, "skipped": 0, "not-applicable": 0}})";
constexpr char consequenceJson[] =
    R"({"id": "b", "title": "B", "status": "failed", "text": "bad", "hint": "repair it", "because": "a"})";

constexpr Check inOrder[] = {{"a", "A", {}, {}, nullptr}, {"b", "B", {"a"}, {"a"}, nullptr}};
constexpr Check unknown[] = {{"a", "A", {}, {}, nullptr}, {"b", "B", {"a", "x"}, {}, nullptr}};
constexpr Check later[] = {{"a", "A", {}, {"b"}, nullptr}, {"b", "B", {}, {}, nullptr}};
static_assert(isInOrder(inOrder) && !isInOrder(unknown) && !isInOrder(later));
} // namespace

class TestReport : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void causesAndConsequences()
    {
        // clang-format off
        const struct {
            const char *name; std::vector<Check> checks; int badLooks; const char *findings; const char *summary;
        } rows[] = {
            {"a failure that follows from an earlier one is no cause",
             {{"a", "A", {}, {}, bad}, {"b", "B", {}, {"a"}, bad}, {"c", "C", {}, {"a"}, good}}, 2,
             "a failed, b failed because of a, c ok", "1 ok, 2 failed\ncause: a: bad\n"},
            {"the cause is the first of the chain, and nobody looks at a check that needs a failed one",
             {{"a", "A", {}, {}, bad}, {"b", "B", {"a"}, {}, bad}, {"c", "C", {}, {"b"}, bad},
              {"d", "D", {"c"}, {}, bad}}, 2,
             "a failed, b skipped because of a, c failed because of a, d skipped because of a",
             "2 failed, 2 skipped\ncause: a: bad\n"},
            {"a cause by itself stays one",
             {{"a", "A", {}, {}, bad}, {"b", "B", {}, {"a"}, badByItself}}, 1,
             "a failed, b failed", "2 failed\ncause: a: bad\ncause: b: bad\n"},
            {"a warning is no cause",
             {{"a", "A", {}, {}, doubtful}, {"b", "B", {"a"}, {}, good}, {"c", "C", {}, {"a"}, doubtful}}, 0,
             "a warning, b ok, c warning", "1 ok, 2 warning\n"},
        };
        // clang-format on
        for (const auto &row : rows) {
            const AtRow at(row.name);
            badLooks = 0;
            const Report report = reportOf(row.checks);
            QCOMPARE(badLooks, row.badLooks);
            QCOMPARE(findingsOf(report), QLatin1String(row.findings));
            QCOMPARE(summaryOf(report), QLatin1String(row.summary));
            QCOMPARE(report.hasFailed(), badLooks > 0);
        }
    }

    void textHasTheHintOfACauseOnly()
    {
        const Report report = reportOf({{"a", "A", {}, {}, bad}, {"b", "B", {}, {"a"}, bad}});
        QCOMPARE(textOf(report.findings()[0]),
                 QStringLiteral("failed         a                     bad\n    hint: repair it\n"));
        QCOMPARE(textOf(report.findings()[1]),
                 QStringLiteral("failed         b                     bad (follows from a)\n"));
    }

    void colours()
    {
        const Report report = reportOf({{"a", "A", {}, {}, good}, {"b", "B", {}, {}, bad}});
        QCOMPARE(textOf(report.findings()[0], Colours::With),
                 QStringLiteral("\x1b[32mok             \x1b[0ma                     good\n"));
        QCOMPARE(summaryOf(report, Colours::With), QStringLiteral("1 ok, 1 failed\n\x1b[1;31mcause\x1b[0m: b: bad\n"));
        QVERIFY(wantsColours(true, "", "xterm"));
        QVERIFY(!wantsColours(false, "", "xterm") && !wantsColours(true, "1", "xterm"));
        QVERIFY(!wantsColours(true, "", "dumb") && !wantsColours(true, "", ""));
    }

    void nagiosLine()
    {
        constexpr auto bar = [](Subject &) { return failed(QStringLiteral("a|b\nc"), QStringLiteral("repair it")); };
        const Check fine{"a", "A", {}, {}, good};
        const Check warned{"w", "W", {}, {}, doubtful};
        const Check broken{"x", "X", {}, {}, bar};
        const Check follows{"y", "Y", {"x"}, {}, bad};
        QCOMPARE(nagiosLineOf(reportOf({fine, fine})),
                 QStringLiteral("KVSNMP OK - 2 checks | ok=2 warning=0 failed=0 skipped=0 not-applicable=0\n"));
        QCOMPARE(nagiosLineOf(reportOf({fine, warned})),
                 QStringLiteral("KVSNMP WARNING - w: doubtful | ok=1 warning=1 failed=0 skipped=0 not-applicable=0\n"));
        QCOMPARE(nagiosLineOf(reportOf({warned, broken, follows})),
                 QStringLiteral("KVSNMP CRITICAL - x: a/b c | ok=0 warning=1 failed=1 skipped=1 not-applicable=0\n"));
    }

    void json()
    {
        const Report report = reportOf({{"a", "A", {}, {}, bad}, {"b", "B", {}, {"a"}, bad}, {"c", "C", {}, {}, good}});
        QJsonObject whole = objectOf(jsonOf(report, 6420));
        const QJsonArray checks = whole.take(QStringLiteral("checks")).toArray();
        QCOMPARE(whole, objectOf(wholeJson));
        QCOMPARE(checks.size(), 3);
        QCOMPARE(checks[1].toObject(), objectOf(consequenceJson));
        QVERIFY(objectOf(jsonOf(report, 0))[QStringLiteral("model")].isNull());
    }

    void idsAreUnique()
    {
        QSet<QByteArray> ids;
        for (const Check &check : checkList()) {
            ids.insert(QByteArray(check.id.data(), static_cast<int>(check.id.size())));
            QVERIFY(check.look != nullptr);
        }
        QCOMPARE(static_cast<std::size_t>(ids.size()), checkList().size());
    }
};

const TestEntry entry("tst_report", runTest<TestReport>);
#include "tst_report.moc"
