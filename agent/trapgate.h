// The gate for traps to the master agent: whether the library may receive a trap now, and if not, when.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>

/// Most notifications for the library between two of its passes. About 800 at once fill the socket to the master in
/// both directions and block the master and us forever.
inline constexpr std::size_t trapsPerPass = 200;

class TrapGate {
public:
    enum class State {
        NoSession,    ///< no session is open: a trap would be dropped
        MasterEnding, ///< the master was ordered to end: it discards unread traps
        MasterGone,   ///< the master has closed the connection; the library closes the session in its next pass
        MasterSlow,   ///< the master has not yet read most of the data; checked again after each pass
        PassFull,     ///< `trapsPerPass` are sent; opens after the pass
        Open,
    };

    /// Also detects a connection closed by the master. Every other state except Open lasts until an event below ends
    /// it, so a refused caller can ask for the reason.
    State state();
    /// Number of losses of the master: changes of the state to one of the first three.
    std::uint64_t losses();
    /// Admits and counts one trap, or refuses it.
    bool admit();
    /// Called when the gate opens, possibly from inside the library: do not send from there.
    void setOpened(std::function<void()> opened) { m_opened = std::move(opened); }

    // Events of the connection.
    void openSession(int socket); ///< -1: an unknown socket, which is not checked
    void closeSession();
    void setMasterEnding(bool ending); ///< holds every session, even a new one, until `false`
    void endPass();                    ///< a pass of the library is over

private:
    State lookAnew() const;
    void enter(State next);

    State m_state = State::NoSession;
    int m_socket = -1;
    bool m_sessionOpen = false;
    bool m_masterEnding = false;
    std::size_t m_sentSincePass = 0;
    std::uint64_t m_losses = 0;
    std::function<void()> m_opened;
};

/// The sender is only busy: a trap refused now is sent soon, over the same connection.
constexpr bool isBusy(TrapGate::State state)
{
    return state == TrapGate::State::MasterSlow || state == TrapGate::State::PassFull;
}

/// The agent's only gate.
TrapGate &trapGate();
