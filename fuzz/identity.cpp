// The identity files. The input is their contents, separated by bell characters, in the order of `files`; the content
// "-" means a missing file.
#include "support.h"

#include "app/identity.h"
#include "device/models.h"

#include <cstring>

#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr const char *files[] = {
    "etc/xr-modelnumber", "etc/xr-amptype",   "etc/xr-powertype", "etc/xr-model",
    "etc/xr-pkgver",      "etc/xr-kernelver", "etc/xr-oftreever",
};

/// True if the first line contains only a number.
bool holdsANumber(std::string_view content)
{
    return takeUpTo(content, '\n').find_first_not_of(" \t\v\f\r+0123456789") == std::string_view::npos;
}

void checkText(const InfoText &field)
{
    require(field.length < sizeof field.text, "a text leaves room for its terminator");
    require(strnlen(field.text, sizeof field.text) == field.length, "the stored length is that of the text");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t *data, std::size_t size)
{
    static const PrivateFolder folder;
    static const bool quiet = (quieten(), mkdir(folder.file("etc").c_str(), 0700), true);
    static_cast<void>(quiet);

    std::string_view rest = viewOf(data, size);
    const std::string_view numberFile = rest.substr(0, rest.find('\a'));
    for (const char *name : files) {
        const std::string_view content = takeUpTo(rest, '\a');
        if (content == "-")
            unlink(folder.file(name).c_str());
        else
            writeFile(folder.file(name), content);
    }

    static const QString root = QString::fromStdString(folder.path());
    Identity identity(root);
    const bool known = identity.readModelNumber();
    require(known == (identity.modelNumber() != 0), "a refused model number is not kept");
    require(!known || isKnownModel(identity.modelNumber()), "an accepted model number is a known one");
    require(!known || holdsANumber(numberFile), "an accepted model number stands alone");
    for (const quint16 model : {identity.modelNumber(), quint16{6764}, quint16{6420}}) {
        identity.readAmpType(model);
        require(identity.ampTypeCode() >= 1 && identity.ampTypeCode() <= 8, "the amplifier type has a code");
        checkText(identity.infoData().amplifierType);
    }
    identity.readPackageVersion();
    identity.readModelType();
    identity.readKernelVersion();
    identity.readDeviceTreeVersion();
    const InfoData &info = identity.infoData();
    for (const InfoText *field : {&info.packageVersion, &info.modelType, &info.kernelVersion, &info.deviceTreeVersion})
        checkText(*field);
    return 0;
}
