// The entry: options, pid file, daemon mode, signals, event loop.
#include "app/kvsnmp.h"
#include "app/options.h"
#include "app/pidfilehandler.h"
#include "app/servicenotify.h"
#include "app/standardstreams.h"

#include <xrcommon/TalInterface.h>

#include <QCoreApplication>
#include <QDebug>
#include <QTimer>

#include <cstdio>
#include <cstdlib>
#include <sys/prctl.h>
#include <unistd.h>

#ifdef KVSNMP_WITH_MIMALLOC
#    include <mimalloc.h>
#endif

namespace {

/// Freed pages go back to the system at once, not after a while of further use: the daemon is mostly idle.
void keepNoFreePages()
{
#ifdef KVSNMP_WITH_MIMALLOC
    constexpr auto delay = static_cast<mi_option_t>(15); // the number of an option whose name differs between versions
    mi_option_set(delay, 0);
#endif
}

/// Otherwise each wait of the event loop sets the processor's timer for the next poll, which in a virtual machine takes
/// longer than the wait itself. Mostly the kernel's tick now comes first.
void allowLateTimers()
{
    constexpr unsigned long nanoseconds = 4'000'000;
    prctl(PR_SET_TIMERSLACK, nanoseconds);
}

/// Goes into the background and writes the pid file there. Ends the process if another instance runs.
void becomeDaemon(const PidFileHandler &pidFile)
{
    if (pidFile.checkPid() != 0) {
        std::perror("kvsnmp: Already running.\n");
        std::exit(EXIT_FAILURE);
    }
    std::puts("kvsnmp: forking as daemon..");
    [[maybe_unused]] const int ignored = daemon(0, 0);
    if (pidFile.writePid() == 0) {
        std::perror("kvsnmp: Can't write pid.\n");
        std::exit(EXIT_FAILURE);
    }
}

} // namespace

int main(int argc, char *argv[])
{
    keepNoFreePages();
    allowLateTimers();
    prepareStandardStreams();
    std::puts("kvsnmp main()");
    const Options options = parseOptions(argc, argv);

    const PidFileHandler pidFile(pidFilePath);
    if (options.daemon)
        becomeDaemon(pidFile);
    else
        std::puts("kvsnmp: forking as application..");

    qputenv("QT_NO_GLIB", "1"); // an event takes less time without GLib
    const QCoreApplication app(argc, argv);
    KvSnmp::nameApplication();
    auto kvSnmp = std::make_unique<KvSnmp>(QCoreApplication::instance());
    KvSnmp::installSignalHandlers();
    if (options.talDebug)
        TalInterface::debugPrintEnable();
    QTimer::singleShot(0, [] { notifyService("READY=1"); }); // once the event loop runs
    holdStandardOutput();                                    // KvSnmp flushes it
    const int status = QCoreApplication::exec();
    notifyService("STOPPING=1");

    qDebug().noquote() << "QApplication*:"
                       << "main "
                       << QStringLiteral("Qt Event loop returned with status: %1, application exit..").arg(status);
    qDebug().noquote() << "QApplication"
                       << "main "
                       << "Removing PidFile";
    pidFile.removePid();
    kvSnmp.reset();
    return status;
}
