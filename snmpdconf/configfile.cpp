// Writes snmpd.conf: as a new file if the old one can be deleted, otherwise in place.
#include "snmpdconf/configfile.h"

#include <QFile>

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

using Outcome = ConfigFileResult::Outcome;

namespace {

constexpr mode_t ownerOnly = S_IRUSR | S_IWUSR;
constexpr mode_t othersToo = S_IRWXG | S_IRWXO;

class Descriptor {
public:
    explicit Descriptor(int number) : m_number(number) {}
    ~Descriptor()
    {
        if (m_number >= 0)
            close(m_number);
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;

    bool isOpen() const { return m_number >= 0; }
    operator int() const { return m_number; } // NOLINT(google-explicit-constructor): for system calls

private:
    int m_number;
};

/// False, with errno set, after a partial write, which QFile would not report.
bool writeAll(int descriptor, const QByteArray &text)
{
    for (int at = 0; at < text.size();) {
        const ssize_t count = write(descriptor, text.constData() + at, static_cast<std::size_t>(text.size() - at));
        if (count > 0)
            at += static_cast<int>(count);
        else if (count == 0 || errno != EINTR)
            return false;
    }
    return true;
}

QByteArray reason()
{
    return std::strerror(errno);
}

/// The other users who may read the file; empty if none.
QByteArray readersOf(int descriptor)
{
    struct stat status {};
    if (fstat(descriptor, &status) != 0 || (status.st_uid == geteuid() && (status.st_mode & othersToo) == 0))
        return {};
    return "; user " + QByteArray::number(status.st_uid) + " owns it, mode 0" +
           QByteArray::number(status.st_mode & ALLPERMS, 8);
}

ConfigFileResult writeAnew(const char *path, const QByteArray &text)
{
    const Descriptor file(open(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, ownerOnly));
    if (!file.isOpen())
        return {Outcome::NotOpened, {}};
    if (writeAll(file, text))
        return {Outcome::Anew, {}};
    const QByteArray complaint = "snmpd.conf could not be written: " + reason();
    unlink(path);
    return {Outcome::Failed, complaint};
}

/// `undeletable` is the reason why the file still exists.
ConfigFileResult writeInPlace(const char *path, const QByteArray &text, const QByteArray &undeletable)
{
    const Descriptor file(open(path, O_RDWR | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
    if (!file.isOpen() && errno != ELOOP)
        return {Outcome::NotOpened, {}};
    struct stat status {};
    if (!file.isOpen() || fstat(file, &status) != 0 || !S_ISREG(status.st_mode) || status.st_nlink > 1)
        return {Outcome::LeftAlone, "snmpd.conf is left as it is, it cannot be deleted (" + undeletable +
                                        ") and is not a regular file with one name"};

    bool whole = ftruncate(file, 0) == 0;
    if (whole) {
        fchmod(file, ownerOnly); // before the community is in it; readersOf() shows the result
        whole = writeAll(file, text);
    }
    if (whole)
        return {Outcome::InPlace,
                "snmpd.conf is written in place, it cannot be deleted: " + undeletable + readersOf(file)};
    const QByteArray why = reason();
    const bool isEmpty = ftruncate(file, 0) == 0;
    return {Outcome::Failed, (isEmpty ? "snmpd.conf could not be written in place and is empty now: "
                                      : "snmpd.conf could not be written in place: ") +
                                 why};
}

} // namespace

ConfigFileResult writeConfigFile(const QString &path, const QByteArray &text)
{
    const QByteArray name = QFile::encodeName(path);
    if (unlink(name.constData()) == 0 || errno == ENOENT)
        return writeAnew(name.constData(), text);
    return writeInPlace(name.constData(), text, reason());
}
