#include "app/frontend.h"

int main(int argc, char **argv) {
    return kelvane::app::runFrontEnd(argc, argv);
}
