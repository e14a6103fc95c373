// The device's identity: readers of the small text files that the firmware stores in /etc.
#pragma once

#include "device/infodata.h"

#include <QByteArray>
#include <QString>

namespace identityfiles {
inline constexpr char modelNumber[] = "/etc/xr-modelnumber";
inline constexpr char modelType[] = "/etc/xr-model";
inline constexpr char ampType[] = "/etc/xr-amptype";
inline constexpr char powerType[] = "/etc/xr-powertype"; ///< in place of the above on powerTypeModels
inline constexpr char packageVersion[] = "/etc/xr-pkgver";
inline constexpr char kernelVersion[] = "/etc/xr-kernelver";
inline constexpr char deviceTreeVersion[] = "/etc/xr-oftreever";
} // namespace identityfiles

/// The model number, the amplifier type and the information record. A missing or unknown model number is an error;
/// every other file falls back to "Unknown".
class Identity {
public:
    /// `root` is a prefix of every path; empty on a device.
    explicit Identity(QString root = QString());

    /// True when the file holds an accepted model number.
    bool readModelNumber();
    /// For models that have a file with their amplifier or power type.
    void readAmpType(quint16 modelNumber);
    void readPackageVersion();
    /// Call after readAmpType(): one amplifier type replaces the text.
    void readModelType();
    void readKernelVersion();
    void readDeviceTreeVersion();

    /// The first line without its line end, in Latin-1; empty when there is none.
    QByteArray readFile(const char *path) const;

    quint16 modelNumber() const { return m_modelNumber; } ///< 0 until read
    qint32 ampTypeCode() const { return m_ampTypeCode; }
    const InfoData &infoData() const { return m_infoData; }

private:
    QString rooted(const char *path) const;

    QString m_root;
    quint16 m_modelNumber = 0;
    qint32 m_ampTypeCode = 1;
    InfoData m_infoData{};
};
