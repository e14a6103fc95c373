// The tree that one notification describes.
#pragma once

#include <QString>

#include <pugixml.hpp>

#include <string>

/// The steps of a path as nested elements with their keys as leaves, with the element of `data` at the last step.
class NotificationTree {
public:
    NotificationTree(const QString &path, const QString &data, bool dataIsElement);
    NotificationTree(const NotificationTree &) = delete;
    NotificationTree &operator=(const NotificationTree &) = delete;

    /// Texts are implicitly shared, so for one notification this compares pointers.
    bool isOf(const QString &path, const QString &data) const { return m_data == data && m_path == path; }
    bool isValid() const { return m_valid; }

    /// The text of the first element that the query selects; nothing if it selects none.
    bool findText(QString &out, const pugi::xpath_query &query) const;

private:
    bool build(bool dataIsElement);

    QString m_path;
    QString m_data;
    std::string m_text; // the document, parsed in place; it owns the text
    pugi::xml_document m_document;
    pugi::xml_node m_hollow; // the node of the last step, if `data` is empty
    bool m_valid = false;
};
