// quelm: Quelm's desktop application.
#include "app/Launch.h"

#include <sys/prctl.h>

int main(int argc, char** argv) {
    // Before anything else: no other process of the user may trace the one that drives the
    // root helper.
    ::prctl(PR_SET_DUMPABLE, 0);
    return quelm::runQuelm(argc, argv);
}
