// The identity files: every reader with the contents that it may find.
#include "support/testprogram.h"

#include "app/identity.h"
#include "device/models.h"

#include <QDir>
#include <QTemporaryDir>
#include <QTextCodec>
#include <QtTest>

#include <cstring>

namespace {

QStringList logLines;

void keepLine(QtMsgType, const QMessageLogContext &, const QString &line)
{
    logLines.append(line);
}

QString latin1(const char *text)
{
    return QLatin1String(text);
}

/// The stored text, after looking that the length and the terminator agree with it.
QByteArray textOf(const InfoText &field)
{
    if (field.length >= sizeof field.text || std::strlen(field.text) != field.length)
        return "(length and text differ)";
    return field.text;
}

using Reader = void (Identity::*)();

} // namespace

Q_DECLARE_METATYPE(Reader)
Q_DECLARE_METATYPE(InfoText InfoData::*)

class TestIdentity : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_root.reset(new QTemporaryDir);
        QVERIFY(m_root->isValid());
        QVERIFY(QDir(m_root->path()).mkdir(QStringLiteral("etc")));
        logLines.clear();
        qInstallMessageHandler(keepLine);
        useCodec("UTF-8");
    }

    void cleanup()
    {
        qInstallMessageHandler(nullptr);
        QTextCodec::setCodecForLocale(nullptr);
        m_root.reset();
    }

    void modelNumber_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<int>("number"); // 0: refused
        QTest::addColumn<QString>("logLine");

        for (const int known : {6211, 6214, 6259, 6410, 6420, 6425, 6601, 6602, 6720, 6764, 6891, 6913, 6914}) {
            const QByteArray digits = QByteArray::number(known);
            QTest::newRow(digits.constData())
                << digits + '\n'
                << known << latin1("readModelNumber modelNumber: ") + latin1(digits) + latin1(" len: 4");
        }
        const QString accepted = latin1("readModelNumber modelNumber: 6214 len: 4");
        const QString empty = latin1("readModelNumber /etc/xr-modelnumber EMPTY !   Cannot continue");
        const auto invalid = [](const char *text) {
            return latin1("readModelNumber Invalid numeric modelNumber: ") + latin1(text) + latin1(" Cannot continue");
        };
        const auto unknown = [](const char *text) {
            return latin1("readModelNumber Unknown modelNumber: ") + latin1(text) + latin1(" Cannot continue");
        };
        QTest::newRow("no line end") << QByteArray("6214") << 6214 << accepted;
        QTest::newRow("blanks around it") << QByteArray("  6214 \n") << 6214 << accepted;
        QTest::newRow("tabs and carriage return") << QByteArray("\t6214\t\r\n") << 6214 << accepted;
        QTest::newRow("leading zero") << QByteArray("06214\n") << 6214 << accepted;
        QTest::newRow("second line is not read") << QByteArray("6214\nx\n") << 6214 << accepted;
        QTest::newRow("letter behind it") << QByteArray("6214x\n") << 0 << invalid("6214x\n");
        QTest::newRow("letter before it") << QByteArray("x6214\n") << 0 << invalid("x6214\n");
        QTest::newRow("blank inside") << QByteArray("62 14\n") << 0 << invalid("62 14\n");
        QTest::newRow("blanks around an invalid one") << QByteArray("\t 6x \r\n") << 0 << invalid("\t 6x \r\n");
        QTest::newRow("hexadecimal") << QByteArray("0x1846\n") << 0 << invalid("0x1846\n");
        QTest::newRow("fraction") << QByteArray("6214.0\n") << 0 << invalid("6214.0\n");
        QTest::newRow("NUL behind it") << QByteArray("6214\0\n", 6) << 0 << invalid("6214\n");
        QTest::newRow("byte order mark") << QByteArray("\xef\xbb\xbf\x36\x32\x31\x34\n") << 0 << invalid("6214\n");
        QTest::newRow("empty first line") << QByteArray("\n6214\n") << 0 << invalid("\n");
        QTest::newRow("more than 32 bits") << QByteArray("99999999999\n") << 0 << invalid("99999999999\n");
        QTest::newRow("unknown number") << QByteArray("9999\n") << 0 << unknown("9999");
        QTest::newRow("0") << QByteArray("0\n") << 0 << unknown("0");
        QTest::newRow("plus sign") << QByteArray("+6214\n") << 6214 << accepted;
        QTest::newRow("minus sign") << QByteArray("-6214\n") << 0 << unknown("-6214");
        QTest::newRow("two signs") << QByteArray("+-6214\n") << 0 << invalid("+-6214\n");
        QTest::newRow("blank behind the sign") << QByteArray("+ 6214\n") << 0 << invalid("+ 6214\n");
        QTest::newRow("sign alone") << QByteArray("+\n") << 0 << invalid("+\n");
        QTest::newRow("known in its low 16 bits only") << QByteArray("71750\n") << 0 << unknown("71750");
        QTest::newRow("empty file") << QByteArray() << 0 << empty;
    }

    void modelNumber()
    {
        QFETCH(QByteArray, content);
        QFETCH(int, number);
        QFETCH(QString, logLine);

        write("/etc/xr-modelnumber", content);
        Identity device = identity();
        QCOMPARE(device.readModelNumber(), number != 0);
        QCOMPARE(int{device.modelNumber()}, number);
        QCOMPARE(device.infoData().modelNumber.value, number);
        QCOMPARE(device.infoData().modelNumber.length, number != 0 ? 4U : 0U);
        QCOMPARE(logLines.size(), 1);
        QCOMPARE(QString(logLines.first()).remove(QChar(QChar::Null)), logLine); // a NUL of the file is logged as it is
    }

    void modelNumberFileMissing()
    {
        Identity device = identity();
        QVERIFY(!device.readModelNumber());
        QCOMPARE(logLines, QStringList{latin1("readModelNumber /etc/xr-modelnumber EMPTY !   Cannot continue")});
    }

    void modelNumberBehindTheBound_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<bool>("accepted");

        const QByteArray upToTheBound = QByteArray("6214").leftJustified(4095);
        QTest::newRow("blanks up to the bound") << upToTheBound << true;
        QTest::newRow("line end at the bound") << upToTheBound.left(4094) + "\nx" << true;
        QTest::newRow("letter behind the bound") << upToTheBound + "x\n" << false;
        QTest::newRow("blanks behind the bound") << upToTheBound + "  \n" << false;
        QTest::newRow("digits in front of the bound and behind it") << QByteArray(4094, '0') + "6214\n" << false;
    }

    void modelNumberBehindTheBound()
    {
        QFETCH(QByteArray, content);
        QFETCH(bool, accepted);

        write("/etc/xr-modelnumber", content);
        QCOMPARE(identity().readModelNumber(), accepted);
        QVERIFY(logLines.first().startsWith(
            latin1(accepted ? "readModelNumber modelNumber: 6214" : "readModelNumber Invalid numeric modelNumber: ")));
        QVERIFY(logLines.first().size() < 5000);
    }

    void fileWithoutALineEndIsNotReadToItsEnd()
    {
        const QByteArray much(1024 * 1024, '6');
        write("/etc/xr-modelnumber", much);
        write("/etc/xr-amptype", much);
        QVERIFY(!identity().readModelNumber());
        QCOMPARE(logLines.size(), 1);
        QVERIFY(logLines[0].startsWith(latin1("readModelNumber Invalid numeric modelNumber: 666")));
        QVERIFY(logLines[0].size() < 5000);
        QCOMPARE(identity().readFile("/etc/xr-amptype"), QByteArray(4096, '6'));
    }

    void ampType_data()
    {
        QTest::addColumn<int>("model");
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<int>("code");
        QTest::addColumn<QByteArray>("label");

        QTest::newRow("VQ9C") << 6420 << QByteArray("VQ9C\n") << 3 << QByteArray("VQ9C");
        QTest::newRow("VQ9D") << 6425 << QByteArray("VQ9D\n") << 4 << QByteArray("VQ9D");
        QTest::newRow("VQ9A") << 6720 << QByteArray("VQ9A\n") << 5 << QByteArray("VQ9A");
        QTest::newRow("VQ9B") << 6420 << QByteArray("VQ9B\n") << 6 << QByteArray("VQ9B");
        QTest::newRow("no line end") << 6420 << QByteArray("VQ9A") << 5 << QByteArray("VQ9A");
        QTest::newRow("carriage return before the line end")
            << 6420 << QByteArray("VQ9A\r\n") << 5 << QByteArray("VQ9A");
        QTest::newRow("blank behind it") << 6420 << QByteArray("VQ9B \n") << 1 << QByteArray("Unknown");
        QTest::newRow("lower case") << 6420 << QByteArray("vq9b\n") << 1 << QByteArray("Unknown");
        QTest::newRow("longer text") << 6420 << QByteArray("VQ9BA\n") << 1 << QByteArray("Unknown");
        QTest::newRow("other text") << 6420 << QByteArray("VQ8\n") << 1 << QByteArray("Unknown");
        QTest::newRow("empty file") << 6420 << QByteArray("") << 1 << QByteArray("Unknown");
        QTest::newRow("empty first line") << 6420 << QByteArray("\nVQ9C\n") << 1 << QByteArray("Unknown");
        QTest::newRow("power type on an amplifier") << 6420 << QByteArray("200\n") << 1 << QByteArray("Unknown");
        QTest::newRow("power 200") << 6764 << QByteArray("200\n") << 7 << QByteArray("VQ9C-P2");
        QTest::newRow("power 400") << 6764 << QByteArray("400\n") << 8 << QByteArray("VQ9D-P2");
        QTest::newRow("power other") << 6764 << QByteArray("300\n") << 1 << QByteArray("VQ9-P2");
        QTest::newRow("power with a blank behind it") << 6764 << QByteArray("200 \n") << 1 << QByteArray("VQ9-P2");
        QTest::newRow("power empty") << 6764 << QByteArray("") << 1 << QByteArray("VQ9-P2");
        QTest::newRow("no file") << 6420 << QByteArray() << 1 << QByteArray("Unknown");
        QTest::newRow("no power file") << 6764 << QByteArray() << 1 << QByteArray("VQ9-P2");
    }

    void ampType()
    {
        QFETCH(int, model);
        QFETCH(QByteArray, content);
        QFETCH(int, code);
        QFETCH(QByteArray, label);

        const bool isPowerType = model == 6764;
        if (!content.isNull())
            write(isPowerType ? "/etc/xr-powertype" : "/etc/xr-amptype", content);
        write(isPowerType ? "/etc/xr-amptype" : "/etc/xr-powertype", "of the other models\n");
        Identity device = identity();
        device.readAmpType(static_cast<quint16>(model));
        QCOMPARE(device.ampTypeCode(), code);
        QCOMPARE(textOf(device.infoData().amplifierType), label);
    }

    void ampTypeLog()
    {
        write("/etc/xr-amptype", "VQ9C\n");
        Identity device = identity();
        device.readAmpType(6420);
        QCOMPARE(logLines, QStringList{latin1("readAmpType amplfierTypeString: VQ9C len: 4")});
    }

    void readFile_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QByteArray>("line");

        QTest::newRow("no file, and nothing is logged") << QByteArray() << QByteArray();
        QTest::newRow("one line") << QByteArray("text\n") << QByteArray("text");
        QTest::newRow("no line end") << QByteArray("text") << QByteArray("text");
        QTest::newRow("carriage return and line feed") << QByteArray("text\r\n") << QByteArray("text");
        QTest::newRow("two lines") << QByteArray("first\nsecond\n") << QByteArray("first");
        QTest::newRow("blanks stay") << QByteArray(" a b \n") << QByteArray(" a b ");
        QTest::newRow("empty line") << QByteArray("\nsecond\n") << QByteArray();
        // clang-format off
        QTest::newRow("UTF-8 becomes Latin-1") << QByteArray("Stra\xc3\x9f" "e\n") << QByteArray("Stra\xdf" "e");
        QTest::newRow("outside Latin-1") << QByteArray("5 \xe2\x82\xac\n") << QByteArray("5 ?");
        QTest::newRow("not UTF-8") << QByteArray("Stra\xdf" "e\n") << QByteArray("Stra?e");
        QTest::newRow("ends within a character") << QByteArray("Stra\xc3\n") << QByteArray("Stra?");
        QTest::newRow("UTF-8 byte order mark") << QByteArray("\xef\xbb\xbf" "ab\n") << QByteArray("ab");
        QTest::newRow("byte order mark alone") << QByteArray("\xef\xbb\xbf") << QByteArray();
        QTest::newRow("UTF-16, little endian") << QByteArray("\xff\xfe" "\xfc\0b\0\n\0", 8) << QByteArray("\xfc" "b");
        QTest::newRow("UTF-16, big endian") << QByteArray("\xfe\xff" "\0\xfc\0b\0\n", 8) << QByteArray("\xfc" "b");
        QTest::newRow("UTF-32, little endian") << QByteArray("\xff\xfe\0\0" "a\0\0\0\n\0\0\0", 12) << QByteArray("a");
        // clang-format on
    }

    void readFile()
    {
        QFETCH(QByteArray, content);
        QFETCH(QByteArray, line);

        if (!content.isNull())
            write("/etc/xr-amptype", content);
        QCOMPARE(identity().readFile("/etc/xr-amptype"), line);
        QCOMPARE(logLines, QStringList());
    }

    void readFileWhereTheLocaleIsLatin1()
    {
        useCodec("ISO 8859-1");
        write("/etc/xr-amptype", "Stra\xdf\x65\n");
        QCOMPARE(identity().readFile("/etc/xr-amptype"), QByteArray("Stra\xdf\x65"));
        write("/etc/xr-amptype", "\xef\xbb\xbfStra\xc3\x9f\x65\n"); // the mark names its codec
        QCOMPARE(identity().readFile("/etc/xr-amptype"), QByteArray("Stra\xdf\x65"));
    }

    void readFileEmptyIsLogged()
    {
        write("/etc/xr-amptype", "");
        QCOMPARE(identity().readFile("/etc/xr-amptype"), QByteArray());
        QCOMPARE(logLines, QStringList{latin1("readFile /etc/xr-amptype  EMPTY!")});
    }

    void versionFileMissing_data()
    {
        QTest::addColumn<Reader>("reader");
        QTest::addColumn<InfoText InfoData::*>("field");
        QTest::addColumn<QString>("logLine");

        QTest::newRow("package") << &Identity::readPackageVersion << &InfoData::packageVersion
                                 << latin1("readPackageVersion /etc/xr-pkgver EMPTY !");
        QTest::newRow("model") << &Identity::readModelType << &InfoData::modelType
                               << latin1("readModelType /etc/xr-model EMPTY !");
        QTest::newRow("kernel") << &Identity::readKernelVersion << &InfoData::kernelVersion
                                << latin1("readKernelVersion /etc/xr-kernelver EMPTY !");
        QTest::newRow("device tree") << &Identity::readDeviceTreeVersion << &InfoData::deviceTreeVersion
                                     << latin1("readDeviceTreeVersion /etc/xr-oftreever EMPTY !");
    }

    void versionFileMissing()
    {
        QFETCH(Reader, reader);
        QFETCH(InfoText InfoData::*, field);
        QFETCH(QString, logLine);

        Identity missing = identity();
        (missing.*reader)();
        QCOMPARE(textOf(missing.infoData().*field), QByteArray("Unknown"));

        for (const char *path : {"/etc/xr-pkgver", "/etc/xr-model", "/etc/xr-kernelver", "/etc/xr-oftreever"})
            write(path, "");
        Identity empty = identity();
        (empty.*reader)();
        QCOMPARE(textOf(empty.infoData().*field), QByteArray("Unknown"));
        QCOMPARE(logLines, (QStringList{logLine, logLine}));
    }

    void versionFileFirstLine_data()
    {
        QTest::addColumn<Reader>("reader");
        QTest::addColumn<InfoText InfoData::*>("field");
        QTest::addColumn<QByteArray>("path");
        QTest::addColumn<QStringList>("lines");

        QTest::newRow("package") << &Identity::readPackageVersion << &InfoData::packageVersion
                                 << QByteArray("/etc/xr-pkgver")
                                 << QStringList{latin1("readPackageVersion pvStr: 1.2 \xe4"),
                                                latin1("readPackageVersion packageVersion: 1.2 \xe4 len: 5")};
        QTest::newRow("model") << &Identity::readModelType << &InfoData::modelType << QByteArray("/etc/xr-model")
                               << QStringList{latin1("readModelType modelType: 1.2 \xe4 len: 5")};
        QTest::newRow("kernel") << &Identity::readKernelVersion << &InfoData::kernelVersion
                                << QByteArray("/etc/xr-kernelver")
                                << QStringList{latin1("readKernelVersion kvStr: 1.2 \xe4"),
                                               latin1("readKernelVersion kernelVersion: 1.2 \xe4 len: 5")};
        QTest::newRow("device tree") << &Identity::readDeviceTreeVersion << &InfoData::deviceTreeVersion
                                     << QByteArray("/etc/xr-oftreever")
                                     << QStringList{latin1("readDeviceTreeVersion deviceTreeVersion: 1.2 \xe4 len: 5")};
    }

    void versionFileFirstLine()
    {
        QFETCH(Reader, reader);
        QFETCH(InfoText InfoData::*, field);
        QFETCH(QByteArray, path);
        QFETCH(QStringList, lines);

        write(path.constData(), "1.2 \xc3\xa4\nsecond line\n");
        Identity device = identity();
        (device.*reader)();
        QCOMPARE(textOf(device.infoData().*field), QByteArray("1.2 \xe4"));
        QCOMPARE(logLines, lines);
    }

    void versionContents_data()
    {
        QTest::addColumn<QByteArray>("content");
        QTest::addColumn<QByteArray>("stored");

        QTest::newRow("empty first line is an empty text") << QByteArray("\n1.2\n") << QByteArray();
        QTest::newRow("UTF-8 becomes Latin-1") << QByteArray("1.2 \xc3\xa4\n") << QByteArray("1.2 \xe4");
        QTest::newRow("127 characters fit") << QByteArray(127, 'v') + '\n' << QByteArray(127, 'v');
        QTest::newRow("128 characters are cut to 127") << QByteArray(128, 'v') + '\n' << QByteArray(127, 'v');
        QTest::newRow("127 characters of two bytes fit") << QByteArray("\xc3\xa4").repeated(127) + '\n'
                                                         << QByteArray(127, '\xe4');
        QTest::newRow("one endless line") << QByteArray(1 << 20, 'v') << QByteArray(127, 'v');
        QTest::newRow("ends at a NUL") << QByteArray("1.2\0.3\n", 7) << QByteArray("1.2");
    }

    void versionContents()
    {
        QFETCH(QByteArray, content);
        QFETCH(QByteArray, stored);

        write("/etc/xr-pkgver", content);
        Identity device = identity();
        device.readPackageVersion();
        QCOMPARE(textOf(device.infoData().packageVersion), stored);
    }

    void byteOrderMarkDoesNotHideAStationDescription()
    {
        write("/etc/xr-model", "\xef\xbb\xbfOrvane Brisel Compact - IP-QRM-B\n");
        Identity device = identity();
        device.readModelType();
        QVERIFY(hasExpanders(device.infoData().modelType.text));
    }

    void modelTypeOfVQ9BIsReplaced_data()
    {
        QTest::addColumn<QByteArray>("ampType");
        QTest::addColumn<QByteArray>("model");
        QTest::addColumn<QByteArray>("stored");

        const QByteArray fixed("Orvane Mervio Amplifier VQ9");
        QTest::newRow("VQ9B replaces other text") << QByteArray("VQ9B\n") << QByteArray("Some Amplifier\n") << fixed;
        QTest::newRow("VQ9B replaces an empty line") << QByteArray("VQ9B\n") << QByteArray("\n") << fixed;
        QTest::newRow("VQ9B replaces Unknown") << QByteArray("VQ9B\n") << QByteArray() << fixed;
        QTest::newRow("VQ9B and a blank does not")
            << QByteArray("VQ9B \n") << QByteArray("Some Amplifier\n") << QByteArray("Some Amplifier");
        QTest::newRow("VQ9C does not") << QByteArray("VQ9C\n") << QByteArray("Some Amplifier\n")
                                       << QByteArray("Some Amplifier");
    }

    void modelTypeOfVQ9BIsReplaced()
    {
        QFETCH(QByteArray, ampType);
        QFETCH(QByteArray, model);
        QFETCH(QByteArray, stored);

        write("/etc/xr-amptype", ampType);
        write("/etc/xr-model", model);
        Identity device = identity();
        device.readAmpType(6420);
        device.readModelType();
        QCOMPARE(textOf(device.infoData().modelType), stored);
    }

    void nothingIsStoredBeforeReading()
    {
        const Identity device = identity();
        QCOMPARE(int{device.modelNumber()}, 0);
        QCOMPARE(device.infoData().modelNumber.length, 0U);
        QCOMPARE(device.infoData().disablement.length, 0U);
        QCOMPARE(textOf(device.infoData().packageVersion), QByteArray());
        QCOMPARE(textOf(device.infoData().modelType), QByteArray());
        QCOMPARE(device.ampTypeCode(), 1);
        QCOMPARE(textOf(device.infoData().amplifierType), QByteArray());
    }

private:
    void write(const char *path, const QByteArray &content) const
    {
        QFile file(m_root->path() + QLatin1String(path));
        QVERIFY(file.open(QIODevice::WriteOnly));
        QCOMPARE(file.write(content), qint64{content.size()});
    }

    static void useCodec(const char *name) { QTextCodec::setCodecForLocale(QTextCodec::codecForName(name)); }
    Identity identity() const { return Identity(m_root->path()); }

    QScopedPointer<QTemporaryDir> m_root;
};

const TestEntry entry("tst_identity", runTest<TestIdentity>);
#include "tst_identity.moc"
