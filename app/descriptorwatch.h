// Wakes the event loop when one of a changing set of descriptors can be read.
#pragma once

#include <QObject>

#include <map>
#include <span>

class QSocketNotifier;

/// The descriptors belong to somebody else, who opens and closes them as he likes between two calls of watch().
class DescriptorWatch : public QObject {
    Q_OBJECT

public:
    explicit DescriptorWatch(QObject *parent = nullptr);
    ~DescriptorWatch() override;

    /// Watches exactly these from now on. To be called again before the event loop waits, once they may have changed.
    void watch(std::span<const int> descriptors);

Q_SIGNALS:
    void readable();

private:
    std::map<int, QSocketNotifier *> m_notifiers; ///< children of this object
};
