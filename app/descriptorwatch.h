// Wakes the event loop when one of a changing set of descriptors can be read.
#pragma once

#include <QObject>

#include <map>
#include <span>

class QSocketNotifier;

/// The descriptors are not owned; the owner may open or close any of them between calls of watch().
class DescriptorWatch : public QObject {
    Q_OBJECT

public:
    explicit DescriptorWatch(QObject *parent = nullptr);
    ~DescriptorWatch() override;

    /// Watches exactly these from now on. If they may have changed, or one was closed and opened again under its
    /// number, call it again before the event loop waits.
    void watch(std::span<const int> descriptors);

Q_SIGNALS:
    void readable(int descriptor);

private:
    std::map<int, QSocketNotifier *> m_notifiers; ///< children of this object
};
