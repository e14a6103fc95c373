// Subscribes to the data service as the daemon does, with the daemon's subscriptions and parsers.
#pragma once

#include "snmpdconf/snmpdconftext.h"

#include <QMap>
#include <QSet>
#include <QString>

#include <optional>

/// The settings of `groups` have arrived; the others have their starting values.
struct ServiceAnswer {
    bool connected = false;
    QSet<QString> groups; ///< references of the settings' subscriptions with an answer
    SnmpdConfSettings settings;
    std::optional<bool> customConfig;
    QMap<QString, bool> enabledTraps;
    QMap<QString, int> values; ///< notifications of data by reference
    bool isComplete = false;   ///< the service has answered all requests, as far as can be detected
};

/// Waits at most `timeoutMs` each for the connection, for the settings and for the data. `model` selects the data; 0
/// requests only the settings.
ServiceAnswer askDataService(quint32 model, int timeoutMs);
