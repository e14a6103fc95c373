// The identity files: every reader with the contents that it may find.
#include "support/catalogue.h"
#include "support/files.h"
#include "support/testprogram.h"

#include "app/identity.h"

#include <cstring>

namespace {
constexpr const char *noFile = nullptr;

QByteArrayList logLines; // Latin-1, without the NULs of a file

void keepLine(QtMsgType, const QMessageLogContext &, const QString &line)
{
    logLines.append(line.toLatin1().replace('\0', ""));
}

void useCodec(const char *name)
{
    QTextCodec::setCodecForLocale(QTextCodec::codecForName(name));
}

/// The stored text, if the length and the terminator agree with it.
QByteArray textOf(const InfoText &field)
{
    if (field.length >= sizeof field.text || std::strlen(field.text) != field.length)
        return "(length and text differ)";
    return field.text;
}
} // namespace

class TestIdentity : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void init()
    {
        m_root.reset(new QTemporaryDir);
        QVERIFY(QDir(m_root->path()).mkdir(QStringLiteral("etc")));
        qInstallMessageHandler(keepLine);
        useCodec("UTF-8");
    }

    void cleanup()
    {
        qInstallMessageHandler(nullptr);
        QTextCodec::setCodecForLocale(nullptr);
    }

    void modelNumber()
    {
        for (const uint model : catalogue::models())
            expectModelNumber(QByteArray::number(model) + '\n', static_cast<int>(model));
        for (const char *text : {"6214", "  6214 \n", "\t6214\t\r\n", "06214\n", "+6214\n", "6214\nsecond line\n"})
            expectModelNumber(text, 6214);
        for (const char *line : {"6214x\n", "x6214\n", "62 14\n", "\t 6x \r\n", "0x1846\n", "6214.0\n", "99999999999\n",
                                 "+-6214\n", "+ 6214\n", "+\n"})
            expectModelNumber(line, 0, "Invalid numeric modelNumber: " + QByteArray(line));
        expectModelNumber({"6214\0\n", 6}, 0, "Invalid numeric modelNumber: 6214\n");
        expectModelNumber("\xef\xbb\xbf\x36\x32\x31\x34\n", 0, "Invalid numeric modelNumber: 6214\n");
        expectModelNumber("\n6214\n", 0, "Invalid numeric modelNumber: \n");
        for (const char *digits : {"9999", "0", "-6214", "71750"}) // the last one is 6214 in its low 16 bits
            expectModelNumber(digits + QByteArray("\n"), 0, "Unknown modelNumber: " + QByteArray(digits));
        for (const char *noLine : {noFile, ""})
            expectModelNumber(noLine, 0, "/etc/xr-modelnumber EMPTY !  ");
    }

    void modelNumberBehindTheBound()
    {
        const QByteArray upToTheBound = QByteArray("6214").leftJustified(4095);
        const auto expect = [this](bool accepted, const QByteArray &content) {
            write("/etc/xr-modelnumber", content);
            QCOMPARE(identity().readModelNumber(), accepted);
            QCOMPARE(logLines.size(), 1);
            QVERIFY(logLines[0].startsWith(accepted ? "readModelNumber modelNumber: 6214"
                                                    : "readModelNumber Invalid numeric modelNumber: "));
            QVERIFY(logLines[0].size() < 5000);
        };
        expect(true, upToTheBound);
        expect(true, upToTheBound.left(4094) + "\nx");
        expect(false, upToTheBound + "x\n");
        expect(false, upToTheBound + "  \n");
        expect(false, QByteArray(4094, '0') + "6214\n"); // digits before the bound and behind it
        expect(false, QByteArray(1024 * 1024, '6'));
    }

    void ampType()
    {
        expectAmpType(6420, "VQ9C\n", 3, "VQ9C");
        expectAmpType(6425, "VQ9D\n", 4, "VQ9D");
        expectAmpType(6720, "VQ9A\n", 5, "VQ9A");
        expectAmpType(6420, "VQ9B\n", 6, "VQ9B");
        for (const char *lineEnd : {"", "\r\n"})
            expectAmpType(6420, QByteArray("VQ9A") + lineEnd, 5, "VQ9A");
        for (const char *other : {"VQ9B \n", "vq9b\n", "VQ9BA\n", "VQ8\n", "", "\nVQ9C\n", noFile, "200\n"})
            expectAmpType(6420, other, 1, "Unknown");
        expectAmpType(6764, "200\n", 7, "VQ9C-P2");
        expectAmpType(6764, "400\n", 8, "VQ9D-P2");
        for (const char *other : {"300\n", "200 \n", "", noFile})
            expectAmpType(6764, other, 1, "VQ9-P2");
    }

    void firstLine()
    {
        // clang-format off
        const struct { const char *name; QByteArray content; QByteArray line; } rows[] = {
            {"no file, and nothing is logged", {},             {}},
            {"one line",                 "text\n",             "text"},
            {"no line end",              "text",               "text"},
            {"carriage return",          "text\r\n",           "text"},
            {"two lines",                "first\nsecond\n",    "first"},
            {"blanks stay",              " a b \n",            " a b "},
            {"empty line",               "\nsecond\n",         ""},
            {"an endless line is bounded", QByteArray(1024 * 1024, '6'), QByteArray(4096, '6')},
            {"UTF-8 becomes Latin-1",    "Stra\xc3\x9f" "e\n", "Stra\xdf" "e"},
            {"outside Latin-1",          "5 \xe2\x82\xac\n",   "5 ?"},
            {"not UTF-8",                "Stra\xdf" "e\n",     "Stra?e"},
            {"ends within a character",  "Stra\xc3\n",         "Stra?"},
            {"UTF-8 byte order mark",    "\xef\xbb\xbf" "ab\n", "ab"},
            {"UTF-16, little endian",    {"\xff\xfe" "\xfc\0b\0\n\0", 8}, "\xfc" "b"},
        };
        // clang-format on
        for (const auto &row : rows) {
            const AtRow at(row.name);
            write("/etc/xr-amptype", row.content);
            QCOMPARE(identity().readFile("/etc/xr-amptype"), row.line);
            QCOMPARE(logLines, QByteArrayList());
        }
        write("/etc/xr-amptype", "");
        QCOMPARE(identity().readFile("/etc/xr-amptype"), QByteArray());
        QCOMPARE(logLines, QByteArrayList{"readFile /etc/xr-amptype  EMPTY!"});
    }

    void firstLineWhereTheLocaleIsLatin1()
    {
        useCodec("ISO 8859-1");
        for (const char *content : {"Stra\xdf\x65\n", "\xef\xbb\xbfStra\xc3\x9f\x65\n"}) { // the mark names its codec
            write("/etc/xr-amptype", content);
            QCOMPARE(identity().readFile("/etc/xr-amptype"), "Stra\xdf\x65");
        }
    }

    void versionFiles()
    {
        // clang-format off
        static constexpr struct {
            void (Identity::*reader)(); InfoText InfoData::*field;
            const char *path; const char *function; const char *rawTag; const char *tag;
        } rows[] = {
            {&Identity::readPackageVersion, &InfoData::packageVersion,
             "/etc/xr-pkgver", "readPackageVersion", " pvStr: 1.2 \xe4", " packageVersion: 1.2 \xe4 len: 5"},
            {&Identity::readModelType, &InfoData::modelType,
             "/etc/xr-model", "readModelType", nullptr, " modelType: 1.2 \xe4 len: 5"},
            {&Identity::readKernelVersion, &InfoData::kernelVersion,
             "/etc/xr-kernelver", "readKernelVersion", " kvStr: 1.2 \xe4", " kernelVersion: 1.2 \xe4 len: 5"},
            {&Identity::readDeviceTreeVersion, &InfoData::deviceTreeVersion,
             "/etc/xr-oftreever", "readDeviceTreeVersion", nullptr, " deviceTreeVersion: 1.2 \xe4 len: 5"},
        };
        // clang-format on
        for (const auto &row : rows) {
            const AtRow at(row.path);
            const QByteArray function = row.function;
            const auto read = [&] {
                Identity device = identity();
                (device.*row.reader)();
                return textOf(device.infoData().*row.field);
            };
            for (const char *content : {noFile, ""}) {
                write(row.path, content);
                QCOMPARE(read(), "Unknown");
                QCOMPARE(logLines, QByteArrayList{function + ' ' + row.path + " EMPTY !"});
            }
            write(row.path, "1.2 \xc3\xa4\nsecond line\n");
            QCOMPARE(read(), "1.2 \xe4");
            QByteArrayList lines{function + row.tag};
            if (row.rawTag != nullptr)
                lines.prepend(function + row.rawTag);
            QCOMPARE(logLines, lines);
            write(row.path, QByteArray("\xc3\xa4").repeated(128) + '\n'); // two bytes each
            QCOMPARE(read(), QByteArray(127, '\xe4'));
            write(row.path, QByteArray("1.2\0.3\n", 7));
            QCOMPARE(read(), "1.2");
            write(row.path, "\n1.2\n");
            QCOMPARE(read(), "");
        }
    }

    void modelTypeOfVQ9BIsReplaced()
    {
        for (const char *model : {"Some Amplifier\n", "\n", noFile})
            for (const char *ampType : {"VQ9B\n", "VQ9B \n", "VQ9C\n"}) {
                const QByteArray kept = model == noFile ? "Unknown" : QByteArray(model).trimmed();
                write("/etc/xr-amptype", ampType);
                write("/etc/xr-model", model);
                Identity device = identity();
                device.readAmpType(6420);
                device.readModelType();
                QCOMPARE(textOf(device.infoData().modelType),
                         ampType == QByteArray("VQ9B\n") ? QByteArray("Orvane Mervio Amplifier VQ9") : kept);
            }
    }

    void nothingIsStoredBeforeReading()
    {
        const Identity device = identity();
        const InfoData &info = device.infoData();
        QCOMPARE(int{device.modelNumber()}, 0);
        QCOMPARE(device.ampTypeCode(), 1);
        QCOMPARE(info.modelNumber.length + info.disablement.length, 0U);
        QCOMPARE(textOf(info.packageVersion) + textOf(info.modelType) + textOf(info.amplifierType), QByteArray());
    }

private:
    /// Null: removes the file.
    void write(const char *path, const QByteArray &content) const
    {
        const QString file = m_root->path() + QLatin1String(path);
        QFile::remove(file);
        if (!content.isNull())
            writeFile(file, content);
    }

    Identity identity() const
    {
        logLines.clear();
        return Identity(m_root->path());
    }

    /// `refusal`: the log line of a number that is not accepted.
    void expectModelNumber(const QByteArray &content, int number, const QByteArray &refusal = {}) const
    {
        const AtRow at(content);
        write("/etc/xr-modelnumber", content);
        Identity device = identity();
        QCOMPARE(device.readModelNumber(), number != 0);
        QCOMPARE(int{device.modelNumber()}, number);
        QCOMPARE(device.infoData().modelNumber.value, number);
        QCOMPARE(device.infoData().modelNumber.length, number != 0 ? 4U : 0U);
        const QByteArray line =
            number != 0 ? "modelNumber: " + QByteArray::number(number) + " len: 4" : refusal + " Cannot continue";
        QCOMPARE(logLines, QByteArrayList{"readModelNumber " + line});
    }

    void expectAmpType(quint16 model, const QByteArray &content, int code, const QByteArray &label) const
    {
        const AtRow at(content);
        const bool isPowerType = model == 6764;
        write(isPowerType ? "/etc/xr-powertype" : "/etc/xr-amptype", content);
        write(isPowerType ? "/etc/xr-amptype" : "/etc/xr-powertype", "of the other models\n");
        Identity device = identity();
        device.readAmpType(model);
        QCOMPARE(device.ampTypeCode(), code);
        QCOMPARE(textOf(device.infoData().amplifierType), label);
        QCOMPARE(logLines.last(),
                 "readAmpType amplfierTypeString: " + label + " len: " + QByteArray::number(label.size()));
    }

    QScopedPointer<QTemporaryDir> m_root;
};

const TestEntry entry("tst_identity", runTest<TestIdentity>);
#include "tst_identity.moc"
