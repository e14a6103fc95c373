// Texts of a notification, found by XPath.
#include "xpath.h"

#include "notificationtree.h"

#include <QCache>

#include <exception>
#include <memory>
#include <optional>

namespace {

/// Cache of the last compiled expressions; one notification needs up to a hundred.
class Expressions {
public:
    /// Null if the expression is malformed or does not select nodes.
    const pugi::xpath_query *compiled(const QString &xpath)
    {
        if (const Entry *entry = m_entries.object(xpath))
            return entry->query ? &*entry->query : nullptr;
        auto *entry = new Entry(xpath); // owned by the cache
        m_entries.insert(xpath, entry);
        return entry->query ? &*entry->query : nullptr;
    }

private:
    struct Entry {
        explicit Entry(const QString &xpath)
        {
            if (!xpath.isValidUtf16() || xpath.contains(QChar::Null))
                return;
            try {
                query.emplace(xpath.toUtf8().constData());
                if (query->return_type() != pugi::xpath_type_node_set)
                    query.reset();
            } catch (const pugi::xpath_exception &) { // malformed: there is no query
            }
        }
        std::optional<pugi::xpath_query> query;
    };

    static constexpr int capacity = 128; // each takes 4 KiB
    QCache<QString, Entry> m_entries{capacity};
};

Expressions expressions;
std::unique_ptr<NotificationTree> tree; // of the last notification
QString checkedData;                    // holding it keeps its characters in place

} // namespace

void setCheckedData(const QString &data)
{
    checkedData = data;
}

bool textOfNotification(QString &out, const QString &xpath, const QString &sPath, const QString &rPath,
                        const QString &data)
{
    try {
        const QString &path = rPath.isEmpty() ? sPath : rPath;
        if (!tree || !tree->isOf(path, data)) {
            const bool checked =
                !data.isEmpty() && data.constData() == checkedData.constData() && data.size() == checkedData.size();
            tree.reset(); // first, to avoid two trees of the maximum size at once
            tree = std::make_unique<NotificationTree>(path, data, checked);
        }
        if (!tree->isValid())
            return false;
        const pugi::xpath_query *query = expressions.compiled(xpath);
        return query && tree->findText(out, *query);
    } catch (const std::exception &) { // out of memory
        return false;
    }
}
