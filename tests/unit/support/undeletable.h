// A file that an ordinary user may write and not delete.
#pragma once

#include "support/ordinaryuser.h"

#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

/// The file's folder is read-only until this object is destroyed. Everybody may enter the folder above from then on.
class Undeletable {
public:
    /// If root runs the test, `owner` becomes the file's owner.
    explicit Undeletable(const QString &path, uid_t owner = AsOrdinaryUser::nobody)
        : m_folder(QFile::encodeName(QFileInfo(path).path()))
    {
        const QByteArray above = QFile::encodeName(QFileInfo(QFile::decodeName(m_folder)).path());
        if (geteuid() == 0)
            QCOMPARE(lchown(QFile::encodeName(path).constData(), owner, 0), 0);
        QCOMPARE(chmod(above.constData(), 0711), 0);
        QCOMPARE(chmod(m_folder.constData(), 0555), 0);
    }
    ~Undeletable() { chmod(m_folder.constData(), 0755); }
    Q_DISABLE_COPY(Undeletable)

private:
    QByteArray m_folder;
};
