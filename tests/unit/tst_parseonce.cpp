// One notification costs one parse of its XML, however many texts its parser asks for. The linker puts counters in
// front of the two functions that read a notification's XML: see "parse once" in CMakeLists.txt.
#include "support/messagelog.h"
#include "support/talpeer.h"
#include "support/testprogram.h"

#include "tal/talhandler.h"

#include <xrcommon/TalInterface.h>

#include <pugixml.hpp>

#include <QtTest>

namespace {
int treesParsed = 0;
int textsChecked = 0;

const char *const keys6420[] = {"1v8SW", "50v0", "50v0AC", "50v0DC", "15v0CDA", "12v0PM", "1v8",
                                "3v3",   "5v0",  "12v7",   "15v0",   "24v0",    "24v0FB"};
constexpr std::size_t slots6420[] = {0, 9, 11, 13, 15, 16, 2, 3, 4, 5, 6, 7, 8};

/// Voltages one volt apart. Each test has its own first one, because the tree of the same notification is kept.
QString fullVoltageSet(int volts)
{
    QString xml = QStringLiteral("<power_lines>");
    for (const char *key : keys6420)
        xml += QStringLiteral("<power_line><kid>%1</kid><voltage>%2</voltage></power_line>")
                   .arg(QString::fromLatin1(key))
                   .arg(volts++);
    return xml + QStringLiteral("</power_lines>");
}

int storedVoltages(const TalHandler &handler, std::size_t volts)
{
    int stored = 0;
    for (std::size_t i = 0; i < std::size(slots6420); ++i)
        if (handler.tableRecords().voltage.values[slots6420[i]] == 1000 * (volts + i))
            ++stored;
    return stored;
}

const QString reference = QStringLiteral("kvsnmp_voltage");
const QString path = QStringLiteral("/state/power_lines");
} // namespace

// The linker's names for the two functions as they are, and for what is called in their place.
pugi::xml_parse_result loadBuffer(
    pugi::xml_document *self, void *contents, std::size_t size, unsigned options,
    pugi::xml_encoding encoding) __asm__("__real__ZN4pugi12xml_document19load_buffer_inplaceEPvmjNS_12xml_encodingE");
pugi::xml_parse_result countAndLoadBuffer(
    pugi::xml_document *self, void *contents, std::size_t size, unsigned options,
    pugi::xml_encoding encoding) __asm__("__wrap__ZN4pugi12xml_document19load_buffer_inplaceEPvmjNS_12xml_encodingE");
bool checkElement(const QString &xml) __asm__("__real__Z19isWellFormedElementRK7QString");
bool countAndCheckElement(const QString &xml) __asm__("__wrap__Z19isWellFormedElementRK7QString");

pugi::xml_parse_result countAndLoadBuffer(pugi::xml_document *self, void *contents, std::size_t size, unsigned options,
                                          pugi::xml_encoding encoding)
{
    ++treesParsed;
    return loadBuffer(self, contents, size, options, encoding);
}

bool countAndCheckElement(const QString &xml)
{
    ++textsChecked;
    return checkElement(xml);
}

class TestParseOnce : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void initTestCase() { qputenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent/system_bus_socket"); }
    void init()
    {
        treesParsed = 0;
        textsChecked = 0;
    }

    void aFullVoltageSetIsParsedOnce();
    void aMessageFromTheDataServiceIsNotReadOnceMore();
    void theNextNotificationIsParsedAgain();
    void aMalformedNotificationIsNotParsed();

private:
    MessageLog m_log;
};

void TestParseOnce::aFullVoltageSetIsParsedOnce()
{
    TalHandler handler(nullptr, 6420, "any");
    handler.talHandlerNotifySlot(reference, QStringLiteral("create"), path, path, fullVoltageSet(1));
    QCOMPARE(storedVoltages(handler, 1), 13);
    QCOMPARE(treesParsed, 1);
    QCOMPARE(textsChecked, 1);
}

void TestParseOnce::aMessageFromTheDataServiceIsNotReadOnceMore()
{
    TalPeer service;
    TalInterface client(nullptr);
    TalHandler handler(nullptr, 6420, "any");
    connect(&client, SIGNAL(talNotifySignal(const QString, const QString, const QString, const QString, const QString)),
            &handler,
            SLOT(talHandlerNotifySlot(const QString, const QString, const QString, const QString, const QString)));
    QTRY_VERIFY(service.isConnected());
    service.sendNotify(reference, QStringLiteral("create"), path, path, fullVoltageSet(20));
    QTRY_COMPARE(storedVoltages(handler, 20), 13);
    QCOMPARE(treesParsed, 1);
    QCOMPARE(textsChecked, 0); // it was well-formed as a part of the message
}

void TestParseOnce::theNextNotificationIsParsedAgain()
{
    TalHandler handler(nullptr, 6420, "any");
    for (const char *volts : {"1", "2", "3"})
        handler.talHandlerNotifySlot(reference, QStringLiteral("replace"), path, path,
                                     QStringLiteral("<power_lines><power_line><kid>3v3</kid><voltage>%1</voltage>"
                                                    "</power_line></power_lines>")
                                         .arg(QString::fromLatin1(volts)));
    QCOMPARE(handler.tableRecords().voltage.values[3], 3000U);
    QCOMPARE(treesParsed, 3);
}

void TestParseOnce::aMalformedNotificationIsNotParsed()
{
    TalHandler handler(nullptr, 6420, "any");
    handler.talHandlerNotifySlot(reference, QStringLiteral("create"), path, path, QStringLiteral("<power_lines>"));
    QCOMPARE(treesParsed, 0);
    QCOMPARE(textsChecked, 1); // once, although 13 keys were looked for
}

const TestEntry entry("tst_parseonce", runTest<TestParseOnce>);
#include "tst_parseonce.moc"
