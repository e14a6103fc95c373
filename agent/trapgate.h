// The gate on the way to the master agent: whether a trap may be handed to the library now, and when again.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <utility>

/// Most notifications handed to the library between two of its passes. Some 800 in one go fill the socket to the
/// master in both directions and block it and us for ever.
inline constexpr std::size_t trapsPerPass = 200;

class TrapGate {
public:
    enum class State {
        NoSession,    ///< none is open: a trap would be dropped
        MasterEnding, ///< the master was ordered to end: it discards what it has not read
        MasterGone,   ///< the master has hung up; the library closes the session in its next pass
        MasterSlow,   ///< the master has not read most of what it was sent; looked at again after each pass
        PassFull,     ///< `trapsPerPass` are handed over; opens after the pass
        Open,
    };

    /// Also finds out whether the master has hung up. Any other state but Open lasts until an event below ends it, so
    /// whoever was refused can ask why.
    State state();
    /// How often the way to the master was lost: whenever the state became one of the first three.
    std::uint64_t losses();
    /// Lets one trap through and counts it, or refuses it.
    bool admit();
    /// Called whenever the gate opens, possibly from inside the library: send nothing from there.
    void setOpened(std::function<void()> opened) { m_opened = std::move(opened); }

    // What happens to the way.
    void openSession(int socket); ///< -1: a socket that is not known, and not looked at
    void closeSession();
    void setMasterEnding(bool ending); ///< holds every session, a new one too, until `false`
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

/// The sender only takes a moment: a trap that is refused now goes out soon, on the same way.
constexpr bool isBusy(TrapGate::State state)
{
    return state == TrapGate::State::MasterSlow || state == TrapGate::State::PassFull;
}

/// The agent's one gate.
TrapGate &trapGate();
