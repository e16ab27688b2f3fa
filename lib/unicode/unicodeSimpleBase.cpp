#include "misc/diag.h"
#include "misc/encodingTable.h"
#include "unicode/unicode.h"

#include <array>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

namespace {

constexpr auto GUARD_PAUSE = std::chrono::milliseconds(250);
constexpr size_t MESSAGE_SIZE = 1024;

std::atomic<int> startupGuard = 0;
bool started = false; // under the guard

class GuardHolder {
public:
    GuardHolder() {
        for (int free = 0; !startupGuard.compare_exchange_strong(free, 1); free = 0) {
            std::this_thread::sleep_for(GUARD_PAUSE);
        }
    }
    GuardHolder(const GuardHolder&) = delete;
    GuardHolder& operator=(const GuardHolder&) = delete;
    ~GuardHolder() { startupGuard = 0; }
};

bool ConvertWide(const CodeSet_Unit* const* wide, size_t most, std::vector<std::string>* list) {
    std::vector<std::string> converted;
    for (size_t i = 0; i < most && wide[i] != nullptr; i++) {
        std::optional<std::string> text = Unicode_FromWide(wide[i]);
        if (!text) {
            return false;
        }
        converted.push_back(std::move(*text));
    }
    *list = std::move(converted);
    return true;
}

bool ConvertLocal(const std::string& encoding, std::vector<std::string>* list) {
    std::vector<std::string> converted(list->size());
    for (size_t i = 0; i < list->size(); i++) {
        const std::string& text = (*list)[i];
        if (!CodeSet_Convert(encoding.c_str(), text.data(), text.size(), "UTF-8", CodeSet_Mode::Stop,
                             &converted[i])) {
            return false;
        }
    }
    *list = std::move(converted);
    return true;
}

// A code page that ICU does not have is left to the system, and so is all the rest then.
bool CheckLocalEncoding(const std::string& encoding) {
    const int index = Unicode_EncodingNameToIndex(encoding.c_str());
    if (index < 0) {
        return false;
    }
    if (CodeSet_UsesIcu() && !EncodingTable_IsSupported(static_cast<size_t>(index))) {
        if (Unicode_EncodingNameToIndex(encoding.c_str()) != index) {
            return false;
        }
        CodeSet_DisableIcu();
    }
    return true;
}

using Message = std::array<char, MESSAGE_SIZE>;

// False with the message of what failed.
bool Start(int argumentCount, const char* dataDirectory, const CodeSet_Unit* const* wideArguments,
           const CodeSet_Unit* const* wideEnvironment, std::vector<std::string>* arguments,
           std::vector<std::string>* environment, Message* message) {
    if (!CodeSet_Init(dataDirectory)) {
        snprintf(message->data(), message->size(), "Failed to initialize codeset.\n");
        return false;
    }
    const std::string local = CodeSet_LocalEncoding();
    if (!CheckLocalEncoding(local)) {
        snprintf(message->data(), message->size(), "Unsupported local character encoding \"%s\".\n",
                 local.c_str());
        return false;
    }
    const size_t count = argumentCount > 0 ? static_cast<size_t>(argumentCount) : 0;
    int failed = 0;
    if (arguments != nullptr && wideArguments != nullptr) {
        failed = ConvertWide(wideArguments, count, arguments) ? 0 : 1;
    } else if (arguments != nullptr) {
        failed = ConvertLocal(local, arguments) ? 0 : 2;
    }
    if (failed == 0 && environment != nullptr && wideEnvironment != nullptr) {
        failed = ConvertWide(wideEnvironment, SIZE_MAX, environment) ? 0 : 3;
    } else if (failed == 0 && environment != nullptr) {
        failed = ConvertLocal(local, environment) ? 0 : 4;
    }
    if (failed != 0) {
        snprintf(message->data(), message->size(), "Unicode_AllocList%d failed.\n", failed);
    }
    return failed == 0;
}

} // namespace

void Unicode_Startup(int argumentCount, const char* dataDirectory, const CodeSet_Unit* const* wideArguments,
                     const CodeSet_Unit* const* wideEnvironment, std::vector<std::string>* arguments,
                     std::vector<std::string>* environment) {
    Message message = {};
    {
        GuardHolder guard;
        started = started || Start(argumentCount, dataDirectory, wideArguments, wideEnvironment, arguments,
                                   environment, &message);
        if (started) {
            return;
        }
    }
    Panic("%s", message.data());
}
