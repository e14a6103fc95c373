// Subscriptions: the messages of a change of the tree for each of them.
#pragma once

#include "simulator/datatree.h"

#include <functional>
#include <string>

namespace simulator {

/// One path to which a client has subscribed.
struct Subscription {
    std::string ref;
    std::string pathText; ///< as in the client's request
    DataPath path;
};

/// Receives one whole message, without its closing NUL.
using MessageSink = std::function<void(const std::string &message)>;

/// One "create" for each node that now matches the subscription, in document order.
void notifyExisting(const Subscription &subscription, const DataTree &tree, const MessageSink &sink);

/// The messages of a change for the subscription: one if the node is, or is below, a matched node; if it is above, one
/// for each matched node inside it that was created, changed or deleted; otherwise none.
void notifyChange(const Subscription &subscription, const Change &change, const MessageSink &sink);

} // namespace simulator
