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
    bool dataIsElement = false; ///< `data` is one element, so it is well-formed by itself
};

/// Reads a message of the data service. Nothing when it is no UTF-8, is not well-formed, holds a document type or is
/// no `notify` with at least `ref` and `op`; `error` then says why.
std::optional<NotifyMessage> readNotifyMessage(std::string_view bytes, QString &error);

/// Whether `xml` is one well-formed element without a document type.
bool isWellFormedElement(const QString &xml);
