// Subscriptions: what a change of the tree means to each of them.
#pragma once

#include "simulator/datatree.h"

#include <functional>
#include <string>

namespace simulator {

/// One path that a client asked to be told about.
struct Subscription {
    std::string ref;
    std::string pathText; ///< as the client wrote it
    DataPath path;
};

/// Takes one whole message, without its closing NUL.
using MessageSink = std::function<void(const std::string &message)>;

/// One "create" for each node that the subscription matches now, in document order.
void tellExisting(const Subscription &subscription, const DataTree &tree, const MessageSink &sink);

/// What the change means to the subscription: one message when the node is a matched one or below one; one for each
/// matched node inside it that came, changed or went when it is above; none otherwise.
void tellChange(const Subscription &subscription, const Change &change, const MessageSink &sink);

} // namespace simulator
