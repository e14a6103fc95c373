// A GPIO line in the kernel's sysfs layout.
#include "xrcommon/Gpio.h"

#include <QByteArray>
#include <QDir>

#include <cerrno>
#include <climits>
#include <optional>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uint unreadable = 255;

/// The end of its label identifies an expander's chip; its lines are numbered from firstLine on.
struct Expander {
    const char *labelEnd;
    int firstLine;
};
constexpr Expander i2c0021{"-0021", 176};
constexpr Expander i2c0022{"-0022", 192};

/// The result of one read(), without the line end; nothing on an error, with errno set. All files are shorter than a
/// page.
std::optional<QByteArray> fileText(const QByteArray &path)
{
    const int file = ::open(path.constData(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (file < 0)
        return std::nullopt;
    char text[4096];
    const ssize_t length = ::read(file, text, sizeof text);
    const int error = errno;
    ::close(file);
    errno = error;
    if (length < 0 || length == sizeof text)
        return std::nullopt;
    return QByteArray(text, static_cast<int>(length)).trimmed();
}

/// Writes to an existing file. True if the file could be opened, regardless of the kernel's answer to the write.
bool writeFile(const QByteArray &path, const QByteArray &text)
{
    const int file = ::open(path.constData(), O_WRONLY | O_TRUNC | O_CLOEXEC | O_NONBLOCK);
    if (file < 0)
        return false;
    [[maybe_unused]] const ssize_t written = ::write(file, text.constData(), static_cast<std::size_t>(text.size()));
    ::close(file);
    return true;
}

bool exists(const QByteArray &path)
{
    struct stat status {};
    return ::stat(path.constData(), &status) == 0;
}

QByteArray rootFolder()
{
    const QByteArray root = qgetenv("XR_GPIO_ROOT");
    return root.isEmpty() ? QByteArrayLiteral("/sys/class/gpio") : root;
}

} // namespace

class Gpio::Line {
public:
    Line(Gpios id, GpioDirections direction, GpioEdges edge)
        : m_root(rootFolder()), m_id(id), m_direction(direction), m_edge(edge)
    {}

    void moveTo(const Expander &expander)
    {
        m_expander = &expander;
        m_number.reset();
        m_isThere = false;
    }

    uint value()
    {
        if (m_expander && m_isThere && numberOn(m_chip) != m_number)
            m_isThere = false; // the chip is gone or has another base: the number may now be another line
        if (!m_isThere && !find())
            return unreadable;
        std::optional<QByteArray> text = fileText(file("value"));
        if (!text && errno == ENOENT && !exists(folder())) { // it disappeared since the last read
            m_isThere = false;
            if (find())
                text = fileText(file("value"));
        }
        if (text == QByteArrayLiteral("0"))
            return 0;
        return text == QByteArrayLiteral("1") ? 1 : unreadable;
    }

private:
    /// Finds the line, exports it if allowed, and sets it up.
    bool find()
    {
        m_number = number();
        if (!m_number)
            return false;
        if (!exists(folder())) {
            if (m_exported != m_number && writeFile(m_root + "/export", QByteArray::number(*m_number)))
                m_exported = m_number;
            if (!exists(folder()))
                return false;
        }
        m_isThere = true;
        m_exported.reset(); // the next time it disappears, it is exported again
        setUp();
        return true;
    }

    void setUp() const
    {
        if (m_direction == GPIO_DIRECTION_AS_IS) // writing "in" would switch an output off
            return;
        static constexpr const char *edges[] = {"none", "rising", "falling", "both"};
        writeFile(file("direction"), m_direction == GPIO_DIRECTION_OUT ? "out" : "in");
        if (m_edge >= GPIO_EDGE_NONE && m_edge <= GPIO_EDGE_BOTH)
            writeFile(file("edge"), edges[m_edge]);
    }

    /// The kernel's number of the line; nothing while its expander is missing.
    std::optional<int> number()
    {
        if (!m_expander)
            return m_id < 0 ? std::nullopt : std::optional<int>(m_id);
        const QDir root(QFile::decodeName(m_root));
        for (const QString &chip :
             root.entryList({QStringLiteral("gpiochip*")}, QDir::Dirs | QDir::System, QDir::Name)) {
            m_chip = m_root + '/' + QFile::encodeName(chip);
            if (const std::optional<int> found = numberOn(m_chip))
                return found;
        }
        return std::nullopt;
    }

    /// The line's number if the chip in this folder is its expander.
    std::optional<int> numberOn(const QByteArray &chipFolder) const
    {
        const std::optional<QByteArray> label = fileText(chipFolder + "/label");
        if (!label || !label->endsWith(m_expander->labelEnd))
            return std::nullopt;
        bool isNumber = false;
        const qlonglong base = fileText(chipFolder + "/base").value_or(QByteArray()).toLongLong(&isNumber);
        const qlonglong line = base + m_id - m_expander->firstLine;
        if (!isNumber || base < 0 || line < 0 || line > INT_MAX)
            return std::nullopt;
        return static_cast<int>(line);
    }

    QByteArray folder() const { return m_root + "/gpio" + QByteArray::number(*m_number); }
    QByteArray file(const char *name) const { return folder() + '/' + name; }

    const QByteArray m_root;
    const int m_id;
    const GpioDirections m_direction;
    const GpioEdges m_edge;
    const Expander *m_expander = nullptr;
    QByteArray m_chip;           // folder of the expander
    std::optional<int> m_number; // kept while the line exists
    bool m_isThere = false;
    std::optional<int> m_exported; // and not seen since
};

Gpio::Gpio(QObject *parent, Gpios id, GpioDirections direction, GpioEdges edge)
    : QObject(parent), m_line(std::make_unique<Line>(id, direction, edge))
{}

Gpio::~Gpio() = default;

void Gpio::setI2c0021()
{
    m_line->moveTo(i2c0021);
}

void Gpio::setI2c0022()
{
    m_line->moveTo(i2c0022);
}

uint Gpio::getGpioInOutValue()
{
    return m_line->value();
}
