// Lines, line inputs, microphones and Ethernet ports.
#include "support/talbench.h"
#include "support/testprogram.h"

#include "device/models.h"

#include <QVector>

namespace {

using Numbers = QVector<uint>;

constexpr uint sentinel = 77; // no text has this code

const Numbers lineModels{6420, 6425, 6720, 6764};

QString lineStatePath(const char *key)
{
    return QStringLiteral("/state/lines/line[kid='%1']/characteristics/line_state").arg(qs(key));
}

QString enablePath(uint channel)
{
    return QStringLiteral("/state/config/lines/line[kid='ch%1']/enable").arg(channel + 1);
}

QString monitoringPath(const char *key, const char *leaf)
{
    return QStringLiteral("/state/config/lines/line[kid='%1']/%2").arg(qs(key), qs(leaf));
}

QString pilotTonePath(const char *key)
{
    return QStringLiteral("/state/lines/line[kid='%1']/pilot_tone_state").arg(qs(key));
}

QString micPath(const char *key)
{
    return QStringLiteral("/state/lines/%1").arg(qs(key));
}

QString ethPath(const char *port)
{
    return QStringLiteral("/state/config/os_ip/eth_switch/port[port_id='%1']/monitored").arg(qs(port));
}

void lineState(TalBench &bench, const char *key, const char *text, const char *op = "replace")
{
    bench.leaf("kvsnmp_line_channel_state", op, lineStatePath(key), qs(text));
}

void ampEnable(TalBench &bench, uint channel, const char *text, const char *op = "replace")
{
    bench.leaf("kvsnmp_amp_enable", op, enablePath(channel), qs(text));
}

void pilotTone(TalBench &bench, const char *key, const char *text, const char *op = "replace")
{
    bench.leaf("kvsnmp_lineIn_status", op, pilotTonePath(key), qs(text));
}

void microphone(TalBench &bench, const char *key, const char *text, const char *op = "replace")
{
    bench.leaf("kvsnmp_lineIn_status", op, micPath(key), qs(text));
}

void lineInMonitoring(TalBench &bench, const char *key, const char *leaf, const char *text, const char *op = "replace")
{
    bench.leaf("kvsnmp_lineIn_monitoring", op, monitoringPath(key, leaf), qs(text));
}

void eth(TalBench &bench, const char *port, const char *text, const char *op = "replace")
{
    bench.leaf("kvsnmp_eth_monitoring", op, ethPath(port), qs(text));
}

Numbers lineStates(TalBench &bench)
{
    const auto &rows = bench.records().ampChannel.rows;
    return {rows[0].lineState, rows[1].lineState};
}

Numbers ampEnables(TalBench &bench)
{
    const auto &rows = bench.records().ampChannel.rows;
    return {rows[0].ampEnable, rows[1].ampEnable};
}

Numbers channelStatuses(TalBench &bench)
{
    const auto &rows = bench.records().ampChannel.rows;
    return {rows[0].status, rows[1].status};
}

Numbers lineInStatuses(TalBench &bench)
{
    const auto &rows = bench.records().lineIn.rows;
    return {rows[0].lineInStatus, rows[1].lineInStatus};
}

Numbers micStatuses(TalBench &bench)
{
    const auto &rows = bench.records().lineIn.rows;
    return {rows[0].micStatus, rows[1].micStatus};
}

Numbers monitoring(TalBench &bench)
{
    const auto &rows = bench.records().lineIn.rows;
    return {rows[0].lineInMonitoring, rows[1].lineInMonitoring};
}

Numbers ethMonitored(TalBench &bench)
{
    const auto &monitored = bench.records().ethMonitoring.monitored;
    return {monitored[0], monitored[1]};
}

/// All three columns of both line-in rows.
Numbers lineIn(TalBench &bench)
{
    return lineInStatuses(bench) + micStatuses(bench) + monitoring(bench);
}

/// The one line that a parser writes about an operation that it does not know; its own name is the parser's business.
void compareUnexpectedOperation(TalBench &bench, const QString &path, const QString &kid)
{
    const QStringList lines = bench.log.takeLines();
    QCOMPARE(lines.size(), 1);
    const QString tail =
        QStringLiteral(" op: patch rPath: %1 sPath: %2 kid: %3").arg(path, withoutPredicates(path), kid);
    QVERIFY2(lines[0].endsWith(tail), qPrintable(lines[0] + qs(" does not end with") + tail));
    const QString name = lines[0].left(lines[0].size() - tail.size());
    QVERIFY2(QRegularExpression(qs("^[a-z]\\w+$")).match(name).hasMatch(), qPrintable(name));
}

} // namespace

class TestLines : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void lineStateTexts_data();
    void lineStateTexts();
    void lineStateDeleteLeavesTheStateAndCopiesThePilotTone();
    void lineStateUnexpectedOperationCopiesNothing();
    void lineStateKeys();
    void lineStateCopiesTheLastPilotToneOfEitherInput();
    void lineStateCopiesZeroWhereNoPilotToneIsEverParsed_data();
    void lineStateCopiesZeroWhereNoPilotToneIsEverParsed();
    void lineStateIsIgnoredOnOtherModels_data();
    void lineStateIsIgnoredOnOtherModels();

    void ampEnableTexts_data();
    void ampEnableTexts();
    void ampEnableIsReadOnEveryModel_data();
    void ampEnableIsReadOnEveryModel();
    void ampEnableUnexpectedOperation();

    void pilotToneTexts_data();
    void pilotToneTexts();
    void pilotToneOtherTextTakesThePreviousValueOfEitherInput();
    void pilotToneOtherTextFirstOfAllTakesZero();
    void pilotToneUnexpectedOperation();
    void microphoneTexts_data();
    void microphoneTexts();
    void microphoneOtherTextTakesThePreviousValueOfEitherMicrophone();
    void microphoneOtherTextFirstOfAllTakesZero();
    void microphoneUnexpectedOperation();
    void lineInStatusOfOtherModels_data();
    void lineInStatusOfOtherModels();

    void lineInMonitoringTexts_data();
    void lineInMonitoringTexts();
    void lineInMonitoringKeys_data();
    void lineInMonitoringKeys();
    void lineInMonitoringOtherTextTakesThePreviousValueOfEitherInput();
    void lineInMonitoringOtherTextFirstOfAllTakesZero();
    void lineInMonitoringUnexpectedOperation();

    void ethTexts_data();
    void ethTexts();
    void ethOtherTextTakesThePreviousValueOfEitherPort();
    void ethOtherTextFirstOfAllTakesZero();
    void ethAndLineInMonitoringKeepScratchValuesOfTheirOwn();
    void ethUnexpectedOperation();
    void ethModels_data();
    void ethModels();
};

void TestLines::lineStateTexts_data()
{
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<uint>("code");
    // clang-format off
    const struct { const char *text; uint code; } rows[] = {
        {"unknown", 1}, {"ok", 2}, {"shorted", 3}, {"open", 4}, {"loadchange", 5}, {"ground_fault", 6}, {"refreshing", 7},
        {"shutdown", 8}, {"voltage_low", 9}, {"indecisive", 10}, {"interrupted", 11}, {"failed_timeout", 12},
        {"failed_receive_monitor_values", 13}, {"suspend_monitoring", 14}, {"line_fault", 15},
        {"some other text", 1}, {"OK", 1}, {"ok ", 1}, {"", 1},
    };
    // clang-format on
    for (const auto &row : rows)
        QTest::addRow("'%s'", row.text) << QByteArray(row.text) << row.code;
}

void TestLines::lineStateTexts()
{
    QFETCH(QByteArray, text);
    QFETCH(uint, code);

    for (const uint model : lineModels)
        for (const char *op : {"create", "replace"}) {
            TalBench bench(model);
            lineState(bench, "ch1", text, op);
            QCOMPARE(lineStates(bench), Numbers({code, 0}));
            lineState(bench, "ch1", "interrupted", op);
            lineState(bench, "ch2", text, op);
            QCOMPARE(lineStates(bench), Numbers({11, code}));
            QCOMPARE(channelStatuses(bench), Numbers({1, 1}));
            QCOMPARE(bench.log.lines(), QStringList());
        }
}

void TestLines::lineStateDeleteLeavesTheStateAndCopiesThePilotTone()
{
    TalBench bench(6420);
    lineState(bench, "ch2", "open");
    pilotTone(bench, "ln1", "failed");
    bench.records().lineIn.rows[1].lineInStatus = sentinel;
    lineState(bench, "ch2", "ok", "delete");
    QCOMPARE(lineStates(bench), Numbers({0, 4}));
    QCOMPARE(lineInStatuses(bench), Numbers({3, 3}));
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestLines::lineStateUnexpectedOperationCopiesNothing()
{
    TalBench bench(6420);
    lineState(bench, "ch1", "open");
    pilotTone(bench, "ln2", "failed");
    const Numbers before = lineIn(bench);
    lineState(bench, "ch1", "ok", "patch");
    QCOMPARE(lineStates(bench), Numbers({4, 0}));
    QCOMPARE(lineIn(bench), before);
    QCOMPARE(bench.log.lines(), QStringList{qs("getLineChannelState op: patch"
                                               " rPath: /state/lines/line[kid='ch1']/characteristics/line_state"
                                               " sPath: /state/lines/line/characteristics/line_state kid: ch1")});
}

void TestLines::lineStateKeys()
{
    TalBench bench(6420);
    pilotTone(bench, "ln1", "ok");
    pilotTone(bench, "ln2", "failed");
    for (const char *key : {"ch0", "ch3", "CH1", "ln1", ""})
        lineState(bench, key, "line_fault");
    QCOMPARE(lineStates(bench), Numbers({0, 0}));
    QCOMPARE(lineInStatuses(bench), Numbers({2, 3}));

    bench.notify(
        "kvsnmp_line_channel_state", "replace", qs("/state/lines"),
        qs("<lines><line><kid>ch2</kid><characteristics><line_state>ok</line_state></characteristics></line>"
           "<line><kid>ch1</kid><characteristics><line_state>open</line_state></characteristics></line></lines>"),
        qs("/state/lines/line/characteristics/line_state"));
    QCOMPARE(lineStates(bench), Numbers({4, 2}));
}

void TestLines::lineStateCopiesTheLastPilotToneOfEitherInput()
{
    TalBench bench(6425);
    pilotTone(bench, "ln2", "failed");
    pilotTone(bench, "ln1", "ok"); // the last one
    QCOMPARE(lineInStatuses(bench), Numbers({2, 3}));
    lineState(bench, "ch2", "line_fault");
    QCOMPARE(lineStates(bench), Numbers({0, 15}));
    QCOMPARE(lineInStatuses(bench), Numbers({2, 2}));

    pilotTone(bench, "ln2", "failed");
    lineState(bench, "ch1", "ok");
    QCOMPARE(lineInStatuses(bench), Numbers({3, 3}));
}

void TestLines::lineStateCopiesZeroWhereNoPilotToneIsEverParsed_data()
{
    QTest::addColumn<uint>("model");
    for (const uint model : lineModels)
        QTest::addRow("%u", model) << model;
}

void TestLines::lineStateCopiesZeroWhereNoPilotToneIsEverParsed()
{
    QFETCH(uint, model);

    TalBench bench(model);
    bench.records().lineIn.rows[0].lineInStatus = sentinel;
    bench.records().lineIn.rows[1].lineInStatus = sentinel;
    lineState(bench, "ch1", "ok");
    QCOMPARE(lineInStatuses(bench), Numbers({0, sentinel}));
    lineState(bench, "ch2", "ok");
    QCOMPARE(lineInStatuses(bench), Numbers({0, 0}));
}

void TestLines::lineStateIsIgnoredOnOtherModels_data()
{
    QTest::addColumn<uint>("model");
    for (const uint model : knownModels)
        if (!lineModels.contains(model))
            QTest::addRow("%u", model) << model;
}

void TestLines::lineStateIsIgnoredOnOtherModels()
{
    QFETCH(uint, model);

    TalBench bench(model);
    const Numbers before = lineIn(bench);
    for (const char *op : {"create", "replace", "delete", "patch"}) {
        lineState(bench, "ch1", "line_fault", op);
        lineState(bench, "ch2", "line_fault", op);
    }
    QCOMPARE(lineStates(bench), Numbers({0, 0}));
    QCOMPARE(lineIn(bench), before);
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestLines::ampEnableTexts_data()
{
    QTest::addColumn<QByteArray>("op");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<uint>("code"); // 77: as it was, and the channel's status not derived again
    const auto row = [](const char *name, const char *op, const char *text, uint code) {
        QTest::newRow(name) << QByteArray(op) << QByteArray(text) << code;
    };
    row("create true", "create", "true", 2);
    row("create false", "create", "false", 1);
    row("replace true", "replace", "true", 2);
    row("replace false", "replace", "false", 1);
    row("other text is not handled", "replace", "yes", sentinel);
    row("other case is not handled", "create", "True", sentinel);
    row("empty is not handled", "replace", "", sentinel);
    row("delete is not handled", "delete", "true", sentinel);
}

void TestLines::ampEnableTexts()
{
    QFETCH(QByteArray, op);
    QFETCH(QByteArray, text);
    QFETCH(uint, code);

    for (const uint channel : {0U, 1U}) {
        TalBench bench(6425);
        for (AmpChannelRow &row : bench.records().ampChannel.rows) {
            row.ampEnable = sentinel;
            row.ampMonitorStatus = 2;
            row.status = sentinel;
        }
        ampEnable(bench, channel, text, op);

        Numbers enables(2, sentinel);
        Numbers statuses(2, sentinel);
        enables[static_cast<int>(channel)] = code;
        if (code != sentinel)
            statuses[static_cast<int>(channel)] = code == 2 ? 3 : 2;
        QCOMPARE(ampEnables(bench), enables);
        QCOMPARE(channelStatuses(bench), statuses);
        QCOMPARE(bench.log.lines(), QStringList());
    }
}

void TestLines::ampEnableIsReadOnEveryModel_data()
{
    QTest::addColumn<uint>("model");
    for (const uint model : knownModels)
        QTest::addRow("%u", model) << model;
}

void TestLines::ampEnableIsReadOnEveryModel()
{
    QFETCH(uint, model);

    TalBench bench(model);
    bench.notify("kvsnmp_amp_enable", "create", qs("/state/config/lines"),
                 qs("<lines><line><kid>ch1</kid><enable>true</enable></line>"
                    "<line><kid>ch2</kid><enable>false</enable></line></lines>"),
                 qs("/state/config/lines/line/enable"));
    QCOMPARE(ampEnables(bench), Numbers({2, 1}));
    ampEnable(bench, 2, "true"); // there is no third channel
    QCOMPARE(ampEnables(bench), Numbers({2, 1}));
}

void TestLines::ampEnableUnexpectedOperation()
{
    TalBench bench(6420);
    ampEnable(bench, 1, "true", "patch");
    QCOMPARE(ampEnables(bench), Numbers({0, 0}));
    compareUnexpectedOperation(bench, enablePath(1), qs("ch2"));
}

void TestLines::pilotToneTexts_data()
{
    QTest::addColumn<QByteArray>("op");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<uint>("code");
    const auto row = [](const char *name, const char *op, const char *text, uint code) {
        QTest::newRow(name) << QByteArray(op) << QByteArray(text) << code;
    };
    row("create ok", "create", "ok", 2);
    row("create failed", "create", "failed", 3);
    row("replace ok", "replace", "ok", 2);
    row("replace failed", "replace", "failed", 3);
    row("delete", "delete", "ok", 1);
    row("delete empty", "delete", "", 1);
}

void TestLines::pilotToneTexts()
{
    QFETCH(QByteArray, op);
    QFETCH(QByteArray, text);
    QFETCH(uint, code);

    for (const uint model : {6410U, 6420U, 6425U}) {
        TalBench bench(model);
        const Numbers before = lineIn(bench);
        for (LineInRow &row : bench.records().lineIn.rows)
            row.lineInStatus = sentinel;
        pilotTone(bench, "ln1", text, op);
        QCOMPARE(lineInStatuses(bench), Numbers({code, sentinel}));
        bench.records().lineIn.rows[0].lineInStatus = sentinel;
        pilotTone(bench, "ln2", text, op);
        QCOMPARE(lineInStatuses(bench), Numbers({sentinel, code}));
        QCOMPARE(lineIn(bench).mid(2), before.mid(2));
        QCOMPARE(bench.log.lines(), QStringList());
    }
}

void TestLines::pilotToneOtherTextTakesThePreviousValueOfEitherInput()
{
    TalBench bench(6410);
    pilotTone(bench, "ln1", "failed");
    pilotTone(bench, "ln2", "perhaps");
    QCOMPARE(lineInStatuses(bench), Numbers({3, 3}));
    pilotTone(bench, "ln2", "ok");
    pilotTone(bench, "ln1", "OK");
    QCOMPARE(lineInStatuses(bench), Numbers({2, 2}));
    pilotTone(bench, "ln1", "ok", "delete");
    pilotTone(bench, "ln2", "");
    QCOMPARE(lineInStatuses(bench), Numbers({1, 1}));
}

void TestLines::pilotToneOtherTextFirstOfAllTakesZero()
{
    TalBench bench(6425);
    pilotTone(bench, "ln2", "perhaps");
    QCOMPARE(lineInStatuses(bench), Numbers({1, 0}));
}

void TestLines::pilotToneUnexpectedOperation()
{
    TalBench bench(6420);
    pilotTone(bench, "ln2", "ok", "patch");
    QCOMPARE(lineInStatuses(bench), Numbers({1, 1}));
    compareUnexpectedOperation(bench, pilotTonePath("ln2"), qs("ln2"));
}

void TestLines::microphoneTexts_data()
{
    QTest::addColumn<QByteArray>("op");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<uint>("code");
    const auto row = [](const char *name, const char *op, const char *text, uint code) {
        QTest::newRow(name) << QByteArray(op) << QByteArray(text) << code;
    };
    row("create connected", "create", "connected", 5);
    row("create disconnected", "create", "disconnected", 6);
    row("create shorted", "create", "shorted", 7);
    row("replace connected", "replace", "connected", 5);
    row("replace disconnected", "replace", "disconnected", 6);
    row("replace shorted", "replace", "shorted", 7);
    row("delete", "delete", "connected", 4);
    row("delete empty", "delete", "", 4);
}

void TestLines::microphoneTexts()
{
    QFETCH(QByteArray, op);
    QFETCH(QByteArray, text);
    QFETCH(uint, code);

    for (const uint model : {6214U, 6259U, 6601U, 6602U}) {
        TalBench bench(model);
        const Numbers before = lineIn(bench);
        for (LineInRow &row : bench.records().lineIn.rows)
            row.micStatus = sentinel;
        microphone(bench, "mic_status_extern", text, op);
        QCOMPARE(micStatuses(bench), Numbers({code, sentinel}));
        bench.records().lineIn.rows[0].micStatus = sentinel;
        microphone(bench, "mic_status_intern", text, op);
        QCOMPARE(micStatuses(bench), Numbers({sentinel, code}));
        QCOMPARE(lineInStatuses(bench), before.mid(0, 2));
        QCOMPARE(monitoring(bench), before.mid(4));
        QCOMPARE(bench.log.lines(), QStringList());
    }
}

void TestLines::microphoneOtherTextTakesThePreviousValueOfEitherMicrophone()
{
    TalBench bench(6259);
    microphone(bench, "mic_status_intern", "shorted");
    microphone(bench, "mic_status_extern", "broken");
    QCOMPARE(micStatuses(bench), Numbers({7, 7}));
    microphone(bench, "mic_status_extern", "connected");
    microphone(bench, "mic_status_intern", "");
    QCOMPARE(micStatuses(bench), Numbers({5, 5}));
}

void TestLines::microphoneOtherTextFirstOfAllTakesZero()
{
    TalBench bench(6601);
    microphone(bench, "mic_status_extern", "broken");
    QCOMPARE(micStatuses(bench), Numbers({0, 4}));
}

void TestLines::microphoneUnexpectedOperation()
{
    TalBench bench(6214);
    microphone(bench, "mic_status_intern", "shorted", "patch");
    QCOMPARE(micStatuses(bench), Numbers({4, 4}));
    compareUnexpectedOperation(bench, micPath("mic_status_intern"), qs("mic_status_intern"));
}

void TestLines::lineInStatusOfOtherModels_data()
{
    QTest::addColumn<uint>("model");
    QTest::addColumn<bool>("pilot");
    QTest::addColumn<bool>("mic");
    for (const uint model : knownModels) {
        const bool pilot = model == 6410 || model == 6420 || model == 6425;
        const bool mic = model == 6214 || model == 6259 || model == 6601 || model == 6602;
        QTest::addRow("%u", model) << model << pilot << mic;
    }
}

void TestLines::lineInStatusOfOtherModels()
{
    QFETCH(uint, model);
    QFETCH(bool, pilot);
    QFETCH(bool, mic);

    TalBench bench(model);
    const Numbers before = lineIn(bench);
    for (const char *op : {"create", "replace", "delete", "patch"}) {
        for (const char *key : {"ln0", "ln3", "ch1", "mic", ""})
            pilotTone(bench, key, "ok", op);
        for (const char *key : {"mic_status", "mic_status_External"})
            microphone(bench, key, "shorted", op);
        if (!pilot) {
            pilotTone(bench, "ln1", "ok", op);
            pilotTone(bench, "ln2", "ok", op);
        }
        if (!mic) {
            microphone(bench, "mic_status_extern", "shorted", op);
            microphone(bench, "mic_status_intern", "shorted", op);
        }
    }
    QCOMPARE(lineIn(bench), before);
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestLines::lineInMonitoringTexts_data()
{
    QTest::addColumn<QByteArray>("op");
    QTest::addColumn<QByteArray>("text");
    QTest::addColumn<uint>("code");
    const auto row = [](const char *name, const char *op, const char *text, uint code) {
        QTest::newRow(name) << QByteArray(op) << QByteArray(text) << code;
    };
    row("create true", "create", "true", 3);
    row("create false", "create", "false", 2);
    row("replace true", "replace", "true", 3);
    row("replace false", "replace", "false", 2);
    row("delete true", "delete", "true", 2);
    row("delete empty", "delete", "", 2);
}

void TestLines::lineInMonitoringTexts()
{
    QFETCH(QByteArray, op);
    QFETCH(QByteArray, text);
    QFETCH(uint, code);

    // clang-format off
    const struct { uint model; const char *leaf; const char *keys[2]; } devices[] = {
        {6410, "pilot_tone_sensing_enable", {"ln1", "ln2"}}, {6420, "pilot_tone_sensing_enable", {"ln1", "ln2"}},
        {6425, "pilot_tone_sensing_enable", {"ln1", "ln2"}}, {6214, "mic_monitor_enable", {"mic", "ln_in"}},
        {6259, "mic_monitor_enable", {"mic", "ln_in"}},      {6601, "mic_monitor_enable", {"mic", "ln_in"}},
        {6602, "mic_monitor_enable", {"mic", "ln_in"}},
    };
    // clang-format on
    for (const auto &device : devices) {
        TalBench bench(device.model);
        const Numbers before = lineIn(bench);
        for (LineInRow &row : bench.records().lineIn.rows)
            row.lineInMonitoring = sentinel;
        lineInMonitoring(bench, device.keys[0], device.leaf, text, op);
        QCOMPARE(monitoring(bench), Numbers({code, sentinel}));
        bench.records().lineIn.rows[0].lineInMonitoring = sentinel;
        lineInMonitoring(bench, device.keys[1], device.leaf, text, op);
        QCOMPARE(monitoring(bench), Numbers({sentinel, code}));
        QCOMPARE(lineIn(bench).mid(0, 4), before.mid(0, 4));
        QCOMPARE(bench.log.lines(), QStringList());
    }
}

void TestLines::lineInMonitoringKeys_data()
{
    lineInStatusOfOtherModels_data();
}

void TestLines::lineInMonitoringKeys()
{
    QFETCH(uint, model);
    QFETCH(bool, pilot);
    QFETCH(bool, mic);

    TalBench bench(model);
    const Numbers before = lineIn(bench);
    for (const char *op : {"create", "replace", "delete", "patch"})
        for (const char *key : {"ln1", "ln2", "mic", "ln_in", "ch1"}) {
            const bool pilotKey = qstrncmp(key, "ln", 2) == 0 && qstrlen(key) == 3;
            const bool micKey = qstrcmp(key, "mic") == 0 || qstrcmp(key, "ln_in") == 0;
            if (!(pilot && pilotKey))
                lineInMonitoring(bench, key, "pilot_tone_sensing_enable", "true", op);
            if (!(mic && micKey))
                lineInMonitoring(bench, key, "mic_monitor_enable", "true", op);
        }
    QCOMPARE(lineIn(bench), before);
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestLines::lineInMonitoringOtherTextTakesThePreviousValueOfEitherInput()
{
    TalBench bench(6420);
    lineInMonitoring(bench, "ln2", "pilot_tone_sensing_enable", "true");
    lineInMonitoring(bench, "ln1", "pilot_tone_sensing_enable", "perhaps");
    QCOMPARE(monitoring(bench), Numbers({3, 3}));
    lineInMonitoring(bench, "ln1", "pilot_tone_sensing_enable", "true", "delete");
    lineInMonitoring(bench, "ln2", "pilot_tone_sensing_enable", "TRUE");
    QCOMPARE(monitoring(bench), Numbers({2, 2}));
}

void TestLines::lineInMonitoringOtherTextFirstOfAllTakesZero()
{
    TalBench bench(6602);
    lineInMonitoring(bench, "mic", "mic_monitor_enable", "");
    QCOMPARE(monitoring(bench), Numbers({0, 2}));
}

void TestLines::lineInMonitoringUnexpectedOperation()
{
    TalBench pilot(6425);
    lineInMonitoring(pilot, "ln1", "pilot_tone_sensing_enable", "true", "patch");
    QCOMPARE(monitoring(pilot), Numbers({1, 1}));
    compareUnexpectedOperation(pilot, monitoringPath("ln1", "pilot_tone_sensing_enable"), qs("ln1"));

    TalBench mic(6602);
    lineInMonitoring(mic, "ln_in", "mic_monitor_enable", "true", "patch");
    QCOMPARE(monitoring(mic), Numbers({1, 2}));
    compareUnexpectedOperation(mic, monitoringPath("ln_in", "mic_monitor_enable"), qs("ln_in"));
}

void TestLines::ethTexts_data()
{
    lineInMonitoringTexts_data();
}

void TestLines::ethTexts()
{
    QFETCH(QByteArray, op);
    QFETCH(QByteArray, text);
    QFETCH(uint, code);

    TalBench bench(6913);
    for (std::uint32_t &monitored : bench.records().ethMonitoring.monitored)
        monitored = sentinel;
    eth(bench, "Eth1", text, op);
    QCOMPARE(ethMonitored(bench), Numbers({code, sentinel}));
    bench.records().ethMonitoring.monitored[0] = sentinel;
    eth(bench, "Eth2", text, op);
    QCOMPARE(ethMonitored(bench), Numbers({sentinel, code}));
    for (const char *port : {"Eth0", "Eth3", "eth1", ""})
        eth(bench, port, text, op);
    QCOMPARE(ethMonitored(bench), Numbers({sentinel, code}));
    QCOMPARE(bench.log.lines(), QStringList());
}

void TestLines::ethOtherTextTakesThePreviousValueOfEitherPort()
{
    TalBench bench(6914);
    eth(bench, "Eth1", "true");
    eth(bench, "Eth2", "perhaps");
    QCOMPARE(ethMonitored(bench), Numbers({3, 3}));
    eth(bench, "Eth2", "false");
    eth(bench, "Eth1", "");
    QCOMPARE(ethMonitored(bench), Numbers({2, 2}));
}

void TestLines::ethOtherTextFirstOfAllTakesZero()
{
    TalBench bench(6214);
    eth(bench, "Eth2", "perhaps");
    QCOMPARE(ethMonitored(bench), Numbers({1, 0}));
}

void TestLines::ethAndLineInMonitoringKeepScratchValuesOfTheirOwn()
{
    TalBench bench(6420);
    lineInMonitoring(bench, "ln1", "pilot_tone_sensing_enable", "true");
    eth(bench, "Eth1", "perhaps");
    QCOMPARE(ethMonitored(bench), Numbers({0, 1}));
    eth(bench, "Eth1", "false");
    lineInMonitoring(bench, "ln2", "pilot_tone_sensing_enable", "perhaps");
    QCOMPARE(monitoring(bench), Numbers({3, 3}));
}

void TestLines::ethUnexpectedOperation()
{
    TalBench bench(6720);
    eth(bench, "Eth2", "true", "patch");
    QCOMPARE(ethMonitored(bench), Numbers({1, 1}));
    compareUnexpectedOperation(bench, ethPath("Eth2"), qs("Eth2"));
}

void TestLines::ethModels_data()
{
    QTest::addColumn<uint>("model");
    QTest::addColumn<bool>("monitors");
    for (const uint model : knownModels)
        QTest::addRow("%u", model) << model << (model != 6211 && model != 6891);
}

void TestLines::ethModels()
{
    QFETCH(uint, model);
    QFETCH(bool, monitors);

    TalBench bench(model);
    bench.notify("kvsnmp_eth_monitoring", "create", qs("/state/config/os_ip/eth_switch"),
                 qs("<eth_switch><port><port_id>Eth2</port_id><monitored>false</monitored></port>"
                    "<port><port_id>Eth1</port_id><monitored>true</monitored></port></eth_switch>"),
                 qs("/state/config/os_ip/eth_switch/port/monitored"));
    QCOMPARE(ethMonitored(bench), monitors ? Numbers({3, 2}) : Numbers({0, 0}));
    if (!monitors) {
        eth(bench, "Eth1", "true", "patch");
        QCOMPARE(bench.log.lines(), QStringList());
    }
}

const TestEntry entry("tst_lines", runTest<TestLines>);
#include "tst_lines.moc"
