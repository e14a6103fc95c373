// A settings handler on the bench: files in a folder of its own, commands and system log lines only written down.
#pragma once

#include "support/talbench.h"

#include "agent/kvagent.h"
#include "device/boundedtext.h"
#include "snmpdconf/snmpdconfhandler.h"

#include <QAbstractEventDispatcher>
#include <QDir>
#include <QFile>
#include <QSignalSpy>
#include <QTemporaryDir>
#include <QTimer>
#include <QtTest>

#include <functional>

#include <syslog.h>

/// Nothing leaves the bench: what the handler would have run or logged becomes one event text each, in order.
class SnmpdBench {
public:
    explicit SnmpdBench(const QString &missingFolder = {})
        : folder(dir.filePath(missingFolder.isEmpty() ? QStringLiteral("snmp") : missingFolder)),
          configFile(folder + QStringLiteral("/snmpd.conf")),
          pidFile(dir.filePath(QStringLiteral("snmpd.pid")))
    {
        if (missingFolder.isEmpty())
            QDir().mkpath(folder);
        tal.log.takeLines();
        handler.reset(new SnmpdConfHandler(nullptr, &tal.handler, host()));
        QObject::connect(handler.data(), &SnmpdConfHandler::signalSnmpdConfFinish, handler.data(),
                         [this] { events.append(QStringLiteral("finish")); });
    }
    ~SnmpdBench()
    {
        handler.reset();
        kvAgent = nullptr;
    }
    SnmpdBench(const SnmpdBench &) = delete;
    SnmpdBench &operator=(const SnmpdBench &) = delete;

    /// The usual settings with read access, and no custom file, as the data service tells them at its start.
    void deliverSettings()
    {
        Q_EMIT tal.handler.signalSnmpdConfMib2Settings({qs("amp-1"), qs("cellar"), qs("ops")});
        Q_EMIT tal.handler.signalSnmpdConfAccessSettings(access());
        Q_EMIT tal.handler.signalSnmpdConfTrapSettings({qs("192.0.2.7"), qs("192.0.2.8")});
        Q_EMIT tal.handler.signalSnmpdConfVersionSettings({false, true, false});
        Q_EMIT tal.handler.signalSnmpdConfUseCustomConfFile(false);
    }

    static SnmpAccessSettings access()
    {
        return {qs("public"), qs("Read"), qs("192.0.2.1"), qs("2001:db8::1"), qs("161")};
    }

    /// One of the handler's timers, by its interval.
    QTimer *timer(int intervalMs) const
    {
        for (QTimer *timer : handler->findChildren<QTimer *>())
            if (timer->interval() == intervalMs)
                return timer;
        return nullptr;
    }
    QTimer *settingsTimer() const { return timer(300); }
    QTimer *restartTimer() const { return timer(500); }
    QTimer *watchdogTimer() const { return timer(600000); }

    /// Lets the running countdown of a timer last a minute, so that a start anew is seen without waiting.
    static void prolong(QTimer *timer)
    {
        auto *dispatcher = QAbstractEventDispatcher::instance();
        dispatcher->unregisterTimer(timer->timerId());
        dispatcher->registerTimer(timer->timerId(), 60000, timer->timerType(), timer);
    }
    static bool isProlonged(const QTimer *timer) { return timer->remainingTime() > 30000; }

    /// Runs the settings timer out at once.
    void settle() { handler->slotSnmpdConfSysSettingUpdate(); }

    QByteArray configText() const { return read(configFile); }

    static QByteArray read(const QString &path)
    {
        QFile file(path);
        return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(cannot be read)");
    }
    static void write(const QString &path, const QByteArray &text)
    {
        QFile file(path);
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(file.write(text), qint64{text.size()});
    }

    int count(const QString &event) const { return static_cast<int>(events.count(event)); }

    /// The agent's record is there from now on; its system name starts as "before".
    void startAgent()
    {
        copyBounded(agent.systemName, "before");
        kvAgent = &agent;
    }
    QString agentName() const { return QString::fromLatin1(agent.systemName); }

    QTemporaryDir dir;
    QString folder;
    QString configFile;
    QString pidFile;
    QStringList events; ///< "run: ...", "start: ...", "probe(ms): ...", "log(priority): ...", "finish"
    QByteArray probeOutput = "8192\n";
    /// What a command that is run, or started detached, does: snmpd writes its pid file, and removes it at its end.
    std::function<void(const Command &)> onRun = [this](const Command &command) {
        if (command.program == QLatin1String("killall"))
            QFile::remove(pidFile);
    };
    std::function<void(const Command &)> onStart = [this](const Command &) {
        QFile file(pidFile);
        if (file.open(QIODevice::WriteOnly))
            file.write("1\n");
    };
    KvAgent agent{};
    TalBench tal{6410};
    QScopedPointer<SnmpdConfHandler> handler;

private:
    /// The words of a command between bars, so that a blank inside one shows.
    static QString words(const Command &command)
    {
        return (QStringList{command.program} + command.arguments).join(QLatin1Char('|'));
    }

    SnmpdHost host()
    {
        return {
            configFile,
            folder + QLatin1Char('/'),
            pidFile,
            [this](const Command &command) {
                events.append(qs("run: ") + words(command));
                onRun(command);
            },
            [this](const Command &command) {
                events.append(qs("start: ") + words(command));
                onStart(command);
            },
            [this](const Command &command, int timeoutMs) {
                events.append(qs("probe(%1): %2").arg(QString::number(timeoutMs), words(command)));
                return probeOutput;
            },
            [this](int priority, const QByteArray &text) {
                events.append(qs("log(%1): %2").arg(QString::number(priority), QString::fromUtf8(text)));
            },
        };
    }
};

inline const QString settledEvent = qs("log(%1): Tal System Config settled").arg(LOG_INFO);
