// Writes snmpd.conf: as a new file if the old one can be deleted, otherwise in place.
#pragma once

#include <QByteArray>
#include <QString>

struct ConfigFileResult {
    enum class Outcome {
        NotOpened,
        LeftAlone, ///< it cannot be deleted, and writing in place would change something else
        Failed,    ///< not completely written
        Anew,
        InPlace
    };
    Outcome outcome;
    QByteArray complaint; ///< for the system log; empty without a complaint
};

/// Deletes the file and creates a new one that only its owner can ever read, because it holds the community. A link
/// created there in the meantime is not followed. A partially written file is removed, because snmpd would use it.
///
/// A file that cannot be deleted, such as a mount, is written in place. Others may then be able to read it. After a
/// partial write it is emptied.
ConfigFileResult writeConfigFile(const QString &path, const QByteArray &text);
