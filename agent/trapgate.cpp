// The gate for traps to the master agent: its states, and the events that change them.
#include "agent/trapgate.h"

#include <utility>

#include <poll.h>

namespace {

using State = TrapGate::State;

constexpr bool isLost(State state)
{
    return state != State::Open && !isBusy(state);
}

/// The state of the connection: MasterGone, MasterSlow or Open. Writing to a slow master would block us, and also the
/// master once its answers, which only a pass reads, fill the other direction.
State lookAt(int socket)
{
    pollfd connection = {socket, POLLOUT, 0};
    if (socket < 0)
        return State::Open;
    if (poll(&connection, 1, 0) == 0)
        return State::MasterSlow;
    return (connection.revents & (POLLHUP | POLLERR | POLLNVAL)) != 0 ? State::MasterGone : State::Open;
}

} // namespace

TrapGate &trapGate()
{
    static TrapGate gate;
    return gate;
}

State TrapGate::state()
{
    if (!isLost(m_state) && lookAt(m_socket) == State::MasterGone)
        enter(State::MasterGone);
    return m_state;
}

std::uint64_t TrapGate::losses()
{
    state();
    return m_losses;
}

bool TrapGate::admit()
{
    if (m_state == State::Open)
        enter(lookAt(m_socket));
    if (m_state != State::Open)
        return false;
    if (++m_sentSincePass == trapsPerPass)
        enter(State::PassFull);
    return true;
}

void TrapGate::openSession(int socket)
{
    closeSession();
    m_sessionOpen = true;
    m_socket = socket;
    m_sentSincePass = 0;
    enter(lookAnew());
}

void TrapGate::closeSession()
{
    m_sessionOpen = false;
    enter(State::NoSession);
}

void TrapGate::setMasterEnding(bool ending)
{
    if (std::exchange(m_masterEnding, ending) != ending)
        enter(lookAnew());
}

void TrapGate::endPass()
{
    m_sentSincePass = 0;
    if (isBusy(m_state))
        enter(lookAnew());
}

State TrapGate::lookAnew() const
{
    if (!m_sessionOpen)
        return State::NoSession;
    if (m_masterEnding)
        return State::MasterEnding;
    const State connection = lookAt(m_socket);
    return connection == State::Open && m_sentSincePass >= trapsPerPass ? State::PassFull : connection;
}

void TrapGate::enter(State next)
{
    const State before = std::exchange(m_state, next);
    if (isLost(next) && !isLost(before))
        ++m_losses;
    if (next == State::Open && before != State::Open && m_opened)
        m_opened();
}
