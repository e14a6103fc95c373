// The identity files: one table per kind of file, one reader for each table.
#include "app/identity.h"

#include "device/boundedtext.h"
#include "device/models.h"

#include <QDebug>
#include <QFile>
#include <QTextStream>

#include <optional>
#include <span>
#include <string_view>

namespace {

/// Limit for a first line; a file without a line end may have any size. Fields keep at most 127 characters.
constexpr qint64 maxLine = 4096;

/// One text of a type file with its code, shared with the agent, and the label that is served.
struct AmpType {
    std::string_view text;
    qint32 code;
    std::string_view label;
};

/// The texts that a type file may hold, and the default for every other text.
struct AmpTypeFile {
    const char *path;
    std::span<const AmpType> types;
    AmpType otherwise;
};

/// A file whose first line is served unchanged, with the texts of its log lines.
struct VersionFile {
    const char *function;
    const char *path;
    const char *rawTag; ///< null: the line as read is not logged
    const char *tag;
    InfoText InfoData::*field;
};

// clang-format off
constexpr AmpType ampTypes[] = { // code 2 is never given
    {"VQ9C", 3, "VQ9C"},
    {"VQ9D", 4, "VQ9D"},
    {"VQ9B", 6, "VQ9B"},
    {"VQ9A", 5, "VQ9A"},
};
constexpr AmpType powerTypes[] = {
    {"200",  7, "VQ9C-P2"},
    {"400",  8, "VQ9D-P2"},
};
constexpr AmpTypeFile ampTypeFile  {identityfiles::ampType,   ampTypes,   {"", 1, "Unknown"}};
constexpr AmpTypeFile powerTypeFile{identityfiles::powerType, powerTypes, {"", 1, "VQ9-P2"}};

constexpr VersionFile versionFiles[] = {
    {"readPackageVersion",    identityfiles::packageVersion,    "pvStr:", "packageVersion:",    &InfoData::packageVersion},
    {"readModelType",         identityfiles::modelType,         nullptr,  "modelType:",         &InfoData::modelType},
    {"readKernelVersion",     identityfiles::kernelVersion,     "kvStr:", "kernelVersion:",     &InfoData::kernelVersion},
    {"readDeviceTreeVersion", identityfiles::deviceTreeVersion, nullptr,  "deviceTreeVersion:", &InfoData::deviceTreeVersion},
};
// clang-format on
constexpr const VersionFile &packageVersionFile = versionFiles[0];
constexpr const VersionFile &modelTypeFile = versionFiles[1];
constexpr const VersionFile &kernelVersionFile = versionFiles[2];
constexpr const VersionFile &deviceTreeVersionFile = versionFiles[3];

/// Amplifiers of this type are sold under one name, regardless of the model file.
constexpr std::string_view renamedAmpType = "VQ9B";
constexpr std::string_view renamedModelType = "Orvane Mervio Amplifier VQ9";

std::string_view viewOf(const QByteArray &bytes)
{
    return {bytes.constData(), static_cast<std::size_t>(bytes.size())};
}

std::string_view viewOf(const InfoText &field)
{
    return {field.text, field.length};
}

void store(InfoText &field, std::string_view text)
{
    // A field is a C string: its length ends at a NUL.
    field.length = copyBounded(field.text, text.substr(0, text.find('\0')));
}

/// Allows only a sign before the digits, and white space around both, including the line end.
std::optional<int> decimalNumber(const QByteArray &line)
{
    bool isNumber = false;
    const int number = line.toInt(&isNumber);
    if (!isNumber || line.contains('\0')) // toInt() stops at a NUL
        return std::nullopt;
    return number;
}

const AmpType &typeOf(const AmpTypeFile &file, std::string_view text)
{
    for (const AmpType &type : file.types)
        if (type.text == text)
            return type;
    return file.otherwise;
}

/// The first line without its line end. The stream decodes the file with the locale's codec, or with that of a byte
/// order mark, which is not part of the line. A character outside Latin-1 becomes "?".
QByteArray firstLine(QFile &file)
{
    QTextStream stream(&file);
    return stream.readLine(maxLine).toLatin1();
}

/// Fills the row's field from its file. False, and "Unknown", when there is no first line.
bool copyFirstLine(InfoData &info, const VersionFile &row, const QString &path)
{
    QFile file(path);
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text) || file.atEnd()) {
        qDebug().noquote() << row.function << QLatin1String(row.path) + QLatin1String(" EMPTY !");
        store(info.*row.field, "Unknown");
        return false;
    }
    const QByteArray line = firstLine(file);
    if (row.rawTag != nullptr)
        qDebug().noquote() << row.function << row.rawTag << QString::fromLatin1(line.constData(), line.size());
    store(info.*row.field, viewOf(line));
    return true;
}

void logVersion(const InfoData &info, const VersionFile &row)
{
    const InfoText &field = info.*row.field;
    qDebug().noquote() << row.function << row.tag << QLatin1String(field.text) << "len:" << field.length;
}

void readVersion(InfoData &info, const VersionFile &row, const QString &path)
{
    if (copyFirstLine(info, row, path))
        logVersion(info, row);
}

} // namespace

Identity::Identity(QString root) : m_root(std::move(root)) {}

QString Identity::rooted(const char *path) const
{
    return m_root + QLatin1String(path);
}

bool Identity::readModelNumber()
{
    QFile file(rooted(identityfiles::modelNumber));
    if (!file.open(QIODevice::ReadOnly) || file.atEnd()) {
        qDebug().noquote() << "readModelNumber"
                           << QLatin1String(identityfiles::modelNumber) + QLatin1String(" EMPTY !   Cannot continue");
        return false;
    }
    const QByteArray line = file.readLine(maxLine);
    const bool isWhole = line.endsWith('\n') || file.atEnd();
    const std::optional<int> number = isWhole ? decimalNumber(line) : std::nullopt;
    if (!number) {
        qDebug().noquote() << "readModelNumber"
                           << "Invalid numeric modelNumber:" << line << "Cannot continue";
        return false;
    }
    if (!isKnownModel(static_cast<std::uint32_t>(*number))) {
        qDebug().noquote() << "readModelNumber"
                           << "Unknown modelNumber:" << *number << "Cannot continue";
        return false;
    }
    m_modelNumber = static_cast<quint16>(*number);
    m_infoData.modelNumber = {*number, sizeof m_infoData.modelNumber.value};
    qDebug().noquote() << "readModelNumber"
                       << "modelNumber:" << *number << "len:" << m_infoData.modelNumber.length;
    return true;
}

void Identity::readAmpType(quint16 modelNumber)
{
    const AmpTypeFile &file = powerTypeModels.contains(modelNumber) ? powerTypeFile : ampTypeFile;
    const AmpType &type = typeOf(file, viewOf(readFile(file.path)));
    m_ampTypeCode = type.code;
    store(m_infoData.amplifierType, type.label);
    qDebug().noquote() << "readAmpType"
                       << "amplfierTypeString:" << QLatin1String(m_infoData.amplifierType.text)
                       << "len:" << m_infoData.amplifierType.length;
}

void Identity::readPackageVersion()
{
    readVersion(m_infoData, packageVersionFile, rooted(packageVersionFile.path));
}

void Identity::readModelType()
{
    const bool known = copyFirstLine(m_infoData, modelTypeFile, rooted(modelTypeFile.path));
    if (viewOf(m_infoData.amplifierType) == renamedAmpType)
        store(m_infoData.modelType, renamedModelType);
    if (known)
        logVersion(m_infoData, modelTypeFile);
}

void Identity::readKernelVersion()
{
    readVersion(m_infoData, kernelVersionFile, rooted(kernelVersionFile.path));
}

void Identity::readDeviceTreeVersion()
{
    readVersion(m_infoData, deviceTreeVersionFile, rooted(deviceTreeVersionFile.path));
}

QByteArray Identity::readFile(const char *path) const
{
    QFile file(rooted(path));
    if (!file.open(QIODevice::ReadOnly | QIODevice::Text))
        return {};
    if (file.atEnd()) {
        qDebug().noquote() << "readFile" << path << " EMPTY!";
        return {};
    }
    return firstLine(file);
}
