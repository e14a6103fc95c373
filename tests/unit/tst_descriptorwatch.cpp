// The watch over the agent library's descriptors: they come, go and come back under the same number.
#include "support/messagelog.h"
#include "support/socketpair.h"
#include "support/testprogram.h"

#include "app/descriptorwatch.h"

#include <array>

class TestDescriptorWatch : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_log.reset(new MessageLog);
        m_watch.reset(new DescriptorWatch);
        m_readable.reset(new QSignalSpy(m_watch.get(), SIGNAL(readable(int))));
    }

    void cleanup()
    {
        m_readable.reset();
        m_watch.reset();
        QCOMPARE(m_log->lines(), QStringList()); // no warning of Qt
        m_log.reset();
    }

    void wakesWhileItIsReadable()
    {
        const SocketPair one;
        const SocketPair two;
        m_watch->watch(std::array{one.nearEnd(), two.nearEnd()});
        QVERIFY(isSilent());
        QVERIFY(two.put());
        QTRY_VERIFY(m_readable->count() >= 3);
        QVERIFY(two.take());
        QVERIFY(isSilent());
        m_watch->watch({}); // drops them
        QVERIFY(one.put());
        QVERIFY(isSilent());
    }

    void sameSetKeepsTheNotifiers()
    {
        const SocketPair pipe;
        m_watch->watch(std::array{pipe.nearEnd()});
        const auto *before = m_watch->findChild<QSocketNotifier *>();
        m_watch->watch(std::array{pipe.nearEnd()});
        QCOMPARE(m_watch->findChild<QSocketNotifier *>(), before);
        QCOMPARE(notifiers(), 1);
    }

    void descriptorThatCameBackUnderItsNumber()
    {
        for (const bool loopTurnsBetween : {false, true}) {
            auto pipe = std::make_unique<SocketPair>();
            const int number = pipe->nearEnd();
            m_watch->watch(std::array{number});
            pipe.reset();
            if (loopTurnsBetween) { // Qt switches the notifier off
                QTest::qWait(20);
                QVERIFY(!m_watch->findChild<QSocketNotifier *>()->isEnabled());
                QCOMPARE(m_log->takeLines().size(), 1); // and warns
            }
            pipe = std::make_unique<SocketPair>();
            QCOMPARE(pipe->nearEnd(), number);
            m_watch->watch(std::array{number});
            QVERIFY(wakes(*pipe));
        }
    }

    void changeFromItsOwnSlot()
    {
        auto first = std::make_unique<SocketPair>();
        const SocketPair second;
        m_watch->watch(std::array{first->nearEnd()});
        connect(m_watch.get(), &DescriptorWatch::readable, m_watch.get(), [&] {
            first.reset();
            m_watch->watch(std::array{second.nearEnd()});
        });
        QVERIFY(first->put());
        QTRY_VERIFY(!first);
        QTRY_COMPARE(notifiers(), 1);
        QVERIFY(wakes(second));
    }

private:
    int notifiers() const { return m_watch->findChildren<QSocketNotifier *>().size(); }

    bool isSilent()
    {
        QCoreApplication::processEvents();
        m_readable->clear();
        QTest::qWait(20);
        return m_readable->isEmpty();
    }

    bool wakes(const SocketPair &pipe)
    {
        m_readable->clear();
        return pipe.put() && QTest::qWaitFor([this] { return !m_readable->isEmpty(); }) && pipe.take();
    }

    QScopedPointer<MessageLog> m_log;
    QScopedPointer<DescriptorWatch> m_watch;
    QScopedPointer<QSignalSpy> m_readable;
};

const TestEntry entry("tst_descriptorwatch", runTest<TestDescriptorWatch>);
#include "tst_descriptorwatch.moc"
