// The device's GPIO lines as files, laid out as the kernel lays out its GPIO sysfs.
#pragma once

#include <QFileSystemWatcher>
#include <QObject>
#include <QString>
#include <vector>

namespace simulator {

class GpioTree : public QObject {
    Q_OBJECT

public:
    enum class Level { Low, High, Unreadable };

    struct Line {
        QString name; ///< "gpio1", "relay1", "e_relay1"
        int number;   ///< the device's number of the line
        int file;     ///< N of the folder gpioN: `number`, or a line of an expander
        bool output;  ///< what `direction` says when the folder is made; relays are outputs
        Level level;
        bool exported; ///< whether the folder is there
    };

    /// Knows the lines of the model; touches no file yet.
    GpioTree(QObject *parent, QString root, uint model);

    /// The line is driven by the device: its `direction` says "out". Before start().
    void setOutput(const QString &name);

    /// Makes the folder, the chips, `export`, `unexport` and, when `exportAll` is set, every line.
    bool start(bool exportAll, QString &error);

    const std::vector<Line> &lines() const { return m_lines; }
    const QString &root() const { return m_root; }
    bool isThere() const { return m_there; }

    // Each gives an empty text when it was done, else why not.
    QString setLevel(const QString &nameOrNumber, Level level);
    QString exportLine(const QString &nameOrNumber);
    QString unexportLine(const QString &nameOrNumber);
    /// Takes the whole tree away, and puts it back with its lines and levels as they are known.
    QString remove();
    QString restore();

private Q_SLOTS:
    void onFileChanged(const QString &path);

private:
    Line *lineOf(const QString &nameOrNumber);
    QString makeTree();
    QString makeLine(const Line &line) const;
    QString writeLevel(const Line &line) const;
    QString filePath(const QString &name) const { return m_root + QLatin1Char('/') + name; }
    void clearRoot();

    QString m_root;
    int m_controllerBase;
    int m_controllerLines;
    std::vector<Line> m_lines;
    bool m_there = false;
    QFileSystemWatcher m_watcher;
};

} // namespace simulator
