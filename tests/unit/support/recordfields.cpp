// The fields of the table records by name.
#include "support/recordfields.h"

#include "device/boundedtext.h"

#include <QVector>

#include <cstring>
#include <string>

namespace {
struct Field {
    bool isFlag() const { return size == sizeof(std::uint8_t); }
    bool isNumber() const { return size == sizeof(std::uint32_t); }

    QString name; // neither a flag nor a number: a text
    std::size_t offset;
    std::size_t size;
};

class Fields {
public:
    Fields()
    {
        TableRecords r = {};
        m_base = reinterpret_cast<const char *>(&r);
        each("voltage.", r.voltage.values, [this](auto name, auto &measured) { add(name, measured.value); });
        each("temp.", r.temp.rows, [this](auto name, auto &row) {
            add(name + ".current", row.current.value);
            add(name + ".peak", row.peak);
            add(name + ".average", row.average);
        });
        each("fan.", r.fan.values, [this](auto name, auto &measured) { add(name, measured.value); });
        each("ampChannel.", r.ampChannel.rows, [this](auto name, auto &row) {
            add(name + ".status", row.status);
            add(name + ".lineState", row.lineState);
            add(name + ".ampEnable", row.ampEnable);
            add(name + ".ampMonitorStatus", row.ampMonitorStatus);
        });
        each("controlOutput.", r.controlOutput.status, [this](auto name, auto &status) { add(name, status); });
        each("controlInput.", r.controlInput.rows, [this](auto name, auto &row) {
            add(name + ".status", row.status);
            add(name + ".monitored", row.monitored);
        });
        each("let.", r.let.lets, [this](auto channel, auto &lets) {
            this->each(channel + '.', lets, [this](auto name, auto &let) {
                this->add(name + ".letStatus", let.letStatus);
                this->add(name + ".letPresence", let.letPresence);
                this->add(name + ".letEnabled", let.letEnabled);
                this->add(name + ".description", let.description);
                this->add(name + ".softwareVersion", let.softwareVersion);
                this->add(name + ".hardwareVersion", let.hardwareVersion);
                this->add(name + ".letVoltage", let.letVoltage);
                this->add(name + ".changed.status", let.changed.status);
                this->add(name + ".changed.description", let.changed.description);
                this->add(name + ".changed.softwareVersion", let.changed.softwareVersion);
                this->add(name + ".changed.hardwareVersion", let.changed.hardwareVersion);
                this->add(name + ".changed.voltage", let.changed.voltage);
            });
        });
        each("lineIn.", r.lineIn.rows, [this](auto name, auto &row) {
            add(name + ".lineInStatus", row.lineInStatus);
            add(name + ".micStatus", row.micStatus);
            add(name + ".lineInMonitoring", row.lineInMonitoring);
        });
        each("ethMonitoring.", r.ethMonitoring.monitored, [this](auto name, auto &value) { add(name, value); });
        each("power.", r.power.rows, [this](auto name, auto &row) {
            add(name + ".liveStatus", row.liveStatus);
            add(name + ".monitored", row.monitored);
        });
        each("relay.", r.relay.rows, [this](auto name, auto &row) {
            add(name + ".status", row.status);
            add(name + ".idleMode", row.idleMode);
            add(name + ".delay", row.delay);
        });
    }

    const QVector<Field> &all() const { return m_fields; }

private:
    template <typename Element, std::size_t size, typename Visit>
    void each(const std::string &prefix, Element (&elements)[size], Visit visit)
    {
        for (std::size_t place = 0; place < size; ++place)
            visit(prefix + std::to_string(place), elements[place]);
    }
    template <typename Member>
    void add(const std::string &name, const Member &member)
    {
        m_fields.append({QString::fromStdString(name),
                         static_cast<std::size_t>(reinterpret_cast<const char *>(&member) - m_base), sizeof(member)});
    }

    const char *m_base;
    QVector<Field> m_fields;
};

const QVector<Field> &fields()
{
    static const Fields all;
    return all.all();
}

const Field &fieldOf(const QString &name)
{
    for (const Field &field : fields())
        if (field.name == name)
            return field;
    qFatal("no field %s", qPrintable(name));
}

char *place(TableRecords &records, const Field &field)
{
    return reinterpret_cast<char *>(&records) + field.offset;
}

const char *place(const TableRecords &records, const Field &field)
{
    return reinterpret_cast<const char *>(&records) + field.offset;
}

void store(TableRecords &records, const Field &field, const QString &value)
{
    const std::uint32_t number = value.toUInt();
    if (field.isNumber())
        std::memcpy(place(records, field), &number, sizeof(number));
    else if (field.isFlag())
        *place(records, field) = static_cast<char>(number);
    else
        std::strncpy(place(records, field), value.toLatin1().constData(), field.size - 1);
}

QString read(const TableRecords &records, const Field &field)
{
    const char *text = place(records, field);
    std::uint32_t number = static_cast<unsigned char>(*text);
    if (field.isNumber())
        std::memcpy(&number, text, sizeof(number));
    if (field.isNumber() || field.isFlag())
        return QString::number(number);
    return QLatin1Char('\'') + QString::fromLatin1(text, static_cast<int>(strnlen(text, field.size))) +
           QLatin1Char('\'');
}
} // namespace

QStringList recordfields::changes(const TableRecords &before, const TableRecords &after)
{
    QStringList all;
    for (const Field &field : fields())
        if (std::memcmp(place(before, field), place(after, field), field.size) != 0)
            all << field.name + QLatin1Char('=') + read(after, field);
    return all;
}

void recordfields::fill(TableRecords &records, std::uint32_t value)
{
    for (const Field &field : fields())
        if (field.isNumber())
            std::memcpy(place(records, field), &value, sizeof(value));
}

TableRecords recordfields::distinct()
{
    TableRecords records = {};
    std::uint32_t number = 1000;
    for (const Field &field : fields())
        store(records, field,
              field.isNumber() ? QString::number(++number)
              : field.isFlag() ? QStringLiteral("1")
                               : field.name);
    return records;
}

QString recordfields::valueOf(const TableRecords &records, const QString &name)
{
    return read(records, fieldOf(name));
}

void recordfields::set(TableRecords &records, const QString &name, const QString &value)
{
    store(records, fieldOf(name), value);
}
