// One read notifier for each watched descriptor.
#include "app/descriptorwatch.h"

#include <QSocketNotifier>

#include <algorithm>

DescriptorWatch::DescriptorWatch(QObject *parent) : QObject(parent) {}

DescriptorWatch::~DescriptorWatch() = default;

void DescriptorWatch::watch(std::span<const int> descriptors)
{
    std::erase_if(m_notifiers, [descriptors](const auto &watched) {
        const auto &[descriptor, notifier] = watched;
        if (std::find(descriptors.begin(), descriptors.end(), descriptor) != descriptors.end())
            return false;
        notifier->setEnabled(false);
        notifier->deleteLater(); // this may run in its own slot
        return true;
    });
    for (const int descriptor : descriptors) {
        QSocketNotifier *&notifier = m_notifiers[descriptor];
        if (notifier == nullptr) {
            notifier = new QSocketNotifier(descriptor, QSocketNotifier::Read, this);
            connect(notifier, SIGNAL(activated(int)), this, SIGNAL(readable(int)));
        }
        // Qt disables a notifier whose descriptor is closed; the number may be in use again.
        notifier->setEnabled(true);
    }
}
