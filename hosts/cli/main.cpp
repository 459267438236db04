// velmorin: the command-line host. See cli.h.

#include <iostream>
#include <string>
#include <vector>

#include "cli/cli.h"
#include "common/session_backend.h"

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    // Each command that needs a groom reads its groom file into a session of its own.
    velmorin::SessionBackend backend;
    return velmorin::velmorinMain(args, backend, std::cout, std::cerr);
}
