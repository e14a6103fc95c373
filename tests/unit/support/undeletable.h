// A file that an ordinary user may write and not delete.
#pragma once

#include "support/ordinaryuser.h"

#include <QByteArray>
#include <QFile>
#include <QFileInfo>
#include <QtTest>

#include <sys/stat.h>
#include <unistd.h>

/// Takes the file's folder its write permission, until it is destroyed. The folder above, root's own in a test that
/// root runs, can be entered by everybody from then on.
class Undeletable {
public:
    explicit Undeletable(const QString &path) : m_folder(QFile::encodeName(QFileInfo(path).path()))
    {
        const QByteArray above = QFile::encodeName(QFileInfo(QFile::decodeName(m_folder)).path());
        if (geteuid() == 0)
            QCOMPARE(lchown(QFile::encodeName(path).constData(), AsOrdinaryUser::nobody, 0), 0);
        QCOMPARE(chmod(above.constData(), 0711), 0);
        QCOMPARE(chmod(m_folder.constData(), 0555), 0);
    }
    ~Undeletable() { chmod(m_folder.constData(), 0755); }
    Undeletable(const Undeletable &) = delete;
    Undeletable &operator=(const Undeletable &) = delete;

private:
    QByteArray m_folder;
};
