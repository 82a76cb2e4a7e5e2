// fanout-relay: a repeater. Receives a distribution into its own depot like
// fanout-receive and, while it receives, forwards it to every downstream
// target, each resuming from its own offsets. docs/fanout-relay.1 is the
// manual.
#include "dist.h"

int main(int argc, char** argv) {
    return fanout::dist::Serve("fanout-relay", argc, argv, true);
}
