// Keeps the log lines of a test and makes a failed string-based connection a failed test.
#pragma once

#include <QtTest>

/// While one lives it takes every Qt log line. A connection that Qt refuses ("QObject::connect: ...") fails the test
/// that is running. Logs may be nested; the innermost one takes the line.
class MessageLog {
public:
    MessageLog() : m_outer(s_current)
    {
        s_current = this;
        m_previous = qInstallMessageHandler(&MessageLog::take);
    }
    ~MessageLog()
    {
        qInstallMessageHandler(m_previous);
        s_current = m_outer;
    }
    Q_DISABLE_COPY(MessageLog)

    /// The lines of every level since the start or the last `takeLines()`, oldest first.
    const QStringList &lines() const { return m_lines; }
    /// How many of them are above the level of debug lines.
    int warnings() const { return m_warnings; }

    QStringList takeLines()
    {
        m_warnings = 0;
        return std::exchange(m_lines, {});
    }

private:
    static void take(QtMsgType type, const QMessageLogContext &context, const QString &text)
    {
        if (type == QtFatalMsg && s_current->m_previous)
            s_current->m_previous(type, context, text); // ends the process, as it should
        if (type != QtDebugMsg && text.startsWith(QLatin1String("QObject::connect")))
            QTest::qFail(qPrintable(text), __FILE__, __LINE__);
        s_current->m_lines.append(text);
        s_current->m_warnings += type == QtDebugMsg ? 0 : 1;
    }

    inline static MessageLog *s_current = nullptr;
    MessageLog *m_outer;
    QtMessageHandler m_previous = nullptr;
    QStringList m_lines;
    int m_warnings = 0;
};
