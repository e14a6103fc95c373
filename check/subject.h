// The current knowledge about the device under check; each check reads it and adds to it.
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
    /// Finds the daemon and copies the variables of its environment that determine paths.
    explicit Subject(int timeoutMs);

    /// The path of a program in the daemon's PATH; empty if it is not there.
    QString program(const char *name) const;
    /// The daemon's variable, or `fallback` if it is not set.
    QString variable(const char *name, const QString &fallback) const;

    int timeoutMs;                   ///< of each wait
    QProcessEnvironment environment; ///< the daemon's if it runs and may be read, otherwise ours
    std::vector<Process> kvsnmp;

    quint32 model = 0; ///< 0: unknown
    QByteArray modelText;

    ServiceAnswer service;

    QByteArray confText; ///< empty without a readable file
    QDateTime confTime;
    SnmpdConf conf;

    std::vector<Process> snmpd;
    std::unique_ptr<SnmpClient> client; ///< null until snmpd has answered
    int agentxConnections = 0;          ///< those of others: counted before our ping
};
