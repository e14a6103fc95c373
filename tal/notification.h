// One notification of the data service.
#pragma once

#include <QString>

/// The texts of a notification as they came; the reference has already chosen the parser.
struct Notification {
    QString op;    ///< "create", "replace" or "delete"; others are possible and refused by the parsers
    QString rPath; ///< the node that changed
    QString sPath; ///< the subscribed path
    QString data;  ///< the XML text of the node that changed
};
