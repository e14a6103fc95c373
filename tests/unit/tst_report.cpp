// The report of the self-check: causes, consequences, what is not looked at, and its two forms.
#include "support/testprogram.h"

#include "check/checks.h"
#include "check/report.h"
#include "check/subject.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QSet>
#include <QtTest>

namespace {

int looks = 0;

Outcome good(Subject &)
{
    return ok(QStringLiteral("good"));
}

Outcome bad(Subject &)
{
    ++looks;
    return failed(QStringLiteral("bad"), QStringLiteral("mend it"));
}

Outcome badByItself(Subject &)
{
    return failedByItself(QStringLiteral("bad"), QStringLiteral("mend it"));
}

Outcome doubtful(Subject &)
{
    return warning(QStringLiteral("doubtful"), QStringLiteral("look at it"));
}

Report reportOf(std::span<const Check> checks)
{
    looks = 0;
    Subject subject(100);
    Report report;
    for (const Check &check : checks)
        report.add(check, subject);
    return report;
}

QStringList becauses(const Report &report)
{
    QStringList because;
    for (const Finding &finding : report.findings())
        because.append(finding.because);
    return because;
}

} // namespace

class TestReport : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void aFailureThatFollowsFromAnEarlierOneIsNoCause()
    {
        const Check checks[] = {{"a", "A", {}, {}, bad}, {"b", "B", {}, {"a"}, bad}, {"c", "C", {}, {"a"}, good}};
        const Report report = reportOf(checks);
        QCOMPARE(becauses(report), (QStringList{QString(), QStringLiteral("a"), QString()}));
        QCOMPARE(report.causes().size(), std::size_t{1});
        QCOMPARE(report.count(Status::Failed), 2);
        QVERIFY(report.hasFailed());
    }

    void theCauseIsTheFirstOfTheChain()
    {
        const Check checks[] = {{"a", "A", {}, {}, bad},
                                {"b", "B", {"a"}, {}, bad},
                                {"c", "C", {}, {"b"}, bad},
                                {"d", "D", {"c"}, {}, bad}};
        QCOMPARE(becauses(reportOf(checks)),
                 (QStringList{QString(), QStringLiteral("a"), QStringLiteral("a"), QStringLiteral("a")}));
    }

    void whatNeedsAFailedCheckIsNotLookedAt()
    {
        const Check checks[] = {{"a", "A", {}, {}, bad}, {"b", "B", {"a"}, {}, bad}};
        const Report report = reportOf(checks);
        QCOMPARE(looks, 1);
        QCOMPARE(report.findings()[1].outcome.status, Status::Skipped);
    }

    void aCauseOfItsOwnStaysOne()
    {
        const Check checks[] = {{"a", "A", {}, {}, bad}, {"b", "B", {}, {"a"}, badByItself}};
        QCOMPARE(reportOf(checks).causes().size(), std::size_t{2});
    }

    void aWarningIsNoCause()
    {
        const Check checks[] = {
            {"a", "A", {}, {}, doubtful}, {"b", "B", {"a"}, {}, good}, {"c", "C", {}, {"a"}, doubtful}};
        const Report report = reportOf(checks);
        QVERIFY(!report.hasFailed());
        QVERIFY(report.causes().empty());
        QCOMPARE(summaryOf(report), QStringLiteral("1 ok, 2 warning\n"));
    }

    void textHasTheHintOfACauseOnly()
    {
        const Check checks[] = {{"a", "A", {}, {}, bad}, {"b", "B", {}, {"a"}, bad}};
        const Report report = reportOf(checks);
        QCOMPARE(textOf(report.findings()[0]),
                 QStringLiteral("failed         a                     bad\n    hint: mend it\n"));
        QCOMPARE(textOf(report.findings()[1]),
                 QStringLiteral("failed         b                     bad (follows from a)\n"));
        QCOMPARE(summaryOf(report), QStringLiteral("2 failed\ncause: a: bad\n"));
    }

    void json()
    {
        const Check checks[] = {{"a", "A", {}, {}, bad}, {"b", "B", {}, {"a"}, bad}, {"c", "C", {}, {}, good}};
        const Report report = reportOf(checks);
        const QJsonObject whole = QJsonDocument::fromJson(jsonOf(report, 6420)).object();
        QCOMPARE(whole[QStringLiteral("format")].toInt(), 1);
        QCOMPARE(whole[QStringLiteral("model")].toInt(), 6420);
        QCOMPARE(whole[QStringLiteral("failed")].toBool(), true);
        QCOMPARE(whole[QStringLiteral("causes")].toArray(), QJsonArray{QStringLiteral("a")});
        QCOMPARE(whole[QStringLiteral("counts")].toObject()[QStringLiteral("failed")].toInt(), 2);
        QCOMPARE(whole[QStringLiteral("counts")].toObject()[QStringLiteral("skipped")].toInt(-1), 0);
        const QJsonObject second = whole[QStringLiteral("checks")].toArray()[1].toObject();
        QCOMPARE(second[QStringLiteral("id")].toString(), QStringLiteral("b"));
        QCOMPARE(second[QStringLiteral("because")].toString(), QStringLiteral("a"));
        QCOMPARE(second[QStringLiteral("status")].toString(), QStringLiteral("failed"));
        QVERIFY(QJsonDocument::fromJson(jsonOf(report, 0)).object()[QStringLiteral("model")].isNull());
    }

    void orderOfTheChecksIsTested()
    {
        constexpr Check inOrder[] = {{"a", "A", {}, {}, nullptr}, {"b", "B", {"a"}, {"a"}, nullptr}};
        constexpr Check unknown[] = {{"a", "A", {}, {}, nullptr}, {"b", "B", {"a", "x"}, {}, nullptr}};
        constexpr Check later[] = {{"a", "A", {}, {"b"}, nullptr}, {"b", "B", {}, {}, nullptr}};
        static_assert(isInOrder(inOrder));
        static_assert(!isInOrder(unknown));
        static_assert(!isInOrder(later));
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
