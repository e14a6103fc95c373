// Texts of a notification, found by XPath.
#pragma once

#include <QString>

/// See TalInterface::xpathGetTextNode().
bool textOfNotification(QString &out, const QString &xpath, const QString &sPath, const QString &rPath,
                        const QString &data);

/// Says that `data` was found to be one well-formed element, so that its text need not be read once more.
void setCheckedData(const QString &data);
