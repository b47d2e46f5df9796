#include <cstdlib>

#include "cli.h"

int main(int argc, char** argv) { exit(vornsearch_main(argc, argv)); }
