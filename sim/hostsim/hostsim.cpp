// The host and the hypervisor for one upgrade on the desk of a developer: see OPTIONS_HELP.

#include "sim/hostsim/frontWin32.h"
#include "sim/hostsim/textWin32.h"

#include <cstdio>
#include <fcntl.h>
#include <io.h>

int wmain(int count, wchar_t** wideArguments) {
    _setmode(_fileno(stdout), _O_BINARY);
    // Whole lines, each flushed; on a terminal the default is one byte at a time.
    std::setvbuf(stdout, nullptr, _IOFBF, 4096);
    std::vector<std::string> texts;
    for (int i = 0; i < count; ++i) {
        texts.push_back(Text_FromWide(wideArguments[i]));
    }
    std::vector<char*> arguments;
    for (std::string& text : texts) {
        arguments.push_back(text.data());
    }
    arguments.push_back(nullptr);

    Options options;
    std::string error;
    if (!Options_Parse(count, arguments.data(), &options, &error)) {
        std::fprintf(stderr, "hostsim: %s\nTry hostsim --help.\n", error.c_str());
        return static_cast<int>(Report_Exit::Usage);
    }
    if (options.help) {
        std::fputs(OPTIONS_HELP, stdout);
        return 0;
    }
    return static_cast<int>(Front_Run(options));
}
