// Common code of the fuzz targets: findings without a crash, texts from bytes, quiet Qt, a temporary folder.
#pragma once

#include <QByteArray>
#include <QString>
#include <QtGlobal>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <string_view>

/// Ends the process if an invariant fails: the fuzzer then keeps the input.
inline void require(bool holds, const char *what)
{
    if (holds)
        return;
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
}

inline std::string_view viewOf(const std::uint8_t *data, std::size_t size)
{
    return {reinterpret_cast<const char *>(data), size};
}

/// Removes and returns the text before the first `separator`, which is also removed; without one the whole text.
inline std::string_view takeUpTo(std::string_view &rest, char separator)
{
    const std::size_t length = rest.find(separator);
    const std::string_view text = rest.substr(0, length);
    rest.remove_prefix(length == std::string_view::npos ? rest.size() : length + 1);
    return text;
}

inline QString textOf(std::string_view bytes)
{
    return QString::fromUtf8(bytes.data(), static_cast<int>(bytes.size()));
}

/// Composes log lines and then drops them; no system bus is reachable.
inline void quieten()
{
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/system_bus_socket");
}

/// A new folder below TMPDIR, not removed: the fuzzer ends without destructors, scripts/fuzz removes TMPDIR.
class PrivateFolder {
public:
    PrivateFolder() { require(mkdtemp(m_path.data()) != nullptr, "a folder can be made"); }
    PrivateFolder(const PrivateFolder &) = delete;
    PrivateFolder &operator=(const PrivateFolder &) = delete;

    std::string file(const char *name) const { return m_path + '/' + name; }
    const std::string &path() const { return m_path; }

private:
    static std::string temporaryFolder()
    {
        const char *folder = std::getenv("TMPDIR");
        return folder != nullptr ? folder : "/tmp";
    }

    std::string m_path = temporaryFolder() + "/kvsnmp-fuzz-XXXXXX";
};

inline void writeFile(const std::string &path, std::string_view content)
{
    std::FILE *file = std::fopen(path.c_str(), "w");
    require(file != nullptr && std::fwrite(content.data(), 1, content.size(), file) == content.size() &&
                std::fclose(file) == 0,
            "a file can be written");
}
