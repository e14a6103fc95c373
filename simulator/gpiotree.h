// The device's GPIO lines as files, in the layout of the kernel's GPIO sysfs.
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
        bool output;  ///< the `direction` of a new folder; relays are outputs
        Level level;
        bool exported; ///< whether the folder exists
    };

    /// Creates the list of the model's lines; writes no file yet.
    GpioTree(QObject *parent, QString root, uint model);

    /// The device drives the line: its `direction` is "out". Call before start().
    void setOutput(const QString &name);

    /// Creates the folder, the chips, `export`, `unexport` and, if `exportAll` is set, every line.
    bool start(bool exportAll, QString &error);

    const std::vector<Line> &lines() const { return m_lines; }
    const QString &root() const { return m_root; }
    bool isThere() const { return m_there; }

    // Each returns an empty text, or the reason of a failure.
    QString setLevel(const QString &nameOrNumber, Level level);
    QString exportLine(const QString &nameOrNumber);
    QString unexportLine(const QString &nameOrNumber);
    /// Removes the whole tree; restores it with its last lines and levels.
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
