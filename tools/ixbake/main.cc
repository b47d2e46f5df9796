#include "ixbake.h"

int main(int argc, char** argv) { return ixbake_main(argc, argv); }
