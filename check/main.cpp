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
        std::fputs("kvsnmp-check: has to be run by root: snmpd.conf and the processes are not for everybody to read\n",
                   stderr);
        return exitUsage;
    }

    const QCoreApplication app(argc, argv);
    qInstallMessageHandler(dropMessage);

    Subject subject(options.timeoutMs);
    Report report;
    for (const Check &check : checkList()) {
        report.add(check, subject);
        if (!options.json)
            print(textOf(report.findings().back()).toLocal8Bit());
    }
    print(options.json ? jsonOf(report, subject.model) : summaryOf(report).toLocal8Bit());

    const int status = report.hasFailed() ? exitFailed : exitOk;
    std::_Exit(status); // exit() would wait for a pending name lookup
}
