// The current knowledge about the device under check.
#include "check/subject.h"

#include "check/command.h"

namespace {

/// Variables that the libraries in this process also read.
constexpr const char *sharedVariables[] = {"TAL_SOCKET", "XR_GPIO_ROOT"};

} // namespace

Subject::Subject(int timeout)
    : timeoutMs(timeout), environment(QProcessEnvironment::systemEnvironment()), kvsnmp(processesNamed("kvsnmp"))
{
    const QMap<QByteArray, QByteArray> daemons =
        kvsnmp.empty() ? QMap<QByteArray, QByteArray>() : environmentOf(kvsnmp.front().pid);
    if (daemons.isEmpty())
        return;
    environment = QProcessEnvironment();
    for (auto entry = daemons.begin(); entry != daemons.end(); ++entry)
        environment.insert(QString::fromLocal8Bit(entry.key()), QString::fromLocal8Bit(entry.value()));
    for (const char *name : sharedVariables) {
        if (daemons.contains(name))
            qputenv(name, daemons.value(name));
        else
            qunsetenv(name);
    }
}

QString Subject::variable(const char *name, const QString &fallback) const
{
    const QString value = environment.value(QLatin1String(name));
    return value.isEmpty() ? fallback : value;
}

QString Subject::program(const char *name) const
{
    return programIn(variable("PATH", QStringLiteral("/bin:/usr/bin")), QLatin1String(name));
}
