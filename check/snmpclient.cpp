// Queries snmpd like a manager, without reading or writing any file of the SNMP library.
#include "check/snmpclient.h"

#include <net-snmp/net-snmp-config.h>
// keep net-snmp-config.h first
#include <net-snmp/net-snmp-includes.h>

#include <cstdlib>

namespace {

struct ReplyDeleter {
    void operator()(snmp_pdu *pdu) const { snmp_free_pdu(pdu); }
};

/// Does not call init_snmp(), which would read the device's configuration and may write state.
void quietLibrary()
{
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
    snmp_disable_log();
}

QString textOf(char *libraryText)
{
    QString text = QString::fromLocal8Bit(libraryText);
    std::free(libraryText); // NOLINT(cppcoreguidelines-no-malloc): allocated by the library
    return text;
}

SnmpReply replyOf(const snmp_pdu &pdu)
{
    using Kind = SnmpReply::Kind;
    if (pdu.errstat == SNMP_ERR_NOSUCHNAME) // of version 1
        return {Kind::NoSuchName};
    const netsnmp_variable_list *variable = pdu.variables;
    if (pdu.errstat != SNMP_ERR_NOERROR || variable == nullptr)
        return {Kind::Error, QString::fromLatin1(snmp_errstring(static_cast<int>(pdu.errstat))), {}};

    SnmpReply reply{Kind::Other};
    for (std::size_t i = 0; i < variable->name_length; ++i)
        reply.name.push_back(static_cast<std::uint32_t>(variable->name[i]));
    switch (variable->type) {
    case SNMP_NOSUCHOBJECT:
    case SNMP_NOSUCHINSTANCE:
    case SNMP_ENDOFMIBVIEW:
        reply.kind = Kind::NoSuchName;
        break;
    case ASN_INTEGER:
        reply.kind = Kind::Integer;
        reply.integer = *variable->val.integer;
        break;
    case ASN_OCTET_STR:
        reply.text =
            QByteArray(reinterpret_cast<const char *>(variable->val.string), static_cast<int>(variable->val_len));
        break;
    default:
        break;
    }
    return reply;
}

} // namespace

class SnmpClient::Session {
public:
    explicit Session(const SnmpTarget &target) : m_address(target.address), m_community(target.community)
    {
        quietLibrary();
        snmp_session wanted;
        snmp_sess_init(&wanted);
        wanted.version = target.isVersion1 ? SNMP_VERSION_1 : SNMP_VERSION_2c;
        wanted.peername = m_address.data();
        wanted.community = reinterpret_cast<unsigned char *>(m_community.data());
        wanted.community_len = static_cast<std::size_t>(m_community.size());
        wanted.retries = 1; // one datagram may be lost while snmpd is busy
        wanted.timeout = static_cast<long>(target.timeoutMs) * 1000 / 2;
        m_handle = snmp_sess_open(&wanted);
        if (m_handle == nullptr) {
            char *text = nullptr;
            snmp_error(&wanted, nullptr, nullptr, &text);
            m_openError = textOf(text);
        }
    }

    ~Session()
    {
        if (m_handle != nullptr)
            snmp_sess_close(m_handle);
    }
    Session(const Session &) = delete;
    Session &operator=(const Session &) = delete;

    SnmpReply ask(int command, const SnmpName &name)
    {
        if (m_handle == nullptr)
            return {SnmpReply::Kind::NoAnswer, m_openError};
        const std::vector<oid> arcs(name.begin(), name.end());
        snmp_pdu *request = snmp_pdu_create(command);
        snmp_add_null_var(request, arcs.data(), arcs.size());
        snmp_pdu *answer = nullptr;
        const int status = snmp_sess_synch_response(m_handle, request, &answer);
        const std::unique_ptr<snmp_pdu, ReplyDeleter> owner(answer);
        if (status == STAT_SUCCESS && answer != nullptr)
            return replyOf(*answer);
        char *text = nullptr;
        snmp_sess_error(m_handle, nullptr, nullptr, &text);
        return {SnmpReply::Kind::NoAnswer, status == STAT_TIMEOUT ? QStringLiteral("no answer") : textOf(text)};
    }

private:
    QByteArray m_address;
    QByteArray m_community;
    void *m_handle = nullptr;
    QString m_openError;
};

SnmpClient::SnmpClient(const SnmpTarget &target) : m_session(std::make_unique<Session>(target)) {}

SnmpClient::~SnmpClient() = default;

SnmpReply SnmpClient::get(const SnmpName &name)
{
    return ask(SNMP_MSG_GET, name);
}

SnmpReply SnmpClient::getNext(const SnmpName &name)
{
    return ask(SNMP_MSG_GETNEXT, name);
}

SnmpReply SnmpClient::ask(int command, const SnmpName &name)
{
    return m_session->ask(command, name);
}
