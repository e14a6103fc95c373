// The whole input path: bytes on the data service's socket, through the client, to a data-service handler. After any
// bytes the client stays connected and the next message arrives.
#include "support.h"

#include "tal/talhandler.h"

#include <xrcommon/TalInterface.h>

#include <QCoreApplication>

#include <cerrno>
#include <cstring>
#include <memory>

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

/// The data service's end, and the client with its reader.
class Wire {
public:
    Wire()
    {
        quieten();
        const std::string path = m_folder.file("tal.sock");
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::memcpy(address.sun_path, path.data(), path.size());
        const int listener = socket(AF_UNIX, SOCK_STREAM, 0);
        require(bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0 &&
                    listen(listener, 1) == 0,
                "the socket can be made");
        qputenv("TAL_SOCKET", path.c_str());
        m_application = std::make_unique<QCoreApplication>(m_argc, m_argv);
        m_client = std::make_unique<TalInterface>(nullptr);
        m_handler = std::make_unique<TalHandler>(nullptr, 6420, "Orvane Brisel Extended");
        QObject::connect(m_client.get(), &TalInterface::talNotifySignal, m_handler.get(),
                         &TalHandler::talHandlerNotifySlot);
        QObject::connect(m_client.get(), &TalInterface::talNotifySignal, m_client.get(),
                         [this](const QString &ref) { m_lastRef = ref; });
        while (!poll(listener))
            QCoreApplication::processEvents();
        m_socket = accept(listener, nullptr, nullptr);
        require(m_socket >= 0, "the client connects");
    }

    void send(std::string_view bytes)
    {
        while (!bytes.empty()) {
            const ssize_t count = ::send(m_socket, bytes.data(), bytes.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
            require(count > 0 || errno == EAGAIN, "the client stays connected");
            if (count > 0)
                bytes.remove_prefix(static_cast<std::size_t>(count));
            else
                QCoreApplication::processEvents();
        }
    }

    /// Terminates the bytes sent so far, sends one more message and waits for it.
    void expectOneMore()
    {
        const std::string ref = "expected-" + std::to_string(++m_expected);
        send({"\0", 1});
        send("<notify><ref>" + ref + "</ref><op>create</op></notify>");
        send({"\0", 1});
        const QString expected = QString::fromStdString(ref);
        for (int pass = 0; m_lastRef != expected; ++pass) {
            require(pass < 10000, "the message after any bytes arrives");
            QCoreApplication::processEvents();
        }
    }

private:
    static bool poll(int descriptor)
    {
        pollfd waiting{descriptor, POLLIN, 0};
        return ::poll(&waiting, 1, 0) > 0;
    }

    PrivateFolder m_folder;
    char m_name[5] = "fuzz";
    char *m_argv[2] = {m_name, nullptr};
    int m_argc = 1;
    std::unique_ptr<QCoreApplication> m_application;
    std::unique_ptr<TalInterface> m_client;
    std::unique_ptr<TalHandler> m_handler;
    int m_socket = -1;
    std::uint64_t m_expected = 0;
    QString m_lastRef;
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static Wire wire;
    wire.send(viewOf(data, size));
    wire.expectOneMore();
    return 0;
}
