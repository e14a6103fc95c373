// Serving allocates nothing: the functions of the tables and scalars, called as the agent library calls them, on
// a device that is walked and asked cell by cell.
//
// What is counted: every allocation of the process, by whichever library, while one of our functions runs: handlers,
// the iterators' steps, loads, scalars. Told apart: what the agent library allocates inside the calls that our
// functions make to it. It keeps a value of up to 40 bytes in the variable itself and allocates for a longer one.
#include "support/agentbench.h"
#include "support/allocationcount.h"
#include "support/recordfields.h"
#include "support/testprogram.h"

#include "device/models.h"

#include <QtTest>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

// The calls of our functions to the library, through the linker: see "no allocation" in CMakeLists.txt.
namespace {
std::size_t allocatedByLibrary = 0;

/// Allocations while one lives are the library's.
class InLibrary {
public:
    InLibrary() : m_ours(AllocationCount::total()) {}
    ~InLibrary()
    {
        if (AllocationCount::isRunning())
            allocatedByLibrary += AllocationCount::total() - m_ours;
    }
    InLibrary(const InLibrary &) = delete;
    InLibrary &operator=(const InLibrary &) = delete;

private:
    std::size_t m_ours;
};
} // namespace

// NOLINTBEGIN(bugprone-reserved-identifier): the names are the linker's
extern "C" {
int __real_snmp_set_var_typed_value(netsnmp_variable_list *variable, u_char type, const void *value, std::size_t size);
int __wrap_snmp_set_var_typed_value(netsnmp_variable_list *variable, u_char type, const void *value, std::size_t size);
int __real_netsnmp_set_request_error(netsnmp_agent_request_info *info, netsnmp_request_info *request, int error);
int __wrap_netsnmp_set_request_error(netsnmp_agent_request_info *info, netsnmp_request_info *request, int error);
int __real_netsnmp_call_next_handler(netsnmp_mib_handler *handler, netsnmp_handler_registration *registration,
                                     netsnmp_agent_request_info *info, netsnmp_request_info *requests);
int __wrap_netsnmp_call_next_handler(netsnmp_mib_handler *handler, netsnmp_handler_registration *registration,
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

/// The handlers behind the gate are counted on their own.
int __wrap_netsnmp_call_next_handler(netsnmp_mib_handler *handler, netsnmp_handler_registration *registration,
                                     netsnmp_agent_request_info *info, netsnmp_request_info *requests)
{
    const bool counts = AllocationCount::isRunning();
    AllocationCount::stop();
    const int status = __real_netsnmp_call_next_handler(handler, registration, info, requests);
    if (counts)
        AllocationCount::start();
    return status;
}
}
// NOLINTEND(bugprone-reserved-identifier)

namespace {
/// Runs one of our functions under the count.
template <typename Function, typename... Arguments>
auto counted(Function function, Arguments... arguments)
{
    AllocationCount::start();
    const auto result = function(arguments...);
    AllocationCount::stop();
    return result;
}

/// What the library holds of ours, and the counting functions in its place.
class Counters {
public:
    /// Steps in before every function of ours below the enterprise arc; the numbers of those found.
    static void install()
    {
        constexpr oid enterprise[] = {1, 3, 6, 1, 4, 1, 52717};
        for (netsnmp_subtree *tree = netsnmp_subtree_find_first(""); tree != nullptr; tree = tree->next) {
            netsnmp_handler_registration *registration = tree->reginfo;
            if (registration == nullptr || registration->rootoid_len < std::size(enterprise) ||
                !std::equal(std::begin(enterprise), std::end(enterprise), registration->rootoid))
                continue;
            for (netsnmp_mib_handler *handler = registration->handler; handler != nullptr; handler = handler->next) {
                if (QByteArray(handler->handler_name) == "table_iterator")
                    installIterator(static_cast<netsnmp_iterator_info *>(handler->myvoid));
                if (handler->next == nullptr || QByteArray(handler->handler_name) == "request_gate")
                    installHandler(handler);
            }
            if (netsnmp_cache *cache =
                    netsnmp_cache_find_by_oid(registration->rootoid, static_cast<int>(registration->rootoid_len)))
                installCache(cache);
        }
    }

    inline static int handlerCalls = 0;
    inline static int stepCalls = 0;
    inline static int loadCalls = 0;

private:
    template <typename Owner, typename Function>
    using Originals = std::vector<std::pair<const Owner *, Function>>;

    template <typename Owner, typename Function>
    static Function originalOf(const Originals<Owner, Function> &originals, const Owner *owner)
    {
        for (const auto &[known, function] : originals)
            if (known == owner)
                return function;
        qFatal("a function of nobody");
    }

    static void installHandler(netsnmp_mib_handler *handler)
    {
        if (handler->access_method == countHandler)
            return;
        s_handlers.emplace_back(handler, handler->access_method);
        handler->access_method = countHandler;
    }

    static void installIterator(netsnmp_iterator_info *info)
    {
        if (info->get_first_data_point == countFirst)
            return;
        s_firsts.emplace_back(info, info->get_first_data_point);
        s_nexts.emplace_back(info, info->get_next_data_point);
        info->get_first_data_point = countFirst;
        info->get_next_data_point = countNext;
    }

    static void installCache(netsnmp_cache *cache)
    {
        if (cache->load_cache == countLoad)
            return;
        s_loads.emplace_back(cache, cache->load_cache);
        cache->load_cache = countLoad;
    }

    static int countHandler(netsnmp_mib_handler *handler, netsnmp_handler_registration *registration,
                            netsnmp_agent_request_info *info, netsnmp_request_info *requests)
    {
        ++handlerCalls;
        return counted(originalOf(s_handlers, handler), handler, registration, info, requests);
    }

    static netsnmp_variable_list *countFirst(void **loop, void **data, netsnmp_variable_list *index,
                                             netsnmp_iterator_info *info)
    {
        ++stepCalls;
        return counted(originalOf(s_firsts, info), loop, data, index, info);
    }

    static netsnmp_variable_list *countNext(void **loop, void **data, netsnmp_variable_list *index,
                                            netsnmp_iterator_info *info)
    {
        ++stepCalls;
        return counted(originalOf(s_nexts, info), loop, data, index, info);
    }

    static int countLoad(netsnmp_cache *cache, void *magic)
    {
        ++loadCalls;
        return counted(originalOf(s_loads, cache), cache, magic);
    }

    inline static Originals<netsnmp_mib_handler, Netsnmp_Node_Handler *> s_handlers;
    inline static Originals<netsnmp_iterator_info, Netsnmp_First_Data_Point *> s_firsts;
    inline static Originals<netsnmp_iterator_info, Netsnmp_Next_Data_Point *> s_nexts;
    inline static Originals<netsnmp_cache, NetsnmpCacheLoad *> s_loads;
};

/// Everything below the arc, walked with GETNEXT, walked with GETBULK, and each of its objects asked for with GET; then
/// all of them with one GETNEXT.
int serveEverything()
{
    const QStringList walk = snmpWalk(QStringLiteral("3"));
    snmpWalk(QStringLiteral("3"), 10);
    QStringList objects;
    for (const QString &line : walk)
        objects.append(line.section(QLatin1Char(' '), 0, 0));
    for (const QString &object : objects)
        snmpGet({object});
    snmpGetNext(objects);
    snmpGet({QStringLiteral("3.4.2.1.3.99"), QStringLiteral("3.4.2.1.99.1")}); // absent index, column beyond the last
    return walk.size();
}

/// What one model's process tells, as lines "WORD NUMBER".
void serveAsModel(std::uint32_t model)
{
    std::printf("\n"); // standard output has its buffer from here on
    kaAgentStart(model, 1, "Orvane Brisel Compact - IP-QRM-B");
    static TableRecords records = recordfields::telling();
    handOver(records);
    static InfoData info{};
    std::fill_n(info.packageVersion.text, info.packageVersion.length = 100, 'v'); // for the library to allocate
    kvAgent->infoData = &info;
    initInfoScalars();
    Counters::install();
    const int objects = serveEverything();
    std::fflush(stdout);
    std::printf("\nobjects %d\nhandlers %d\nsteps %d\nloads %d\nours %zu\nlibrary %zu\n", objects,
                Counters::handlerCalls, Counters::stepCalls, Counters::loadCalls,
                AllocationCount::total() - allocatedByLibrary, allocatedByLibrary);
}

int numberOf(const char *word, const QStringList &lines)
{
    const QString start = QString::fromLatin1(word) + QLatin1Char(' ');
    for (const QString &line : lines)
        if (line.startsWith(start))
            return line.mid(start.size()).toInt();
    return -1;
}
} // namespace

namespace {
int throughMalloc()
{
    void *volatile block = std::malloc(1);
    std::free(block);
    return 1;
}

int throughNew()
{
    const std::unique_ptr<volatile int> number(new volatile int(1));
    return *number;
}

int throughStandardLibrary()
{
    const std::string text(static_cast<std::size_t>(std::getenv("PATH") != nullptr ? 100 : 200), 'x');
    return text.back();
}

int throughQt()
{
    return QString::fromLatin1("a text").size();
}

int throughAgentLibrary()
{
    netsnmp_variable_list variable{};
    const char longText[64] = "longer than what the variable itself holds";
    const int result = __real_snmp_set_var_typed_value(&variable, ASN_OCTET_STR, longText, sizeof longText);
    snmp_reset_var_buffers(&variable);
    return result;
}

int noAllocation()
{
    std::puts("");
    return 1;
}
} // namespace

class TestNoAllocation : public QObject {
    Q_OBJECT

private Q_SLOTS:
    void everyAllocationIsCounted_data()
    {
        QTest::addColumn<void *>("function");
        QTest::addColumn<bool>("allocates");
        const auto row = [](const char *name, int (*function)(), bool allocates) {
            QTest::newRow(name) << reinterpret_cast<void *>(function) << allocates;
        };
        row("malloc", throughMalloc, true);
        row("new", throughNew, true);
        row("inside the C++ library", throughStandardLibrary, true);
        row("inside Qt", throughQt, true);
        row("inside the agent library", throughAgentLibrary, true);
        row("a line to standard output", noAllocation, false);
    }

    void everyAllocationIsCounted()
    {
        QFETCH(void *, function);
        QFETCH(bool, allocates);
        std::puts("");
        AllocationCount::reset();
        counted(reinterpret_cast<int (*)()>(function));
        QCOMPARE(AllocationCount::total() > 0, allocates);
    }

    void servingAllocatesNothing_data()
    {
        QTest::addColumn<quint32>("model");
        for (const std::uint32_t model : knownModels)
            QTest::addRow("%u", model) << model;
    }

    void servingAllocatesNothing()
    {
        QFETCH(quint32, model);
        const QStringList lines = printedInOwnProcess([model] {
            AllocationCount::reset();
            serveAsModel(model);
        });
        const int objects = numberOf("objects", lines);
        QVERIFY2(objects > 10, qPrintable(lines.mid(lines.size() - 8).join(QLatin1Char('\n'))));
        QVERIFY(numberOf("handlers", lines) > 2 * objects);
        QVERIFY(numberOf("steps", lines) > 0);
        QVERIFY(numberOf("loads", lines) > 0);
        QCOMPARE(numberOf("ours", lines), 0);
        QVERIFY(numberOf("library", lines) > 0); // told apart, not overlooked: one long text is served
        qInfo("%u: %d objects, %d handler calls, %d steps, %d loads; the library allocated %d times for longer values",
              model, objects, numberOf("handlers", lines), numberOf("steps", lines), numberOf("loads", lines),
              numberOf("library", lines));
    }
};

const TestEntry entry("tst_noallocation", runTest<TestNoAllocation>);
#include "tst_noallocation.moc"
