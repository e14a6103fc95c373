// The Trace log: filtering, formatting and output of one line.
#include "app/trace/trace.h"

#include <QDebug>
#include <QMutexLocker>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <sys/time.h>

Trace *Trace::instance = nullptr;
QMutex Trace::traceMutex;
QList<quint64> Trace::threadIds;
std::int32_t Trace::linenumber = 1;
bool Trace::syncLogging = false;
bool Trace::blockOnFullQueue = false;

namespace {

char timestampBuffer[256];

/// The calling thread's number, from 1 in the order of their first lines. Requires the mutex.
int threadNumber()
{
    const auto id = static_cast<quint64>(pthread_self());
    if (!Trace::threadIds.contains(id))
        Trace::threadIds.append(id);
    return Trace::threadIds.indexOf(id) + 1;
}

} // namespace

Trace::Trace(QObject *parent) : QObject(parent)
{
    if (instance != nullptr)
        std::exit(-1);
    instance = this;
}

Trace::~Trace()
{
    instance = nullptr;
}

bool Trace::accepts(int group, int level) const
{
    return level >= m_minimumLevel && (group & m_groupMask) != 0;
}

void Trace::logId(int group, int level, const QString &a, const QString &b, const QString &c, const QString &text)
{
    if (instance == nullptr || !instance->accepts(group, level))
        return;
    const QMutexLocker locker(&traceMutex);
    const QString time = QString::fromLocal8Bit(updateTimestamp());
    // All placeholders in one call, so that a text that looks like a placeholder stays unchanged.
    const QString line =
        QStringLiteral("%1 %2 %3 %4 %5, tid=%6, %7")
            .arg(QString::number(linenumber).rightJustified(5), a.leftJustified(30), b.leftJustified(20),
                 c.leftJustified(20), text.leftJustified(80), QString::number(threadNumber()), time);
    if (instance->m_consolePrint)
        qDebug().noquote() << line;
    Q_EMIT instance->LogMessage(line);
    ++linenumber;
}

void Trace::log(const QString &a, const QString &b, const QString &text)
{
    logId(1, 1, a, b, QString(), text);
}

void Trace::logs(const QString &a, const QString &b, const QString &text)
{
    logId(1, 1, a, b, QString(), text);
}

void Trace::log(int group, int level, const QString &a, const QString &b, const QString &text)
{
    logId(group, level, a, b, QString(), text);
}

void Trace::applyLogFilters(int level, int mask)
{
    if (instance == nullptr)
        return;
    const auto announce = [](const QString &text) {
        logId(1, 2, QStringLiteral("Trace"), QStringLiteral("applyLogFilters"), QString(), text);
    };
    // Each change is logged with the settings that it replaces.
    if (level >= 0) {
        announce(QStringLiteral("Setting LogLevel to: %1").arg(level));
        instance->m_minimumLevel = level;
    }
    if (mask >= 0) {
        announce(QStringLiteral("Setting GroupFilter Mask to: %1").arg(mask, 16, 2));
        instance->m_groupMask = mask;
    }
}

void Trace::toggleConsolePrint()
{
    m_consolePrint = !m_consolePrint;
}

QString Trace::getError()
{
    const int number = errno;
    char buffer[256] = "";
    const char *text = strerror_r(number, buffer, sizeof buffer);
    if (text == nullptr)
        return QStringLiteral("<unknown error> = %1").arg(number);
    return QString::fromLocal8Bit(text);
}

void Trace::lock()
{
    traceMutex.lock();
}

void Trace::unlock()
{
    traceMutex.unlock();
}

const char *updateTimestamp()
{
    timestampBuffer[0] = '\0';
    timeval now{};
    if (gettimeofday(&now, nullptr) == 0) {
        tm local{};
        localtime_r(&now.tv_sec, &local);
        if (std::strftime(timestampBuffer, sizeof timestampBuffer, "%Y-%m-%d %H:%M:%S", &local) == 0)
            timestampBuffer[0] = '\0';
    }
    const std::size_t used = std::strlen(timestampBuffer);
    std::snprintf(timestampBuffer + used, sizeof timestampBuffer - used, ".%3.3ld",
                  static_cast<long>(now.tv_usec / 1000));
    timestampBuffer[sizeof timestampBuffer - 1] = '\0';
    return timestampBuffer;
}
