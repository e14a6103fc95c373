// The Trace log: one object in the process filters, numbers and time-stamps lines. Without it every call is a no-op.
#pragma once

#include <QList>
#include <QMutex>
#include <QObject>
#include <QString>

#include <atomic>
#include <cstdint>

/// Any thread may log. The instance must outlive the threads that do.
class Trace : public QObject {
    Q_OBJECT

public:
    /// Becomes the only instance. A second one ends the process with status -1.
    explicit Trace(QObject *parent);
    ~Trace() override;

    /// Writes one line if `level` is at least the minimum level and `group` shares a bit with the mask.
    static void logId(int group, int level, const QString &a, const QString &b, const QString &c, const QString &text);
    /// Group 1, level 1. By convention `a` is the class or component and `b` the function.
    static void log(const QString &a, const QString &b, const QString &text);
    static void logs(const QString &a, const QString &b, const QString &text);
    static void log(int group, int level, const QString &a, const QString &b, const QString &text);

    /// Sets the minimum level and the group mask; a negative argument keeps that setting.
    static void applyLogFilters(int level, int mask);

    /// The system's text for the current errno.
    static QString getError();

    static void lock();
    static void unlock();

    static Trace *instance;
    static QMutex traceMutex;        ///< not recursive: serialises formatting, output and the signal
    static QList<quint64> threadIds; ///< in the order in which each thread first logged; never shrinks
    static std::int32_t linenumber;  ///< number of the next line
    static bool syncLogging;         ///< inert: no code reads it
    static bool blockOnFullQueue;    ///< inert: no code reads it

Q_SIGNALS:
    /// Emitted from the logging thread with `traceMutex` held: a directly connected slot must not log.
    void LogMessage(QString line);

public Q_SLOTS:
    void toggleConsolePrint();

private:
    bool accepts(int group, int level) const;

    // Atomic, because the filter is tested without the mutex.
    std::atomic<bool> m_consolePrint = false;
    std::atomic<std::int32_t> m_groupMask = 65535;
    std::atomic<std::int32_t> m_minimumLevel = 1;
};

/// Renders the current local time with milliseconds into one shared, always terminated buffer and returns it.
/// Callers on more than one thread hold `Trace::traceMutex`.
const char *updateTimestamp();
