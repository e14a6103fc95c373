// Serving allocates nothing: the functions of the tables and scalars, called as the agent library calls them, on
// a device that is walked and asked cell by cell.
//
// Every allocation of the process counts while one of our functions runs: handlers, the iterators' steps, loads,
// scalars. The library's own allocations, inside the calls that our functions make to it, are counted apart: it keeps a
// value of up to 40 bytes in the variable itself and allocates for a longer one.
#include "support/agentbench.h"
#include "support/recordfields.h"
#include "support/testprogram.h"

#include "device/models.h"

#include <algorithm>
#include <cstdio>
#include <utility>

namespace {
bool isCounting = false;
std::size_t allocated = 0;
std::size_t allocatedByLibrary = 0;

/// Allocations while one lives are the library's.
class InLibrary {
public:
    InLibrary() : m_ours(allocated) {}
    ~InLibrary() { allocatedByLibrary += allocated - m_ours; }
    Q_DISABLE_COPY(InLibrary)

private:
    std::size_t m_ours;
};
} // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the names are the linker's and the sanitizer's
extern "C" {
int __sanitizer_install_malloc_and_free_hooks(void (*onMalloc)(const volatile void *, std::size_t),
                                              void (*onFree)(const volatile void *));

int __real_snmp_set_var_typed_value(netsnmp_variable_list *variable, u_char type, const void *value, std::size_t size);
int __real_netsnmp_set_request_error(netsnmp_agent_request_info *info, netsnmp_request_info *request, int error);
int __real_netsnmp_call_next_handler(netsnmp_mib_handler *handler, netsnmp_handler_registration *registration,
                                     netsnmp_agent_request_info *info, netsnmp_request_info *requests);

int __wrap_snmp_set_var_typed_value(netsnmp_variable_list *variable, u_char type, const void *value, std::size_t size)
{
    const InLibrary inLibrary;
    return __real_snmp_set_var_typed_value(variable, type, value, size);
}

int __wrap_netsnmp_set_request_error(netsnmp_agent_request_info *info, netsnmp_request_info *request, int error)
{
    const InLibrary inLibrary;
    return __real_netsnmp_set_request_error(info, request, error);
}

int __wrap_netsnmp_call_next_handler(netsnmp_mib_handler *handler, netsnmp_handler_registration *registration,
                                     netsnmp_agent_request_info *info, netsnmp_request_info *requests)
{
    const bool counts = std::exchange(isCounting, false);
    const int status = __real_netsnmp_call_next_handler(handler, registration, info, requests);
    isCounting = counts;
    return status;
}
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {
template <typename Function, typename... Arguments>
auto counted(Function function, Arguments... arguments)
{
    isCounting = true;
    const auto result = function(arguments...);
    isCounting = false;
    return result;
}

/// Our functions that a handler, an iterator or a cache of the library has called before the counting ones.
struct Original {
    Netsnmp_Node_Handler *handler;
    Netsnmp_First_Data_Point *first;
    Netsnmp_Next_Data_Point *next;
    NetsnmpCacheLoad *load;
};
QHash<const void *, Original> originals;
int handlerCalls = 0;
int stepCalls = 0;
int loadCalls = 0;

int countHandler(netsnmp_mib_handler *handler, netsnmp_handler_registration *registration,
                 netsnmp_agent_request_info *info, netsnmp_request_info *requests)
{
    ++handlerCalls;
    return counted(originals[handler].handler, handler, registration, info, requests);
}

template <auto original>
netsnmp_variable_list *countStep(void **loop, void **data, netsnmp_variable_list *index, netsnmp_iterator_info *info)
{
    ++stepCalls;
    return counted(originals[info].*original, loop, data, index, info);
}

int countLoad(netsnmp_cache *cache, void *magic)
{
    ++loadCalls;
    return counted(originals[cache].load, cache, magic);
}

/// Steps in before every function of ours below the enterprise arc.
void installCounters()
{
    constexpr oid enterprise[] = {1, 3, 6, 1, 4, 1, 52717};
    for (netsnmp_subtree *tree = netsnmp_subtree_find_first(""); tree != nullptr; tree = tree->next) {
        netsnmp_handler_registration *registration = tree->reginfo;
        if (registration == nullptr || registration->rootoid_len < std::size(enterprise) ||
            !std::equal(std::begin(enterprise), std::end(enterprise), registration->rootoid) ||
            originals.contains(registration->handler))
            continue;
        originals[registration->handler] = {}; // this registration is done
        for (netsnmp_mib_handler *handler = registration->handler; handler != nullptr; handler = handler->next) {
            if (QByteArray(handler->handler_name) == "table_iterator") {
                auto *info = static_cast<netsnmp_iterator_info *>(handler->myvoid);
                originals[info] = {nullptr, std::exchange(info->get_first_data_point, countStep<&Original::first>),
                                   std::exchange(info->get_next_data_point, countStep<&Original::next>), nullptr};
            } else if (handler->next == nullptr || QByteArray(handler->handler_name) == "request_gate") {
                originals[handler].handler = std::exchange(handler->access_method, countHandler);
            }
        }
        if (netsnmp_cache *cache =
                netsnmp_cache_find_by_oid(registration->rootoid, static_cast<int>(registration->rootoid_len)))
            originals[cache].load = std::exchange(cache->load_cache, countLoad);
    }
}

/// Everything below the arc, walked with GETNEXT and with GETBULK, and each of its objects asked for with GET; then all
/// of them with one GETNEXT. Returns how many there are.
int serveEverything()
{
    const QStringList objects = objectsOf(snmpWalk("3"));
    snmpWalk("3", 10);
    for (const QString &object : objects)
        snmpGet(object);
    snmpGetNext(objects);
    snmpGet("3.4.2.1.3.99 3.4.2.1.99.1"); // absent index, column beyond the last
    return objects.size();
}

void serveAsModel(std::uint32_t model)
{
    std::printf("\n"); // standard output has its buffer from here on
    kaAgentStart(model, 1, "Orvane Brisel Compact - IP-QRM-B");
    static TableRecords records = recordfields::distinct();
    setTalTableData(records);
    static InfoData info{};
    std::fill_n(info.packageVersion.text, info.packageVersion.length = 100, 'v'); // for the library to allocate
    kvAgent->infoData = &info;
    initInfoScalars();
    installCounters();
    const int objects = serveEverything();
    std::fflush(stdout);
    std::printf("\n%d %d %d %d %zu %zu\n", objects, handlerCalls, stepCalls, loadCalls, allocated - allocatedByLibrary,
                allocatedByLibrary);
}

const int hooked = __sanitizer_install_malloc_and_free_hooks(
    [](const volatile void *, std::size_t) { allocated += isCounting ? 1 : 0; }, [](const volatile void *) {});
} // namespace

class TestNoAllocation : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void servingAllocatesNothing()
    {
        QVERIFY(hooked > 0);
        for (const std::uint32_t model : knownModels) {
            const AtRow at(QByteArray::number(model));
            const QString last = printedInOwnProcess([model] { serveAsModel(model); }).last();
            const QStringList numbers = last.split(QLatin1Char(' '));
            QVERIFY2(numbers.size() == 6, qPrintable(last));
            const int objects = numbers[0].toInt();
            QVERIFY2(objects > 10, qPrintable(last));
            QVERIFY(numbers[1].toInt() > 2 * objects); // handlers
            QVERIFY(numbers[2].toInt() > 0);           // steps
            QVERIFY(numbers[3].toInt() > 0);           // loads
            QCOMPARE(numbers[4].toInt(), 0);           // allocations of ours
            QVERIFY(numbers[5].toInt() > 0);           // the library's, for one long text
        }
    }
};

const TestEntry entry("tst_noallocation", runTest<TestNoAllocation>);
#include "tst_noallocation.moc"
