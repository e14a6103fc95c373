// Runs the checks in order, separates causes from consequences, and writes the result.
#pragma once

#include "check/outcome.h"

#include <QByteArray>
#include <QString>

#include <iterator>
#include <span>
#include <string_view>
#include <vector>

struct Subject;

/// Up to this many earlier checks; unused places are null.
struct CheckIds {
    const char *ids[6];
};

struct Check {
    std::string_view id;    ///< stable: scripts use it
    std::string_view title; ///< for humans
    CheckIds needs;         ///< the check is skipped if one of these has failed
    CheckIds follows;       ///< the check still runs; if it also fails, the earlier failure is the cause
    Outcome (*look)(Subject &subject);
};

/// True if every id in a check's lists belongs to an earlier check.
template <std::size_t count>
constexpr bool isInOrder(const Check (&checks)[count])
{
    for (std::size_t i = 0; i < count; ++i) {
        for (std::size_t place = 0; place < 2 * std::size(checks[i].needs.ids); ++place) {
            const CheckIds &list = place % 2 == 0 ? checks[i].needs : checks[i].follows;
            const char *id = list.ids[place / 2];
            bool found = id == nullptr;
            for (std::size_t earlier = 0; earlier < i; ++earlier)
                found = found || checks[earlier].id == std::string_view(id);
            if (!found)
                return false;
        }
    }
    return true;
}

struct Finding {
    QString id;
    QString title;
    Outcome outcome;
    QString because; ///< id of the failed check that is the cause; empty for a cause
};

class Report {
public:
    void add(const Check &check, Subject &subject);

    const std::vector<Finding> &findings() const { return m_findings; }
    bool hasFailed() const;
    /// The failures that do not follow from others.
    std::vector<Finding> causes() const;
    int count(Status status) const;

private:
    /// The cause at the end of the chain from the first failed check of `ids`; empty without one.
    QString causeAmong(const CheckIds &ids) const;

    std::vector<Finding> m_findings;
};

/// "ok", "warning", "failed", "skipped" or "not-applicable".
QString wordOf(Status status);

/// Whether a text contains a terminal's colours.
enum class Colours : std::uint8_t { Without, With };

/// One line, and the hint below it, if any.
QString textOf(const Finding &finding, Colours colours = Colours::Without);
/// The last lines: the counts, and the causes to fix first.
QString summaryOf(const Report &report, Colours colours = Colours::Without);
/// One line as of a monitoring plugin: the state, the causes or the warnings, and the counts as performance data.
QString nagiosLineOf(const Report &report);
/// The whole report as one JSON object; the manual page lists its keys.
QByteArray jsonOf(const Report &report, quint32 model);
