// quelm: Quelm's desktop application.
#include "app/Launch.h"

int main(int argc, char** argv) {
    return quelm::runQuelm(argc, argv);
}
