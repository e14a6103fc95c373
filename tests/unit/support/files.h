// Writes, reads and inspects the files of a test. Paths are those of Qt or of the system calls.
#pragma once

#include <QtTest>

#include <sys/stat.h>

inline void writeFile(const QString &path, const QByteArray &content)
{
    QFile file(path);
    QVERIFY(file.open(QIODevice::WriteOnly));
    QCOMPARE(file.write(content), qint64{content.size()});
}

inline void writeFile(const QByteArray &path, const QByteArray &content)
{
    writeFile(QFile::decodeName(path), content);
}

inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray("(cannot be read)");
}

inline QByteArray readFile(const QByteArray &path)
{
    return readFile(QFile::decodeName(path));
}

/// Of the path itself, even of a link; zeros without a file.
inline struct stat statusOf(const QByteArray &path)
{
    struct stat status {};
    lstat(path.constData(), &status);
    return status;
}
