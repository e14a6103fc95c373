// The identity files: the daemon's reading of them, and the content that it refuses.
#include "check/checks.h"
#include "check/subject.h"

#include "app/identity.h"
#include "device/models.h"

#include <QFile>
#include <QFileInfo>

namespace {

constexpr int maxTextLength = sizeof(InfoText::text) - 1;
const QString firmwareHint = QStringLiteral(
    "the firmware image writes this file; put it back, then restart kvsnmp, which reads it at its start");

QString knownModelNumbers()
{
    QStringList numbers;
    for (const std::uint32_t model : knownModels)
        numbers.append(QString::number(model));
    return numbers.join(QStringLiteral(", "));
}

/// "is not there", "may not be read" or "is empty"; nothing if it has a first line.
QString whatIsMissing(const char *path)
{
    QFile file(QString::fromLatin1(path));
    if (!file.exists())
        return QStringLiteral("is not there");
    if (!file.open(QIODevice::ReadOnly))
        return QStringLiteral("cannot be read: ") + file.errorString();
    if (file.atEnd())
        return QStringLiteral("is empty");
    return {};
}

QString withPath(const char *path, const QString &text)
{
    return QLatin1String(path) + QLatin1Char(' ') + text;
}

/// A text that is only served: the daemon does not need it.
Outcome checkText(const char *path)
{
    const QString missing = whatIsMissing(path);
    if (!missing.isEmpty())
        return warning(withPath(path, missing) + QStringLiteral(": \"Unknown\" is served"), firmwareHint);
    const QByteArray line = Identity().readFile(path);
    if (line.trimmed().isEmpty())
        return warning(withPath(path, QStringLiteral("has an empty first line")), firmwareHint);
    if (line.size() > maxTextLength)
        return warning(withPath(path, QStringLiteral("is cut after %1 characters").arg(maxTextLength)), firmwareHint);
    return ok(QString::fromLatin1(line));
}

} // namespace

Outcome checkModelNumber(Subject &subject)
{
    Identity identity;
    if (identity.readModelNumber()) {
        subject.model = identity.modelNumber();
        return ok(QString::number(subject.model));
    }
    const QString consequence = QStringLiteral("; without a known number kvsnmp ends at its start with status 255");
    const QString missing = whatIsMissing(identityfiles::modelNumber);
    if (!missing.isEmpty())
        return failed(withPath(identityfiles::modelNumber, missing), firmwareHint + consequence);
    return failed(withPath(identityfiles::modelNumber,
                           QStringLiteral("holds \"%1\", which is no known model number")
                               .arg(QString::fromLatin1(identity.readFile(identityfiles::modelNumber)))),
                  QStringLiteral("known are ") + knownModelNumbers() + consequence);
}

Outcome checkModelText(Subject &subject)
{
    Identity identity;
    identity.readModelType();
    subject.modelText = identity.infoData().modelType.text;
    return checkText(identityfiles::modelType);
}

Outcome checkAmplifierType(Subject &subject)
{
    if (!ampTypeModels.contains(subject.model))
        return notApplicable(QStringLiteral("a %1 has no amplifier type").arg(subject.model));
    const char *path = powerTypeModels.contains(subject.model) ? identityfiles::powerType : identityfiles::ampType;
    const QString missing = whatIsMissing(path);
    if (!missing.isEmpty())
        return warning(withPath(path, missing), firmwareHint);
    Identity identity;
    identity.readAmpType(static_cast<quint16>(subject.model));
    const QString label = QString::fromLatin1(identity.infoData().amplifierType.text);
    if (identity.ampTypeCode() == 1)
        return warning(withPath(path, QStringLiteral("holds \"%1\", which is no known type: \"%2\" is served")
                                          .arg(QString::fromLatin1(identity.readFile(path)), label)),
                       QStringLiteral("known are VQ9A, VQ9B, VQ9C and VQ9D, for a power type 200 and 400; "
                                      "the text has to match to the letter"));
    return ok(label);
}

Outcome checkPackageVersion(Subject &)
{
    return checkText(identityfiles::packageVersion);
}

Outcome checkKernelVersion(Subject &)
{
    return checkText(identityfiles::kernelVersion);
}

Outcome checkDeviceTreeVersion(Subject &)
{
    return checkText(identityfiles::deviceTreeVersion);
}
