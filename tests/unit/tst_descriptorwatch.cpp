// The watch over the agent library's descriptors: they come, go and come back under the same number.
#include "support/testprogram.h"

#include "app/descriptorwatch.h"

#include <QSignalSpy>
#include <QSocketNotifier>
#include <QtTest>

#include <array>
#include <fcntl.h>
#include <unistd.h>

namespace {

QStringList warnings;

void keepWarning(QtMsgType type, const QMessageLogContext &, const QString &text)
{
    if (type == QtWarningMsg)
        warnings.append(text);
}

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
        warnings.clear();
        qInstallMessageHandler(keepWarning);
        m_watch.reset(new DescriptorWatch);
        m_readable.reset(new QSignalSpy(m_watch.get(), SIGNAL(readable())));
    }

    void cleanup()
    {
        m_readable.reset();
        m_watch.reset();
        qInstallMessageHandler(nullptr);
    }

    void readableWakes()
    {
        const Pipe one;
        const Pipe two;
        m_watch->watch(std::array{one.readingEnd(), two.readingEnd()});
        QTest::qWait(20);
        QCOMPARE(m_readable->count(), 0);
        QVERIFY(two.put());
        QTRY_VERIFY(m_readable->count() >= 1);
        QVERIFY(two.take());
        QCOMPARE(warnings, QStringList());
    }

    void staysReadableUntilItIsRead()
    {
        const Pipe pipe;
        m_watch->watch(std::array{pipe.readingEnd()});
        QVERIFY(pipe.put());
        QTRY_VERIFY(m_readable->count() >= 3);
        QVERIFY(pipe.take());
        QCoreApplication::processEvents();
        m_readable->clear();
        QTest::qWait(20);
        QCOMPARE(m_readable->count(), 0);
    }

    void droppedDescriptorIsSilent()
    {
        const Pipe pipe;
        m_watch->watch(std::array{pipe.readingEnd()});
        m_watch->watch({});
        QVERIFY(pipe.put());
        QTest::qWait(20);
        QCOMPARE(m_readable->count(), 0);
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
        auto pipe = std::make_unique<Pipe>();
        const int number = pipe->readingEnd();
        m_watch->watch(std::array{number});
        pipe.reset(); // closed and opened again before the event loop turns
        pipe = std::make_unique<Pipe>();
        QCOMPARE(pipe->readingEnd(), number);
        m_watch->watch(std::array{number});
        QVERIFY(pipe->put());
        QTRY_VERIFY(m_readable->count() >= 1);
        QVERIFY(pipe->take());
        QCOMPARE(warnings, QStringList());
    }

    void notifierThatQtSwitchedOffIsSwitchedOnAgain()
    {
        auto pipe = std::make_unique<Pipe>();
        const int number = pipe->readingEnd();
        m_watch->watch(std::array{number});
        pipe.reset();
        QTest::qWait(20); // the event loop meets the closed descriptor
        QVERIFY(!m_watch->findChild<QSocketNotifier *>()->isEnabled());
        pipe = std::make_unique<Pipe>();
        QCOMPARE(pipe->readingEnd(), number);
        m_watch->watch(std::array{number});
        m_readable->clear();
        QVERIFY(pipe->put());
        QTRY_VERIFY(m_readable->count() >= 1);
        QVERIFY(pipe->take());
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
        m_readable->clear();
        QVERIFY(second.put());
        QTRY_VERIFY(m_readable->count() >= 1);
        QVERIFY(second.take());
        QCOMPARE(warnings, QStringList());
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
        m_readable->clear();
        QTest::qWait(50);
        QCOMPARE(m_readable->count(), 0); // nothing spins
        QCOMPARE(warnings, QStringList());
    }

private:
    int notifiers() const { return m_watch->findChildren<QSocketNotifier *>().size(); }

    QScopedPointer<DescriptorWatch> m_watch;
    QScopedPointer<QSignalSpy> m_readable;
};

const TestEntry entry("tst_descriptorwatch", runTest<TestDescriptorWatch>);
#include "tst_descriptorwatch.moc"
