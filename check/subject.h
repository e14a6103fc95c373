// What is known so far of the device that is being checked; each check reads and adds to it.
#pragma once

#include "check/dataservice.h"
#include "check/processes.h"
#include "check/snmpclient.h"
#include "check/snmpdconffile.h"

#include <QByteArray>
#include <QDateTime>
#include <QProcessEnvironment>
#include <QString>

#include <memory>
#include <optional>
#include <vector>

struct Subject {
    /// Looks for the daemon, and takes over the part of its environment that decides where things are.
    explicit Subject(int timeoutMs);

    /// A program as the daemon would find it; empty when it would not.
    QString program(const char *name) const;
    /// The daemon's variable, or `fallback` when it is not set.
    QString variable(const char *name, const QString &fallback) const;

    int timeoutMs;                   ///< of each single wait
    QProcessEnvironment environment; ///< the daemon's if it runs and may be read, else our own
    std::vector<Process> kvsnmp;

    quint32 model = 0; ///< 0: not known
    QByteArray modelText;

    ServiceAnswer service;

    QByteArray confText; ///< empty when there is no file, or none that can be read
    QDateTime confTime;
    SnmpdConf conf;

    std::vector<Process> snmpd;
    std::unique_ptr<SnmpClient> client; ///< null until snmpd has answered
    int agentxConnections = 0;          ///< those of others: counted before our own ping
};
