// Framing and reading of the data service's messages. The front of the input is the stream. Its end (the data
// provider's numbers) determines how the stream is split, and where a long run is inserted.
#include "support.h"

#include "notifymessage.h"
#include "platform/xrcommon/framing/framing.h"
#include "xpath.h"

#include <fuzzer/FuzzedDataProvider.h>

#include <vector>

namespace {

/// A simple, slow implementation of MessageFraming.
class PlainFraming {
public:
    using Outcome = MessageFraming::Outcome;

    void feed(const std::string &bytes)
    {
        if (!m_overLong)
            m_bytes += bytes;
    }

    Outcome next(std::string &message)
    {
        const std::size_t nul = m_bytes.find('\0');
        if (m_overLong || std::min(nul, m_bytes.size()) > maxMessageSize) {
            m_overLong = true;
            return Outcome::OverLong;
        }
        if (nul == std::string::npos)
            return Outcome::Incomplete;
        message = m_bytes.substr(0, nul);
        m_bytes.erase(0, nul + 1);
        return Outcome::Message;
    }

private:
    std::string m_bytes;
    bool m_overLong = false;
};

void readMessage(std::string_view bytes)
{
    QString error;
    const std::optional<NotifyMessage> message = readNotifyMessage(bytes, error);
    require(message.has_value() == error.isEmpty(), "a refused message has a reason, another one has none");
    if (!message)
        return;
    require(!message->ref.isNull() && !message->op.isNull(), "an accepted message has a reference and an operation");
    require(textOf(bytes).contains(message->data), "the message contains the unchanged data");
    require(!message->dataIsElement || isWellFormedElement(message->data),
            "data that need not be checked again are well-formed by themselves");
    if (message->dataIsElement)
        setCheckedData(message->data);
    QString text;
    for (const char *expression : {"/state//voltage", "//*[kid='ch1']"})
        textOfNotification(text, QLatin1String(expression), message->sPath, message->rPath, message->data);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const bool quiet = (quieten(), true);
    static_cast<void>(quiet);
    FuzzedDataProvider provider(data, size);
    MessageFraming framing;
    PlainFraming plain;
    int longRuns = 3; // of up to 2 MiB each: enough for a message that is too long; marked by two bytes of 255
    while (provider.remaining_bytes() > 0) {
        const auto pieceSize = provider.ConsumeIntegral<std::uint8_t>();
        std::string piece = provider.ConsumeBytesAsString(pieceSize);
        if (pieceSize == 255 && provider.ConsumeIntegral<std::uint8_t>() == 255 && longRuns-- > 0)
            piece.append(provider.ConsumeIntegralInRange<std::size_t>(0, maxMessageSize / 2 + 8), 'x');
        framing.feed(piece.data(), piece.size());
        plain.feed(piece);
        for (;;) {
            std::string_view message;
            std::string plainMessage;
            const MessageFraming::Outcome outcome = framing.next(message);
            require(outcome == plain.next(plainMessage), "the outcome is the one of a plain reading");
            if (outcome == MessageFraming::Outcome::OverLong) {
                require(framing.next(message) == outcome, "after an over-long message nothing comes");
                framing.clear();
                plain = {};
            }
            if (outcome != MessageFraming::Outcome::Message)
                break;
            require(message == plainMessage, "the message is the one of a plain reading");
            readMessage(message);
        }
    }
    return 0;
}
