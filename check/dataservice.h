// Asks the data service for what the daemon asks it for, with the daemon's own subscriptions and parsers.
#pragma once

#include "snmpdconf/snmpdconftext.h"

#include <QMap>
#include <QSet>
#include <QString>

#include <optional>

/// The settings that have arrived are those of `groups`; the others hold their starting values.
struct ServiceAnswer {
    bool connected = false;
    QSet<QString> groups; ///< references of the settings' subscriptions that brought something
    SnmpdConfSettings settings;
    std::optional<bool> customConfig;
    QMap<QString, bool> enabledTraps;
    QMap<QString, int> values; ///< notifications of data by reference
    bool isComplete = false;   ///< the service has answered all that it was asked, as far as it can be known
};

/// References of the five subscriptions that bring the settings, in the order in which they are asked for.
extern const QStringList settingsGroups;

/// Waits at most `timeoutMs` for the connection, for the settings and for the data, each. `model` decides which data
/// are asked for; 0 asks for the settings alone.
ServiceAnswer askDataService(quint32 model, int timeoutMs);
