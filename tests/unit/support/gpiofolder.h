// A folder of plain files in place of the kernel's GPIO folder; the platform library reads it while one lives.
#pragma once

#include "support/files.h"

class GpioFolder {
public:
    GpioFolder()
    {
        qputenv("XR_GPIO_ROOT", root().toLocal8Bit());
        addExport();
    }
    ~GpioFolder() { qunsetenv("XR_GPIO_ROOT"); }
    Q_DISABLE_COPY(GpioFolder)

    QString root() const { return m_folder.filePath(QStringLiteral("gpio")); }
    QString path(const QString &name) const { return root() + QLatin1Char('/') + name; }

    void addExport() const { write(QStringLiteral("export"), {}); }
    void setValue(int line, const QByteArray &value) const { write(QStringLiteral("gpio%1/value").arg(line), value); }
    /// The line is driven, as the kernel's files say it.
    void addOutput(int line, const QByteArray &value) const
    {
        setValue(line, value);
        write(QStringLiteral("gpio%1/direction").arg(line), "out\n");
        write(QStringLiteral("gpio%1/edge").arg(line), "none\n");
    }
    void addChip(int base, const QByteArray &label) const
    {
        write(QStringLiteral("gpiochip%1/label").arg(base), label + '\n');
        write(QStringLiteral("gpiochip%1/base").arg(base), QByteArray::number(base) + '\n');
    }
    void write(const QString &name, const QByteArray &text) const
    {
        QVERIFY(QDir().mkpath(QFileInfo(path(name)).path()));
        writeFile(path(name), text);
    }
    QByteArray text(const QString &name) const { return readFile(path(name)); }
    void remove(const QString &name) const
    {
        if (!QFile::remove(path(name)))
            QVERIFY(QDir(path(name)).removeRecursively());
    }

private:
    QTemporaryDir m_folder;
};
