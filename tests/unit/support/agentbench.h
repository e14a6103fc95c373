// The agent on the bench: started in this process or in a separate one, asked over the library's internal transport. No
// master; a temporary folder stands for every path that the library reads or writes, its master's socket included.
#pragma once

#include "agent/kvagent.h"
#include "agentlib/netsnmp.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <functional>
#include <initializer_list>

class StandardOutput {
public:
    StandardOutput();
    ~StandardOutput();
    Q_DISABLE_COPY(StandardOutput)

    QByteArray takeText(); ///< what was written since the start or the last call

private:
    int m_file;
    int m_outer;
};

QStringList lines(std::initializer_list<const char *> texts);

QStringList printed(const std::function<void()> &body);

/// Runs `body` in a separate process and returns the lines that it wrote to standard output. A process that does not
/// end well adds a line that says so.
QStringList printedInOwnProcess(const std::function<void()> &body);

/// Calls `questions` in a separate process and returns the answers, without what is printed meanwhile.
QStringList answeredInOwnProcess(const std::function<QStringList()> &questions);

void startAgent(std::uint32_t model, const char *modelText = "", std::uint8_t ampType = 1);

/// Names of objects below the enterprise arc, also as one text with blanks between them.
class Objects : public QStringList {
public:
    Objects(const char *names) : Objects(QString::fromLatin1(names)) {}
    Objects(const QString &names) : QStringList(names.split(QLatin1Char(' '))) {}
    Objects(const QStringList &names) : QStringList(names) {}
};

/// "INTEGER 8", "noSuchObject".
QString typeAndValue(const netsnmp_variable_list &variable);

/// One answer as a line: OID below the enterprise arc, type, value ("3.4.1.0 INTEGER 8", "3.4.2.1.4.1 noSuchObject").
/// A failed PDU is one line "error NUMBER at INDEX".
QStringList snmpGet(const Objects &objects);
QStringList snmpGetNext(const Objects &objects);
/// The same as a master asks when it allows an object itself as the answer.
QStringList snmpGetNextFrom(const Objects &objects);
QStringList snmpSet(const Objects &objects);
/// Every answer below `object`, with GETNEXT or, when `repetitions` is above 0, with GETBULK.
QStringList snmpWalk(const char *object, int repetitions = 0);

/// A request to the agent in this process; later passes of the library answer it.
class PendingRequest {
public:
    PendingRequest(int command, const QStringList &objects, int repetitions = 0, bool startCounts = false);
    Q_DISABLE_COPY(PendingRequest)

    bool isAnswered() const { return m_answered; }
    QStringList answers() const { return m_answers; } ///< as those of snmpGet()

private:
    static int take(int operation, netsnmp_session *, int, netsnmp_pdu *pdu, void *self);

    bool m_answered = false;
    QStringList m_answers;
};

QStringList objectsOf(const QStringList &answers);

/// The cache in front of a table, null when there is none.
netsnmp_cache *cacheOf(const char *tableObject);
/// Lets the next request for the table load again, as 60 s do.
void expireCache(const char *tableObject);

void fill(InfoText &field, const char *value);

/// The lines of the agent library's log while one lives.
class AgentLog {
public:
    AgentLog();
    ~AgentLog();
    Q_DISABLE_COPY(AgentLog)

    QStringList lines; ///< "PRIORITY text", without a line end
};
