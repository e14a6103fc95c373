// Parses a notification's path.
#include "notificationpath.h"

namespace {

bool isNameStart(char c)
{
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || static_cast<unsigned char>(c) >= 0x80;
}

bool isNameCharacter(char c)
{
    return isNameStart(c) || (c >= '0' && c <= '9') || c == '-' || c == '.' || c == ':';
}

/// Reads a text from its beginning; each function consumes the part in its name, or nothing.
class Reader {
public:
    explicit Reader(std::string_view text) : m_rest(text) {}

    bool atEnd() const { return m_rest.empty(); }

    bool character(char c)
    {
        if (m_rest.empty() || m_rest.front() != c)
            return false;
        m_rest.remove_prefix(1);
        return true;
    }

    void blanks()
    {
        while (character(' ') || character('\t')) {
        }
    }

    std::string_view name()
    {
        std::size_t length = 0;
        if (!m_rest.empty() && isNameStart(m_rest.front())) {
            while (length < m_rest.size() && isNameCharacter(m_rest[length]))
                ++length;
        }
        return take(length);
    }

    /// The text before `end`, which is consumed too; nothing if `end` is missing.
    std::optional<std::string_view> upTo(char end)
    {
        const std::size_t length = m_rest.find(end);
        if (length == std::string_view::npos)
            return std::nullopt;
        const std::string_view text = take(length);
        m_rest.remove_prefix(1);
        return text;
    }

private:
    std::string_view take(std::size_t length)
    {
        const std::string_view text = m_rest.substr(0, length);
        m_rest.remove_prefix(length);
        return text;
    }

    std::string_view m_rest;
};

/// A quoted value may contain anything except that quote; an unquoted one ends at the bracket and is not empty.
std::optional<std::string_view> keyValue(Reader &reader)
{
    for (const char quote : {'\'', '"'}) {
        if (!reader.character(quote))
            continue;
        const std::optional<std::string_view> value = reader.upTo(quote);
        reader.blanks();
        return reader.character(']') ? value : std::nullopt;
    }
    std::optional<std::string_view> value = reader.upTo(']');
    while (value && !value->empty() && (value->back() == ' ' || value->back() == '\t'))
        value->remove_suffix(1);
    const bool wellFormed = value && !value->empty() && value->find_first_of("'\"[/=") == std::string_view::npos;
    return wellFormed ? value : std::nullopt;
}

std::optional<PathKey> pathKey(Reader &reader)
{
    reader.blanks();
    const std::string_view name = reader.name();
    reader.blanks();
    if (name.empty() || !reader.character('='))
        return std::nullopt;
    reader.blanks();
    const std::optional<std::string_view> value = keyValue(reader);
    if (!value)
        return std::nullopt;
    return PathKey{name, *value};
}

} // namespace

std::optional<std::vector<PathStep>> pathSteps(std::string_view path)
{
    if (path.find('\0') != std::string_view::npos)
        return std::nullopt;
    std::vector<PathStep> steps;
    Reader reader(path);
    do {
        if (!reader.character('/'))
            return std::nullopt;
        PathStep step{reader.name(), {}};
        if (step.name.empty())
            return std::nullopt;
        while (reader.character('[')) {
            const std::optional<PathKey> key = pathKey(reader);
            if (!key)
                return std::nullopt;
            step.keys.push_back(*key);
        }
        steps.push_back(std::move(step));
    } while (!reader.atEnd());
    return steps;
}
