// Dispatches commands; implements those about the data service's clients.
#include "simulator/commandrunner.h"

#include "simulator/talserver.h"

namespace simulator {

namespace {

Reply listClients(Device &device, const QStringList &)
{
    QStringList list;
    for (const Session *session : device.server.sessions())
        list += QStringLiteral("%1\t%2\t%3")
                    .arg(session->number())
                    .arg(session->subscriptions().size())
                    .arg(session->queued());
    return {Reply::Done, list.join(QLatin1Char('\n'))};
}

Reply dropClients(Device &device, const QStringList &)
{
    for (Session *session : device.server.sessions())
        session->drop(QStringLiteral("by order"));
    return {};
}

Reply listSubscriptions(Device &device, const QStringList &)
{
    QStringList list;
    for (const Session *session : device.server.sessions())
        for (const Subscription &subscription : session->subscriptions())
            list += QStringLiteral("%1\t%2\t%3")
                        .arg(QString::number(session->number()), QString::fromStdString(subscription.ref),
                             QString::fromStdString(subscription.pathText));
    return {Reply::Done, list.join(QLatin1Char('\n'))};
}

Reply printModel(Device &device, const QStringList &)
{
    return {Reply::Done, device.model};
}

constexpr CommandAction runnerTable[] = {
    {"model", printModel},
    {"clients", listClients},
    {"clients drop", dropClients},
    {"subscriptions", listSubscriptions},
};

} // namespace

std::span<const CommandAction> clientActions()
{
    return runnerTable;
}

Reply unknownWord(const QString &kind, const QString &word, const QStringList &possible)
{
    if (possible.isEmpty())
        return {Reply::Refused, QStringLiteral("this model has no %1 (%2 sends any)").arg(kind, anyOption)};
    return {Reply::Refused, QStringLiteral("no such %1: %2 (possible: %3; %4 sends any other)")
                                .arg(kind, word, possible.join(QLatin1Char(' ')), anyOption)};
}

Reply runCommand(Device &device, const QStringList &words)
{
    const QString error = usageError(words);
    if (!error.isEmpty())
        return {Reply::Usage, error};
    const Command &command = *commandOf(words);
    for (const auto &group : {treeActions(), monitorActions(), gpioActions(), clientActions()})
        for (const CommandAction &action : group)
            if (QLatin1String(action.words) == QLatin1String(command.words))
                return action.run(device, argumentsOf(command, words));
    return {Reply::Usage, QStringLiteral("%1 is carried out by talctl itself").arg(QLatin1String(command.words))};
}

} // namespace simulator
