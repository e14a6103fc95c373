// The framing of the data service's local protocol.
#include "platform/xrcommon/framing/framing.h"

void MessageFraming::feed(const char *bytes, std::size_t size)
{
    if (m_overLong)
        return;
    if (m_start == m_bytes.size()) {
        m_bytes.clear();
        m_start = m_scanned = 0;
    } else if (m_start > m_bytes.size() / 2) { // moved rarely enough to stay linear
        m_bytes.erase(0, m_start);
        m_scanned -= m_start;
        m_start = 0;
    }
    m_bytes.append(bytes, size);
}

MessageFraming::Outcome MessageFraming::next(std::string_view &message)
{
    if (m_overLong)
        return Outcome::OverLong;
    const std::size_t nul = m_bytes.find('\0', m_scanned);
    const std::size_t end = nul == std::string::npos ? m_bytes.size() : nul;
    if (end - m_start > maxMessageSize) {
        clear();
        m_overLong = true;
        return Outcome::OverLong;
    }
    m_scanned = end;
    if (nul == std::string::npos)
        return Outcome::Incomplete;
    message = std::string_view(m_bytes).substr(m_start, nul - m_start);
    m_start = m_scanned = nul + 1;
    return Outcome::Message;
}

void MessageFraming::clear()
{
    m_bytes = std::string(); // also releases the memory
    m_start = m_scanned = 0;
    m_overLong = false;
}
