// One notification of the data service.
#pragma once

#include <QString>

/// The unchanged texts of a notification; its reference has already selected the parser.
struct Notification {
    QString op;    ///< "create", "replace" or "delete"; parsers refuse others
    QString rPath; ///< the node that changed
    QString sPath; ///< the subscribed path
    QString data;  ///< the XML text of the node that changed
};
