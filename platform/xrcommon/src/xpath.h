// Texts of a notification, found by XPath.
#pragma once

#include <QString>

/// See TalInterface::xpathGetTextNode().
bool textOfNotification(QString &out, const QString &xpath, const QString &sPath, const QString &rPath,
                        const QString &data);

/// Marks `data` as one well-formed element, so that it is not checked again.
void setCheckedData(const QString &data);
