// devsim COMMAND [--option value ...]: one command, one datagram or one file
// edit, so that tests, the demo and a person at a shell drive the daemon alike.
#include <cstdio>
#include <cstring>

#include "devsim.h"

namespace {

using devsim::Command;

const Command *const commands[] = {
    &devsim::login_command,    &devsim::report_command,   &devsim::assoc_command,
    &devsim::disassoc_command, &devsim::counters_command, &devsim::ip_command,
    &devsim::other_command,    &devsim::station_command,  &devsim::owe_command,
    &devsim::portal_command,   &devsim::uam_command,
};

void overview()
{
    printf("usage: devsim COMMAND [--option value ...]\n"
           "Plays the peers of the simulated access point: the authenticator, the wireless\n"
           "HAL and driver, the cloud's portal channel and the UAM service.\n\ncommands:\n");
    for (const Command *c : commands) {
        const char *end = strchr(c->summary, '\n');
        int len = end ? static_cast<int>(end - c->summary) : static_cast<int>(strlen(c->summary));
        printf("  %-9s %.*s\n", c->name, len, c->summary);
    }
    printf("\nEach command takes --help. Files live in $DEVSIM_ROOT, default /tmp/devsim.\n"
           "Exit status: 0 done, 1 the send or file write failed, 2 a bad argument\n"
           "(then nothing is sent and no file changes).\n");
}

}  // namespace

int main(int argc, char **argv)
{
    if (argc < 2)
        devsim::bad("a command is missing (devsim --help lists them)");
    const char *name = argv[1];
    if (!strcmp(name, "--help") || !strcmp(name, "-h") || !strcmp(name, "help")) {
        overview();
        return 0;
    }
    for (const Command *c : commands)
        if (!strcmp(name, c->name))
            return c->run(*c, devsim::Words(argv + 2, argv + argc));
    devsim::bad("%s: unknown command (devsim --help lists them)", name);
}
