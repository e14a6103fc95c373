// The watch over the agent library's descriptors: they come, go and come back under the same number.
#include "support/messagelog.h"
#include "support/testprogram.h"

#include "app/descriptorwatch.h"

#include <QSignalSpy>
#include <QSocketNotifier>
#include <QtTest>

#include <array>
#include <fcntl.h>
#include <unistd.h>

namespace {

/// A pipe with one byte in it on demand.
class Pipe {
public:
    Pipe()
    {
        if (pipe2(m_ends.data(), O_CLOEXEC | O_NONBLOCK) != 0)
            qFatal("no pipe");
    }
    ~Pipe()
    {
        close(m_ends[0]);
        close(m_ends[1]);
    }
    Pipe(const Pipe &) = delete;
    Pipe &operator=(const Pipe &) = delete;

    int readingEnd() const { return m_ends[0]; }
    bool put() const { return write(m_ends[1], "x", 1) == 1; }
    bool take() const
    {
        char byte = 0;
        return read(m_ends[0], &byte, 1) == 1;
    }

private:
    std::array<int, 2> m_ends{};
};

} // namespace

class TestDescriptorWatch : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_log.reset(new MessageLog);
        m_watch.reset(new DescriptorWatch);
        m_readable.reset(new QSignalSpy(m_watch.get(), SIGNAL(readable())));
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
        const Pipe one;
        const Pipe two;
        m_watch->watch(std::array{one.readingEnd(), two.readingEnd()});
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
        const Pipe pipe;
        m_watch->watch(std::array{pipe.readingEnd()});
        const auto *before = m_watch->findChild<QSocketNotifier *>();
        m_watch->watch(std::array{pipe.readingEnd()});
        QCOMPARE(m_watch->findChild<QSocketNotifier *>(), before);
        QCOMPARE(notifiers(), 1);
    }

    void descriptorThatCameBackUnderItsNumber()
    {
        for (const bool loopTurnsBetween : {false, true}) {
            auto pipe = std::make_unique<Pipe>();
            const int number = pipe->readingEnd();
            m_watch->watch(std::array{number});
            pipe.reset();
            if (loopTurnsBetween) { // Qt switches the notifier off
                QTest::qWait(20);
                QVERIFY(!m_watch->findChild<QSocketNotifier *>()->isEnabled());
                QCOMPARE(m_log->takeLines().size(), 1); // and warns
            }
            pipe = std::make_unique<Pipe>();
            QCOMPARE(pipe->readingEnd(), number);
            m_watch->watch(std::array{number});
            QVERIFY(wakes(*pipe));
        }
    }

    void changeFromItsOwnSlot()
    {
        auto first = std::make_unique<Pipe>();
        const Pipe second;
        m_watch->watch(std::array{first->readingEnd()});
        connect(m_watch.get(), &DescriptorWatch::readable, m_watch.get(), [&] {
            first.reset();
            m_watch->watch(std::array{second.readingEnd()});
        });
        QVERIFY(first->put());
        QTRY_VERIFY(!first);
        QTRY_COMPARE(notifiers(), 1);
        QVERIFY(wakes(second));
    }

    void manyChangesLeaveNothingBehind()
    {
        const Pipe stays;
        for (int round = 0; round < 200; ++round) {
            const Pipe comes;
            m_watch->watch(std::array{stays.readingEnd(), comes.readingEnd()});
            QVERIFY(comes.put());
            QCoreApplication::processEvents();
            m_watch->watch(std::array{stays.readingEnd()});
            QCoreApplication::sendPostedEvents(nullptr, QEvent::DeferredDelete);
        }
        QTRY_COMPARE(notifiers(), 1);
        QVERIFY(isSilent()); // nothing spins
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

    bool wakes(const Pipe &pipe)
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
