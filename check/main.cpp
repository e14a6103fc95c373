// kvsnmp-check: finds out why a device does not answer, and what to do. It changes nothing.
#include "check/checks.h"
#include "check/options.h"
#include "check/report.h"
#include "check/subject.h"

#include <QCoreApplication>

#include <cstdio>
#include <cstdlib>
#include <unistd.h>

namespace {

/// Discards the debug output of the daemon's parsers: only the findings matter here.
void dropMessage(QtMsgType, const QMessageLogContext &, const QString &) {}

void print(const QByteArray &text)
{
    std::fwrite(text.constData(), 1, static_cast<std::size_t>(text.size()), stdout);
    std::fflush(stdout); // shows the progress
}

} // namespace

int main(int argc, char *argv[])
{
    const CheckOptions options = parseCheckOptions(argc, argv);
    if (options.exitStatus)
        return *options.exitStatus;
    if (geteuid() != 0) {
        constexpr char reason[] = "has to be run by root: snmpd.conf and the processes are not for everybody to read";
        if (options.nagios)
            std::printf("KVSNMP UNKNOWN - %s\n", reason);
        else
            std::fprintf(stderr, "kvsnmp-check: %s\n", reason);
        return options.nagios ? nagiosUnknown : exitUsage;
    }

    const QCoreApplication app(argc, argv);
    qInstallMessageHandler(dropMessage);

    const bool isTerminal = isatty(STDOUT_FILENO) == 1;
    const Colours colours =
        wantsColours(isTerminal, qgetenv("NO_COLOR"), qgetenv("TERM")) ? Colours::With : Colours::Without;
    Subject subject(options.timeoutMs);
    Report report;
    for (const Check &check : checkList()) {
        report.add(check, subject);
        if (!options.json && !options.nagios)
            print(textOf(report.findings().back(), colours).toLocal8Bit());
    }
    int status = report.hasFailed() ? exitFailed : exitOk;
    if (options.json) {
        print(jsonOf(report, subject.model));
    } else if (options.nagios) {
        print(nagiosLineOf(report).toLocal8Bit());
        const int calm = report.count(Status::Warning) > 0 ? nagiosWarning : nagiosOk;
        status = report.hasFailed() ? nagiosCritical : calm;
    } else {
        print(summaryOf(report, colours).toLocal8Bit());
    }
    std::_Exit(status); // exit() would wait for a pending name lookup
}
