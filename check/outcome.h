// What one check found.
#pragma once

#include <QString>

#include <utility>

enum class Status : std::uint8_t {
    Ok,
    Warning,      ///< the device may answer all the same, but somebody should look
    Failed,       ///< the device does not do what it should
    Skipped,      ///< could not be looked at, because of an earlier finding
    NotApplicable ///< a device of this model or with these settings has no such thing
};

struct Outcome {
    Status status = Status::Ok;
    QString text;          ///< what is so, in one line
    QString hint;          ///< what to do about it; empty when there is nothing to do
    bool ownCause = false; ///< a failure that follows from no earlier one, whatever else has failed
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
