// One message of the data service, read and checked.
#pragma once

#include <QString>

#include <optional>
#include <string_view>

/// The five texts of a `notify`; `data` is the XML text as it was sent.
struct NotifyMessage {
    QString ref;
    QString op;
    QString rPath;
    QString sPath;
    QString data;
    bool dataIsElement = false; ///< `data` is one well-formed element
};

/// Reads a message of the data service. Nothing, with the reason in `error`, if it is not UTF-8, not well-formed, has a
/// document type, or is not a `notify` with at least `ref` and `op`.
std::optional<NotifyMessage> readNotifyMessage(std::string_view bytes, QString &error);

/// Whether `xml` is one well-formed element without a document type.
bool isWellFormedElement(const QString &xml);
