// Not an installer: a person's session. Says "open" once the guest's desktop is there, and keeps it there
// until its input ends. Without such a program the desktop goes with every program's end, and one that comes
// just then finds half of it.
#include <cstdio>
#include <windows.h>

int main() {
    if (GetDesktopWindow() == nullptr || CreateWindowExW(0, L"STATIC", L"", 0, 0, 0, 0, 0, HWND_MESSAGE,
                                                         nullptr, nullptr, nullptr) == nullptr) {
        return 1;
    }
    std::puts("open");
    std::fflush(stdout);
    while (std::getchar() != EOF) {
    }
    return 0;
}
