// The link to the amplifier monitor, on a bus of the test's own with a monitor of the test's own.
#include "support/talbench.h"
#include "support/testprogram.h"

#include "dbus/dbusinterface.h"

#include <QDBusAbstractInterface>
#include <QDBusConnection>
#include <QDBusConnectionInterface>
#include <QDBusMessage>
#include <QDBusServiceWatcher>
#include <QDBusVirtualObject>
#include <QFile>
#include <QMetaMethod>
#include <QMetaProperty>
#include <QProcess>
#include <QSignalSpy>
#include <QTemporaryDir>

#include <memory>

namespace {

const QString serviceName = QStringLiteral("com.orvane.pamon");
const QString objectPath = QStringLiteral("/monitor");

/// A bus daemon that lives as long as this. It is made the system bus of this program.
class PrivateBus {
public:
    bool start()
    {
        QFile config(m_folder.filePath(qs("bus.conf")));
        if (!config.open(QIODevice::WriteOnly))
            return false;
        config.write("<busconfig><type>session</type><listen>unix:path=" + m_folder.filePath(qs("bus")).toUtf8() +
                     "</listen><auth>EXTERNAL</auth><policy context=\"default\"><allow send_destination=\"*\"/>"
                     "<allow receive_sender=\"*\"/><allow own=\"*\"/><allow user=\"*\"/></policy></busconfig>");
        config.close();
        m_daemon.setProcessChannelMode(QProcess::ForwardedErrorChannel);
        m_daemon.start(qs("dbus-daemon"),
                       {qs("--config-file=") + config.fileName(), qs("--nofork"), qs("--print-address")});
        if (!m_daemon.waitForReadyRead(30000))
            return false;
        m_address = QString::fromUtf8(m_daemon.readLine()).trimmed();
        qputenv("DBUS_SYSTEM_BUS_ADDRESS", m_address.toUtf8());
        if (!QDBusConnection::systemBus().isConnected())
            return false;
        m_watcher = std::make_unique<QDBusServiceWatcher>(serviceName, QDBusConnection::systemBus());
        QObject::connect(m_watcher.get(), &QDBusServiceWatcher::serviceOwnerChanged, m_watcher.get(),
                         [this](const QString &, const QString &, const QString &owner) { m_ownerSeen = owner; });
        return true;
    }
    ~PrivateBus()
    {
        m_daemon.kill();
        m_daemon.waitForFinished();
    }

    QString address() const { return m_address; }

    /// Whom this program's connection takes for the monitor; announcements of others are dropped.
    QString ownerSeen() const { return m_ownerSeen; }

private:
    QTemporaryDir m_folder;
    QProcess m_daemon;
    QString m_address;
    std::unique_ptr<QDBusServiceWatcher> m_watcher;
    QString m_ownerSeen;
};

/// Notes every call that the object gets.
class CallNotes : public QDBusVirtualObject {
public:
    QString introspect(const QString &) const override { return {}; }
    bool handleMessage(const QDBusMessage &message, const QDBusConnection &) override
    {
        calls << message.interface() + QLatin1Char('.') + message.member();
        return false;
    }
    QStringList calls;
};

/// A program on the bus with a connection of its own: the monitor when it has taken the name, else a stranger.
class Peer {
public:
    explicit Peer(const PrivateBus &bus)
        : m_privateBus(bus),
          m_name(QStringLiteral("peer-%1").arg(++s_count)),
          m_bus(QDBusConnection::connectToBus(bus.address(), m_name))
    {
        m_bus.registerVirtualObject(objectPath, &notes);
    }
    ~Peer()
    {
        if (m_privateBus.ownerSeen() == m_bus.baseService())
            giveUpName();
        m_bus.unregisterObject(objectPath);
        QDBusConnection::disconnectFromBus(m_name);
    }
    Peer(const Peer &) = delete;
    Peer &operator=(const Peer &) = delete;

    /// Both return once the link's connection has learned of it.
    void takeName()
    {
        QVERIFY(m_bus.registerService(serviceName));
        QTRY_COMPARE(m_privateBus.ownerSeen(), m_bus.baseService());
    }
    void giveUpName()
    {
        QVERIFY(m_bus.unregisterService(serviceName));
        QTRY_COMPARE(m_privateBus.ownerSeen(), QString());
    }

    /// Announces and waits until the bus has passed it on.
    void announce(const char *member, const QVariantList &arguments, const QString &path = objectPath,
                  const QString &interface = serviceName)
    {
        QDBusMessage message = QDBusMessage::createSignal(path, interface, qs(member));
        message.setArguments(arguments);
        QVERIFY(m_bus.send(message));
        QVERIFY(!m_bus.interface()->isServiceRegistered(qs("org.example.nobody")).value());
    }

    CallNotes notes;

private:
    static inline int s_count = 0;
    const PrivateBus &m_privateBus;
    QString m_name;
    QDBusConnection m_bus;
};

/// A client on the bus, with its link to the monitor under observation.
class LinkBench : public TalBench {
public:
    LinkBench()
        : TalBench(6420),
          link(handler.findChild<DbusInterface *>(QString(), Qt::FindDirectChildrenOnly)),
          gpo(link, SIGNAL(gpoUpdateSignal(uint, QString, QString))),
          gpi(link, SIGNAL(gpiUpdateSignal(uint, QString))),
          amp(link, SIGNAL(ampChannelStatusUpdateSignal(uint, uint))),
          let(link, SIGNAL(letPrecenseUpdateSignal(uint, uint, uint)))
    {
        // The bus has read all that the link asked of it once it answers this.
        QDBusConnection::systemBus().interface()->isServiceRegistered(serviceName);
    }

    int received() const { return gpo.size() + gpi.size() + amp.size() + let.size(); }

    DbusInterface *link;
    QSignalSpy gpo;
    QSignalSpy gpi;
    QSignalSpy amp;
    QSignalSpy let;
};

/// Announced last: all that was sent before has been looked at when this has come.
void announceLastWord(Peer &peer, LinkBench &bench)
{
    const int before = bench.gpi.size();
    peer.announce("onGpiUpdate", {13U, qs("last word")});
    QTRY_COMPARE(bench.gpi.size(), before + 1);
    QCOMPARE(bench.gpi.last(), QVariantList({13U, qs("last word")}));
}

const QString lastWordLine = QStringLiteral("dbusDoGpiUpdateSlot GPI: 13 State: last word");

QStringList ownMethods(const QMetaObject &meta, QMetaMethod::MethodType type)
{
    QStringList all;
    for (int i = meta.methodOffset(); i < meta.methodCount(); ++i)
        if (meta.method(i).methodType() == type)
            all << QString::fromLatin1(meta.method(i).methodSignature());
    return all;
}

} // namespace

// The line names the first number "Let:" and the second "Channel:", the client takes them as channel and LET number.

class TestDbusInterface : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { QVERIFY(m_bus.start()); }

    void constructionSaysNothing()
    {
        LinkBench withoutService;
        QVERIFY(withoutService.link);
        QCOMPARE(withoutService.log.lines(), QStringList());

        Peer monitor(m_bus);
        monitor.takeName();
        LinkBench withService;
        QCOMPARE(withService.log.lines(), QStringList());
    }

    void gpoReachesTheClientUnchangedAndUnlogged_data()
    {
        QTest::addColumn<uint>("index");
        QTest::addColumn<QString>("state");
        QTest::addColumn<QString>("systemState");
        QTest::addColumn<uint>("code");
        QTest::newRow("known state") << 2U << qs("ok_set") << qs("ok_cleared") << 3U;
        QTest::newRow("other texts") << 5U
                                     << qs(" Gr\xc3\xbc\xc3\x9f"
                                           "e ")
                                     << qs("\xe4\xb8\xad") << 1U;
        QTest::newRow("empty texts") << 0U << qs("") << qs("") << 1U;
    }

    void gpoReachesTheClientUnchangedAndUnlogged()
    {
        QFETCH(uint, index);
        QFETCH(QString, state);
        QFETCH(QString, systemState);
        QFETCH(uint, code);

        Peer monitor(m_bus);
        monitor.takeName();
        LinkBench bench;
        bench.records().controlOutput.status[index] = 77;
        monitor.announce("onGpoUpdate", {index, state, systemState});
        QTRY_COMPARE(bench.gpo.size(), 1);
        QCOMPARE(bench.gpo[0], QVariantList({index, state, systemState}));
        QCOMPARE(bench.records().controlOutput.status[index], code);
        announceLastWord(monitor, bench);
        QCOMPARE(bench.log.lines(), QStringList{lastWordLine});
    }

    void gpiGivesOneLine()
    {
        Peer monitor(m_bus);
        monitor.takeName();
        LinkBench bench;
        monitor.announce("onGpiUpdate", {9U, qs("fail_shorted")});
        QTRY_COMPARE(bench.gpi.size(), 1);
        QCOMPARE(bench.gpi[0], QVariantList({9U, qs("fail_shorted")}));
        QCOMPARE(bench.records().controlInput.rows[9].status, 4U);
        QCOMPARE(bench.log.lines(), QStringList{qs("dbusDoGpiUpdateSlot GPI: 9 State: fail_shorted")});
    }

    void ampChannelStatus()
    {
        Peer monitor(m_bus);
        monitor.takeName();
        LinkBench bench;
        monitor.announce("onAmpChannelStatusUpdate", {1U, 2U});
        QTRY_COMPARE(bench.amp.size(), 1);
        QCOMPARE(bench.amp[0], QVariantList({1U, 2U}));
        QCOMPARE(bench.records().ampChannel.rows[0].ampMonitorStatus, 3U);
        QCOMPARE(bench.records().ampChannel.rows[1].ampMonitorStatus, 2U);
        QCOMPARE(bench.log.lines(), QStringList{qs("dbusDoAmpChannelStatusUpdateSlot Amp: 1 Status: 2")});
    }

    void letPresenceIsPassedOnByPosition()
    {
        Peer monitor(m_bus);
        monitor.takeName();
        LinkBench bench;
        monitor.announce("onLetPrecenseUpdate", {1U, 4U, 2U});
        QTRY_COMPARE(bench.let.size(), 1);
        QCOMPARE(bench.let[0], QVariantList({1U, 4U, 2U}));
        QCOMPARE(bench.records().let.lets[1][3].letPresence, 2U);
        QCOMPARE(bench.log.lines(), QStringList{qs("dbusDoLetPrecenseUpdateSlot Let: 1 Channel: 4 Status: 2")});
    }

    void outOfRangeIsPassedOnAndIgnoredByTheClient()
    {
        Peer monitor(m_bus);
        monitor.takeName();
        LinkBench bench;
        const TableRecords &r = bench.records();
        const QByteArray before(reinterpret_cast<const char *>(&r), int(sizeof r));
        monitor.announce("onGpoUpdate", {6U, qs("ok_set"), qs("ok_set")});
        monitor.announce("onGpiUpdate", {14U, qs("ok_open")});
        monitor.announce("onAmpChannelStatusUpdate", {2U, 1U});
        monitor.announce("onAmpChannelStatusUpdate", {0U, 3U});
        monitor.announce("onLetPrecenseUpdate", {0U, 11U, 1U});
        monitor.announce("onLetPrecenseUpdate", {2U, 1U, 1U});
        monitor.announce("onLetPrecenseUpdate", {0U, 1U, 4294967295U});
        QTRY_COMPARE(bench.received(), 7);
        QVERIFY(before == QByteArray(reinterpret_cast<const char *>(&r), int(sizeof r)));
        QCOMPARE(bench.log.lines(),
                 QStringList({qs("dbusDoGpiUpdateSlot GPI: 14 State: ok_open"),
                              qs("dbusDoAmpChannelStatusUpdateSlot Amp: 2 Status: 1"),
                              qs("dbusDoAmpChannelStatusUpdateSlot Amp: 0 Status: 3"),
                              qs("dbusDoLetPrecenseUpdateSlot Let: 0 Channel: 11 Status: 1"),
                              qs("dbusDoLetPrecenseUpdateSlot Let: 2 Channel: 1 Status: 1"),
                              qs("dbusDoLetPrecenseUpdateSlot Let: 0 Channel: 1 Status: 4294967295")}));
    }

    void powerConsumptionIsIgnored()
    {
        Peer monitor(m_bus);
        monitor.takeName();
        LinkBench bench;
        monitor.announce("onPowerConsumptionUpdate", {120U, 80U});
        monitor.announce("onPowerConsumptionUpdate", {120.5, 80.5});
        announceLastWord(monitor, bench);
        QCOMPARE(bench.received(), 1);
        QCOMPARE(bench.log.lines(), QStringList{lastWordLine});
    }

    void anotherSenderIsIgnored()
    {
        Peer monitor(m_bus);
        monitor.takeName();
        Peer stranger(m_bus);
        LinkBench bench;
        stranger.announce("onGpoUpdate", {2U, qs("ok_set"), qs("ok_set")});
        stranger.announce("onGpiUpdate", {2U, qs("ok_open")});
        stranger.announce("onAmpChannelStatusUpdate", {0U, 1U});
        stranger.announce("onLetPrecenseUpdate", {0U, 1U, 1U});
        announceLastWord(monitor, bench);
        QCOMPARE(bench.received(), 1);
        QCOMPARE(bench.records().controlOutput.status[2], 1U);
        QCOMPARE(bench.log.lines(), QStringList{lastWordLine});
    }

    void anotherObjectOrInterfaceIsIgnored()
    {
        Peer monitor(m_bus);
        monitor.takeName();
        LinkBench bench;
        monitor.announce("onGpiUpdate", {2U, qs("ok_open")}, qs("/monitor/other"));
        monitor.announce("onGpiUpdate", {2U, qs("ok_open")}, objectPath, qs("com.orvane.other"));
        monitor.announce("onOtherUpdate", {2U, qs("ok_open")});
        announceLastWord(monitor, bench);
        QCOMPARE(bench.received(), 1);
    }

    void otherArgumentTypesAreIgnored()
    {
        Peer monitor(m_bus);
        monitor.takeName();
        LinkBench bench;
        monitor.announce("onGpiUpdate", {qs("2"), qs("ok_open")});
        monitor.announce("onGpiUpdate", {2U});
        monitor.announce("onGpoUpdate", {2U, qs("ok_set")});
        monitor.announce("onAmpChannelStatusUpdate", {qs("0"), 1U});
        monitor.announce("onLetPrecenseUpdate", {});
        announceLastWord(monitor, bench);
        QCOMPARE(bench.received(), 1);
    }

    void serviceThatComesLater()
    {
        Peer monitor(m_bus);
        LinkBench bench;
        monitor.announce("onGpiUpdate", {1U, qs("ok_open")}); // nobody's announcement as yet
        monitor.takeName();
        announceLastWord(monitor, bench);
        QCOMPARE(bench.received(), 1);

        monitor.announce("onGpoUpdate", {2U, qs("ok_set"), qs("ok_set")});
        QTRY_COMPARE(bench.gpo.size(), 1);
        QCOMPARE(bench.records().controlOutput.status[2], 3U);
    }

    void serviceThatIsTakenOver()
    {
        Peer first(m_bus);
        Peer second(m_bus);
        first.takeName();
        LinkBench bench;
        announceLastWord(first, bench);

        first.giveUpName();
        first.announce("onGpiUpdate", {1U, qs("ok_open")});
        second.takeName();
        announceLastWord(second, bench);
        first.announce("onGpiUpdate", {1U, qs("ok_open")});
        announceLastWord(second, bench);
        QCOMPARE(bench.received(), 3);
    }

    void nothingIsCalled()
    {
        Peer monitor(m_bus);
        monitor.takeName();
        LinkBench bench;
        monitor.announce("onAmpChannelStatusUpdate", {0U, 1U});
        announceLastWord(monitor, bench);
        QCOMPARE(monitor.notes.calls, QStringList());

        // The object does hear who calls it.
        QDBusConnection::systemBus().send(
            QDBusMessage::createMethodCall(serviceName, objectPath, serviceName, qs("doPaUiDbusConnected")));
        QTRY_COMPARE(monitor.notes.calls, QStringList{qs("com.orvane.pamon.doPaUiDbusConnected")});
    }

    void proxyIsForTheMonitorOnTheSystemBus()
    {
        LinkBench bench;
        const auto proxies = bench.link->findChildren<QDBusAbstractInterface *>(QString(), Qt::FindDirectChildrenOnly);
        QCOMPARE(proxies.size(), 1);
        const QDBusAbstractInterface *proxy = proxies.first();
        const QMetaObject &meta = *proxy->metaObject();
        QCOMPARE(meta.className(), "ComOrvanePamonInterface");
        QCOMPARE(proxy->service(), serviceName);
        QCOMPARE(proxy->path(), objectPath);
        QCOMPARE(proxy->interface(), serviceName);
        QCOMPARE(proxy->connection().name(), QDBusConnection::systemBus().name());

        QStringList announcements = ownMethods(meta, QMetaMethod::Signal).filter(QRegularExpression(qs("^on")));
        announcements.sort();
        QCOMPARE(announcements.size(), 5);
        QCOMPARE(announcements.mid(0, 4),
                 QStringList({qs("onAmpChannelStatusUpdate(uint,uint)"), qs("onGpiUpdate(uint,QString)"),
                              qs("onGpoUpdate(uint,QString,QString)"), qs("onLetPrecenseUpdate(uint,uint,uint)")}));
        QVERIFY(announcements[4].startsWith(qs("onPowerConsumptionUpdate(")));
        QCOMPARE(ownMethods(meta, QMetaMethod::Slot), QStringList{qs("doPaUiDbusConnected()")});
        const QMetaProperty property = meta.property(meta.indexOfProperty("pamonInterfacUp"));
        QVERIFY(property.isReadable());
        QVERIFY(!property.isWritable());
    }

    void signalsAndSlotsInOrder()
    {
        QCOMPARE(ownMethods(DbusInterface::staticMetaObject, QMetaMethod::Signal),
                 QStringList({qs("gpoUpdateSignal(uint,QString,QString)"), qs("gpiUpdateSignal(uint,QString)"),
                              qs("ampChannelStatusUpdateSignal(uint,uint)"),
                              qs("letPrecenseUpdateSignal(uint,uint,uint)")}));
        QCOMPARE(ownMethods(DbusInterface::staticMetaObject, QMetaMethod::Slot),
                 QStringList({qs("dbusDoGpoUpdateSlot(uint,QString,QString)"), qs("dbusDoGpiUpdateSlot(uint,QString)"),
                              qs("dbusDoAmpChannelStatusUpdateSlot(uint,uint)"),
                              qs("dbusDoLetPrecenseUpdateSlot(uint,uint,uint)")}));
    }

private:
    PrivateBus m_bus;
};

const TestEntry entry("tst_dbusinterface", runTest<TestDbusInterface>);
#include "tst_dbusinterface.moc"
