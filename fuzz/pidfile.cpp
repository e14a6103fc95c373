// The pid file: reads and overwrites any content.
#include "support.h"

#include "app/pidfilehandler.h"

#include <fcntl.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const PrivateFolder folder;
    static const std::string path = folder.file("pid");
    static const bool quiet = freopen("/dev/null", "w", stdout) != nullptr;
    static_cast<void>(quiet);

    writeFile(path, viewOf(data, size));
    {
        const PidFileHandler handler(path.c_str());
        const pid_t pid = handler.readPid();
        const pid_t running = handler.checkPid();
        require(running != getpid(), "we do not keep ourselves from starting");
        require(running == 0 || running == pid, "only the process in the file prevents a start");
        require(handler.writePid() == getpid(), "any content of the file can be overwritten");
        require(handler.readPid() == getpid(), "what was written is read again");
    }
    require(access(path.c_str(), F_OK) != 0, "the file goes with the handler");
    return 0;
}
