// fanout-receive: the endpoint of a distribution. Listens, receives each
// distribution into its depot with checkpoints, and can copy the finished
// segments out. docs/fanout-receive.1 is the manual.
#include "dist.h"

int main(int argc, char** argv) {
    return fanout::dist::Serve("fanout-receive", argc, argv, false);
}
