// Writes snmpd.conf: anew where it can be deleted, otherwise in place.
#pragma once

#include <QByteArray>
#include <QString>

struct ConfigFileResult {
    enum class Outcome {
        NotOpened,
        LeftAlone, ///< it cannot be deleted, and to write it in place would change something beside it
        Failed,    ///< not written to its end
        Anew,
        InPlace
    };
    Outcome outcome;
    QByteArray complaint; ///< for the system log; empty when nothing is to be said
};

/// Deletes the file and creates it anew, readable by its owner alone from the first moment: it holds the community.
/// A link that somebody has put there in the meantime is not followed. What cannot be written to its end is removed,
/// because snmpd would take what there is of it for the whole.
///
/// A file that cannot be deleted, such as a mount, is written in place. Others may then be able to read it, and what
/// cannot be written to its end is emptied.
ConfigFileResult writeConfigFile(const QString &path, const QByteArray &text);
