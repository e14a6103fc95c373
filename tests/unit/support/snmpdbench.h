// A settings handler on the bench: files in a temporary folder, commands and system log lines are only recorded.
#pragma once

#include "support/files.h"
#include "support/talbench.h"

#include "agent/kvagent.h"
#include "device/boundedtext.h"
#include "snmpdconf/snmpdconfhandler.h"

#include <functional>

#include <syslog.h>

inline QString logEvent(int priority, const char *text)
{
    return qs("log(%1): %2").arg(QString::number(priority), qs(text));
}

inline const QString settledEvent = logEvent(LOG_INFO, "Tal System Config settled");
inline const QString killallEvent = qs("run: killall|snmpd");
inline const QString finishEvent = qs("finish");

/// Nothing leaves the bench: each command and log line of the handler becomes one event text, in order.
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
                         [this] { events.append(finishEvent); });
    }
    ~SnmpdBench()
    {
        handler.reset();
        kvAgent = nullptr;
    }
    Q_DISABLE_COPY(SnmpdBench)

    /// One signal of the data service's client: "mib2 NAME LOCATION CONTACT", "access COMMUNITY ACCESS IP IPV6 PORT",
    /// "trap ADDRESS INFORM", "version 1 1 0", "custom 1". An empty text is a "-".
    void change(const char *signal)
    {
        QStringList words = qs(signal).split(QLatin1Char(' '));
        words.replaceInStrings(QRegularExpression(qs("^-$")), QString());
        const QString kind = words.takeFirst();
        const auto isOn = [&](int place) { return words[place] == QLatin1String("1"); };
        if (kind == qs("mib2"))
            Q_EMIT tal.handler.signalSnmpdConfMib2Settings({words[0], words[1], words[2]});
        else if (kind == qs("access"))
            Q_EMIT tal.handler.signalSnmpdConfAccessSettings({words[0], words[1], words[2], words[3], words[4]});
        else if (kind == qs("trap"))
            Q_EMIT tal.handler.signalSnmpdConfTrapSettings({words[0], words[1]});
        else if (kind == qs("version"))
            Q_EMIT tal.handler.signalSnmpdConfVersionSettings({isOn(0), isOn(1), isOn(2)});
        else
            Q_EMIT tal.handler.signalSnmpdConfUseCustomConfFile(isOn(0));
    }

    /// The usual settings with read access, as the data service delivers them at its start.
    void deliverSettings(const char *custom = "custom 0")
    {
        for (const char *signal : {"mib2 amp-1 cellar ops", "access public Read 192.0.2.1 2001:db8::1 161",
                                   "trap 192.0.2.7 192.0.2.8", "version 0 1 0", custom})
            change(signal);
    }

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

    /// Lets the running countdown of a timer last a minute, so that a new start shows without waiting.
    static void prolong(QTimer *timer)
    {
        auto *dispatcher = QAbstractEventDispatcher::instance();
        dispatcher->unregisterTimer(timer->timerId());
        dispatcher->registerTimer(timer->timerId(), 60000, timer->timerType(), timer);
    }
    static bool isProlonged(const QTimer *timer) { return timer->remainingTime() > 30000; }

    void settle() { handler->slotSnmpdConfSysSettingUpdate(); }

    QByteArray configText() const { return readFile(configFile); }
    QString startEvent() const { return qs("start: snmpd|-p|") + pidFile; }
    int count(const QString &event) const { return static_cast<int>(events.count(event)); }

    /// The agent's record exists from now on; its system name starts as "before".
    void startAgent()
    {
        copyBounded(agent.systemName, "before");
        kvAgent = &agent;
    }

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
            [this](int priority, const QByteArray &text) { events.append(logEvent(priority, text.constData())); },
        };
    }
};
