#include "tolkbrel.h"

int main(int argc, char** argv) { return tolkbrel_main(argc, argv); }
