// Runs the checks in order, separates causes from consequences, and writes the result.
#include "check/report.h"

#include "device/latin1.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QJsonObject>
#include <QStringList>

#include <algorithm>

namespace {

constexpr int jsonFormat = 1; // increase it when a key changes its meaning or is removed

constexpr Status allStatuses[] = {Status::Ok, Status::Warning, Status::Failed, Status::Skipped, Status::NotApplicable};

QJsonObject objectOf(const Finding &finding)
{
    return {
        {QStringLiteral("id"), finding.id},
        {QStringLiteral("title"), finding.title},
        {QStringLiteral("status"), wordOf(finding.outcome.status)},
        {QStringLiteral("text"), finding.outcome.text},
        {QStringLiteral("hint"), finding.outcome.hint},
        {QStringLiteral("because"), finding.because},
    };
}

} // namespace

QString wordOf(Status status)
{
    switch (status) {
    case Status::Ok:
        return QStringLiteral("ok");
    case Status::Warning:
        return QStringLiteral("warning");
    case Status::Failed:
        return QStringLiteral("failed");
    case Status::Skipped:
        return QStringLiteral("skipped");
    case Status::NotApplicable:
        return QStringLiteral("not-applicable");
    }
    return {};
}

void Report::add(const Check &check, Subject &subject)
{
    Finding finding{latin1(check.id), latin1(check.title), {}, causeAmong(check.needs)};
    if (finding.because.isEmpty()) {
        finding.outcome = check.look(subject);
        if (finding.outcome.status == Status::Failed && !finding.outcome.ownCause)
            finding.because = causeAmong(check.follows);
    } else {
        finding.outcome = skipped(QStringLiteral("not checked"));
    }
    m_findings.push_back(std::move(finding));
}

QString Report::causeAmong(const CheckIds &ids) const
{
    for (const char *id : ids.ids) {
        const auto earlier = std::find_if(m_findings.begin(), m_findings.end(),
                                          [&](const Finding &finding) { return finding.id == QLatin1String(id); });
        if (earlier == m_findings.end())
            continue;
        if (!earlier->because.isEmpty())
            return earlier->because;
        if (earlier->outcome.status == Status::Failed)
            return earlier->id;
    }
    return {};
}

bool Report::hasFailed() const
{
    return count(Status::Failed) > 0;
}

std::vector<Finding> Report::causes() const
{
    std::vector<Finding> causes;
    std::copy_if(m_findings.begin(), m_findings.end(), std::back_inserter(causes), [](const Finding &finding) {
        return finding.outcome.status == Status::Failed && finding.because.isEmpty();
    });
    return causes;
}

int Report::count(Status status) const
{
    return static_cast<int>(std::count_if(m_findings.begin(), m_findings.end(),
                                          [&](const Finding &finding) { return finding.outcome.status == status; }));
}

namespace {

const char *colourOf(Status status)
{
    switch (status) {
    case Status::Ok:
        return "32"; // green
    case Status::Warning:
        return "33"; // yellow
    case Status::Failed:
        return "1;31"; // bold red
    case Status::Skipped:
    case Status::NotApplicable:
        break;
    }
    return "2"; // dim
}

QString coloured(const QString &text, Status status, Colours colours)
{
    if (colours == Colours::Without)
        return text;
    return QStringLiteral("\x1b[%1m%2\x1b[0m").arg(QLatin1String(colourOf(status)), text);
}

} // namespace

QString textOf(const Finding &finding, Colours colours)
{
    constexpr int statusWidth = -15;
    constexpr int idWidth = -22;
    const Status status = finding.outcome.status;
    QString text = coloured(QStringLiteral("%1").arg(wordOf(status), statusWidth), status, colours);
    text += QStringLiteral("%1").arg(finding.id, idWidth) + finding.outcome.text;
    if (!finding.because.isEmpty())
        text += QStringLiteral(" (follows from %1)").arg(finding.because);
    text += QLatin1Char('\n');
    // The hint of a consequence would distract from the cause.
    if (!finding.outcome.hint.isEmpty() && finding.because.isEmpty())
        text += QStringLiteral("    hint: ") + finding.outcome.hint + QLatin1Char('\n');
    return text;
}

QString summaryOf(const Report &report, Colours colours)
{
    QStringList counts;
    for (const Status status : allStatuses)
        if (const int count = report.count(status); count > 0)
            counts.append(QStringLiteral("%1 %2").arg(count).arg(wordOf(status)));
    QString text = counts.join(QStringLiteral(", ")) + QLatin1Char('\n');
    for (const Finding &cause : report.causes())
        text += coloured(QStringLiteral("cause"), Status::Failed, colours) +
                QStringLiteral(": %1: %2\n").arg(cause.id, cause.outcome.text);
    return text;
}

QString nagiosLineOf(const Report &report)
{
    const char *state = "OK";
    std::vector<Finding> shown;
    if (report.hasFailed()) {
        state = "CRITICAL";
        shown = report.causes();
    } else if (report.count(Status::Warning) > 0) {
        state = "WARNING";
        std::copy_if(report.findings().begin(), report.findings().end(), std::back_inserter(shown),
                     [](const Finding &finding) { return finding.outcome.status == Status::Warning; });
    }
    QStringList texts;
    for (const Finding &finding : shown)
        texts.append(finding.id + QStringLiteral(": ") + finding.outcome.text);
    if (texts.isEmpty())
        texts.append(QStringLiteral("%1 checks").arg(report.count(Status::Ok)));
    // A bar begins the performance data.
    const QString text = texts.join(QStringLiteral("; ")).replace(QLatin1Char('|'), QLatin1Char('/')).simplified();
    QStringList counts;
    for (const Status status : allStatuses)
        counts.append(QStringLiteral("%1=%2").arg(wordOf(status)).arg(report.count(status)));
    return QStringLiteral("KVSNMP %1 - %2 | %3\n").arg(QLatin1String(state), text, counts.join(QLatin1Char(' ')));
}

QByteArray jsonOf(const Report &report, quint32 model)
{
    QJsonArray checks;
    for (const Finding &finding : report.findings())
        checks.append(objectOf(finding));
    QJsonArray causes;
    for (const Finding &cause : report.causes())
        causes.append(cause.id);
    QJsonObject counts;
    for (const Status status : allStatuses)
        counts.insert(wordOf(status), report.count(status));
    const QJsonObject whole{
        {QStringLiteral("format"), jsonFormat},
        {QStringLiteral("version"), QStringLiteral(KVSNMP_VERSION)},
        {QStringLiteral("model"), model == 0 ? QJsonValue() : QJsonValue(static_cast<int>(model))},
        {QStringLiteral("failed"), report.hasFailed()},
        {QStringLiteral("causes"), causes},
        {QStringLiteral("counts"), counts},
        {QStringLiteral("checks"), checks},
    };
    return QJsonDocument(whole).toJson(QJsonDocument::Indented);
}
