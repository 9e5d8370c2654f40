// A program on the host library: loads one module and reads what it declared.
#include <iostream>

#include "host.h"
#include "kelvo/config.h"

int main(int argc, char** argv) {
    if (argc != 2) return 2;
    kelvo::host::Initialize();
    auto module = kelvo::host::LoadModule(argv[1]);
    if (!module) {
        std::cerr << module.GetError().Message() << '\n';
        return 1;
    }
    auto greeting = kelvo::ConfigGetString("g_greeting");
    std::cout << (greeting ? *greeting : greeting.GetError().Message()) << '\n';
    kelvo::host::UnloadModule(*module);
    return 0;
}
