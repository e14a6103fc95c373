// The agent on the bench.
#include "support/agentbench.h"
#include "support/childprocess.h"

#include "device/boundedtext.h"

#include <QFile>
#include <QTemporaryDir>

#include <vector>

extern "C" {
extern int callback_master_num; // the agent's end of the internal transport; in no public header
// NOLINTNEXTLINE(bugprone-reserved-identifier): the compiler's own name
__attribute__((weak)) void __gcov_dump(); // there in a coverage build only
}

namespace {
/// A private folder in place of every path that the agent library reads or writes, before the library is first used.
class AgentSurroundings {
public:
    AgentSurroundings()
    {
        QFile configuration(m_folder.filePath(QStringLiteral("kvagent.conf")));
        if (configuration.open(QIODevice::WriteOnly))
            configuration.write("agentXSocket unix:" + m_folder.filePath(QStringLiteral("master")).toLocal8Bit() +
                                "\n");
        qputenv("MIBS", "");
        qputenv("SNMPCONFPATH", m_folder.path().toLocal8Bit());
        qputenv("SNMP_PERSISTENT_DIR", m_folder.path().toLocal8Bit());
    }

private:
    QTemporaryDir m_folder;
};
const AgentSurroundings surroundings;

constexpr long agentXVersion1 = 0xC1; // in no public header
constexpr oid enterprise[] = {1, 3, 6, 1, 4, 1, 52717};

std::vector<oid> fullOid(const QString &object)
{
    std::vector<oid> full(std::begin(enterprise), std::end(enterprise));
    const QStringList arcs = object.split(QLatin1Char('.'), Qt::SkipEmptyParts);
    for (const QString &arc : arcs)
        full.push_back(arc.toULong());
    return full;
}

QString shortOid(const oid *name, std::size_t length)
{
    const bool below = length > std::size(enterprise) && std::equal(std::begin(enterprise), std::end(enterprise), name);
    QStringList arcs;
    for (std::size_t i = below ? std::size(enterprise) : 0; i < length; ++i)
        arcs.append(QString::number(name[i]));
    return (below ? QString() : QStringLiteral(".")) + arcs.join(QLatin1Char('.'));
}

QStringList linesOf(const QByteArray &text)
{
    QStringList lines = QString::fromLatin1(text).split(QLatin1Char('\n'));
    if (lines.last().isEmpty()) // behind the last line end
        lines.removeLast();
    return lines;
}

constexpr oid farEnd[] = {2, 1};

QStringList ask(int command, const QStringList &objects, int repetitions = 0, bool startCounts = false)
{
    const PendingRequest request(command, objects, repetitions, startCounts);
    for (int pass = 0; pass < 10 && !request.isAnswered(); ++pass)
        kaCheckAndProcess();
    return request.isAnswered() ? request.answers() : QStringList{QStringLiteral("no answer")};
}
} // namespace

PendingRequest::PendingRequest(int command, const QStringList &objects, int repetitions, bool startCounts)
{
    static netsnmp_session *const manager = netsnmp_callback_open(callback_master_num, take, nullptr, nullptr);
    netsnmp_pdu *pdu = snmp_pdu_create(command);
    pdu->version = agentXVersion1; // as what comes from a master
    pdu->flags |= UCD_MSG_FLAG_ALWAYS_IN_VIEW;
    if (command == SNMP_MSG_GETBULK) {
        pdu->errstat = 0;
        pdu->errindex = repetitions;
    }
    const long one = 1;
    for (const QString &object : objects) {
        const std::vector<oid> name = fullOid(object);
        if (command == SNMP_MSG_SET)
            snmp_pdu_add_variable(pdu, name.data(), name.size(), ASN_INTEGER, &one, sizeof(one));
        else if (startCounts)
            snmp_pdu_add_variable(pdu, name.data(), name.size(), ASN_PRIV_INCL_RANGE, farEnd, sizeof(farEnd));
        else
            snmp_add_null_var(pdu, name.data(), name.size());
    }
    if (snmp_async_send(manager, pdu, take, this) == 0)
        qFatal("not sent: %s", snmp_api_errstring(snmp_errno));
}

int PendingRequest::take(int operation, netsnmp_session *, int, netsnmp_pdu *pdu, void *self)
{
    if (operation != NETSNMP_CALLBACK_OP_RECEIVED_MESSAGE) // the session closes after its last use
        return 1;
    auto &request = *static_cast<PendingRequest *>(self);
    request.m_answered = true;
    if (pdu->errstat != SNMP_ERR_NOERROR)
        request.m_answers.append(QStringLiteral("error %1 at %2").arg(pdu->errstat).arg(pdu->errindex));
    else
        for (const netsnmp_variable_list *variable = pdu->variables; variable != nullptr;
             variable = variable->next_variable)
            request.m_answers.append(shortOid(variable->name, variable->name_length) + QLatin1Char(' ') +
                                     typeAndValue(*variable));
    return 1;
}

StandardOutput::StandardOutput() : m_file(memfd_create("stdout", 0))
{
    std::fflush(stdout);
    m_outer = dup(STDOUT_FILENO);
    dup2(m_file, STDOUT_FILENO);
}

StandardOutput::~StandardOutput()
{
    std::fflush(stdout);
    dup2(m_outer, STDOUT_FILENO);
    close(m_outer);
    close(m_file);
}

QByteArray StandardOutput::takeText()
{
    std::fflush(stdout);
    const QByteArray text = contentOf(m_file);
    if (ftruncate(m_file, 0) == 0)
        lseek(m_file, 0, SEEK_SET);
    return text;
}

QStringList lines(std::initializer_list<const char *> texts)
{
    QStringList list;
    for (const char *text : texts)
        list.append(QString::fromLatin1(text));
    return list;
}

QStringList printed(const std::function<void()> &body)
{
    StandardOutput output;
    body();
    return linesOf(output.takeText());
}

QStringList printedInOwnProcess(const std::function<void()> &body)
{
    const ChildResult child = inChild([&body] {
        body();
        std::fflush(stdout);
        if (__gcov_dump != nullptr)
            __gcov_dump();
        return 0;
    });
    std::fputs(child.err.constData(), stderr);
    QStringList lines = linesOf(child.out);
    if (child.waitStatus != 0)
        lines.append(QStringLiteral("the process ended with status %1").arg(child.waitStatus));
    return lines;
}

QStringList answeredInOwnProcess(const std::function<QStringList()> &questions)
{
    return printedInOwnProcess([&] {
        QStringList answers;
        printed([&] { answers = questions(); });
        for (const QString &answer : qAsConst(answers))
            std::puts(qPrintable(answer));
    });
}

void startAgent(std::uint32_t model, const char *modelText, std::uint8_t ampType)
{
    printed([=] { kaAgentStart(model, ampType, modelText); });
}

QStringList snmpGet(const Objects &objects)
{
    return ask(SNMP_MSG_GET, objects);
}

QStringList snmpGetNext(const Objects &objects)
{
    return ask(SNMP_MSG_GETNEXT, objects);
}

QStringList snmpGetNextFrom(const Objects &objects)
{
    return ask(SNMP_MSG_GETNEXT, objects, 0, true);
}

QStringList snmpSet(const Objects &objects)
{
    return ask(SNMP_MSG_SET, objects);
}

QStringList snmpWalk(const char *object, int repetitions)
{
    const QString below = QString::fromLatin1(object) + QLatin1Char('.');
    QStringList walk;
    QString last = QString::fromLatin1(object);
    for (;;) {
        const QStringList answers =
            repetitions > 0 ? ask(SNMP_MSG_GETBULK, {last}, repetitions) : ask(SNMP_MSG_GETNEXT, {last});
        for (const QString &answer : answers) {
            const QString name = objectsOf({answer}).first();
            if (!name.startsWith(below) || answer.endsWith(QLatin1String("endOfMibView")))
                return walk;
            if (name == last || walk.size() > 2000)
                return walk << QStringLiteral("the walk does not end");
            walk.append(answer);
            last = name;
        }
    }
}

QStringList objectsOf(const QStringList &answers)
{
    QStringList objects;
    for (const QString &answer : answers)
        objects.append(answer.section(QLatin1Char(' '), 0, 0));
    return objects;
}

netsnmp_cache *cacheOf(const char *tableObject)
{
    const std::vector<oid> name = fullOid(QString::fromLatin1(tableObject));
    return netsnmp_cache_find_by_oid(name.data(), static_cast<int>(name.size()));
}

void expireCache(const char *tableObject)
{
    if (netsnmp_cache *cache = cacheOf(tableObject))
        cache->valid = 0;
}

void fill(InfoText &field, const char *value)
{
    field.length = copyBounded(field.text, value);
}

QString typeAndValue(const netsnmp_variable_list &variable)
{
    switch (variable.type) {
    case ASN_INTEGER:
        return QStringLiteral("INTEGER %1").arg(*variable.val.integer);
    case ASN_GAUGE:
        return QStringLiteral("Gauge32 %1").arg(static_cast<quint32>(*variable.val.integer));
    case ASN_OCTET_STR:
        return QLatin1String("STRING ") + QString::fromUtf8(reinterpret_cast<const char *>(variable.val.string),
                                                            static_cast<int>(variable.val_len));
    case SNMP_NOSUCHOBJECT:
        return QStringLiteral("noSuchObject");
    case SNMP_NOSUCHINSTANCE:
        return QStringLiteral("noSuchInstance");
    case SNMP_ENDOFMIBVIEW:
        return QStringLiteral("endOfMibView");
    default:
        return QStringLiteral("type %1").arg(variable.type);
    }
}

namespace {
int takeLogLine(int, int, void *serverArgument, void *clientArgument)
{
    const auto *message = static_cast<const snmp_log_message *>(serverArgument);
    static_cast<AgentLog *>(clientArgument)
        ->lines.append(QStringLiteral("%1 %2").arg(message->priority).arg(QString::fromLatin1(message->msg).trimmed()));
    return 0;
}
} // namespace

AgentLog::AgentLog()
{
    snmp_register_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, takeLogLine, this);
    snmp_enable_calllog();
}

AgentLog::~AgentLog()
{
    snmp_disable_calllog();
    snmp_unregister_callback(SNMP_CALLBACK_LIBRARY, SNMP_CALLBACK_LOGGING, takeLogLine, this, 1);
}
