// velmorin: the command-line host. See cli.h.

#include <iostream>
#include <string>
#include <vector>

#include "cli/cli.h"
#include "common/commands.h"

int main(int argc, char** argv) {
    const std::vector<std::string> args(argv + 1, argv + argc);
    // The commands that need a groom answer that they are not in this build until a backend that
    // drives a session, the groom file and the writers is bound here.
    velmorin::CommandBackend backend;
    return velmorin::velmorinMain(args, backend, std::cout, std::cerr);
}
