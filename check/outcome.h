// The result of one check.
#pragma once

#include <QString>

#include <utility>

enum class Status : std::uint8_t {
    Ok,
    Warning,      ///< the device may still answer, but needs attention
    Failed,       ///< the device has a fault
    Skipped,      ///< not checked, because of an earlier finding
    NotApplicable ///< does not apply to this model or these settings
};

struct Outcome {
    Status status = Status::Ok;
    QString text;          ///< the state, in one line
    QString hint;          ///< the action; empty if none is needed
    bool ownCause = false; ///< a failure that never follows from an earlier one
};

inline Outcome ok(QString text)
{
    return {Status::Ok, std::move(text), {}};
}

inline Outcome warning(QString text, QString hint)
{
    return {Status::Warning, std::move(text), std::move(hint)};
}

inline Outcome failed(QString text, QString hint)
{
    return {Status::Failed, std::move(text), std::move(hint)};
}

inline Outcome failedByItself(QString text, QString hint)
{
    return {Status::Failed, std::move(text), std::move(hint), true};
}

inline Outcome skipped(QString text)
{
    return {Status::Skipped, std::move(text), {}};
}

inline Outcome notApplicable(QString text)
{
    return {Status::NotApplicable, std::move(text), {}};
}
